// Factories and agents that misbehave.
#include <stdexcept>

#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"

namespace Null {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name) { return nullptr; }
}  // namespace Null

namespace Throwing {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name) { throw std::runtime_error("no lamp oil"); }
}  // namespace Throwing

namespace Odd::Inner {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name) { throw 7; }
}  // namespace Odd::Inner

namespace {

struct Alarm : Zel::Reactor<Alarm, Zel::Clock::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Alarm";
  using Reactor::Reactor;
  void onTime() override { throw std::runtime_error("the lamp fell over"); }
};

// Mounts a directory of LEDs; its alarm, where it is set, throws at once.
class Agent : public Zel::Described<Agent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::Agent");
    return type;
  }
  Agent(Zel::Name name, double alarm) : Described(name) { alarm_->timeMinIs(alarm); }
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount(Statedb::Mount("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "r"));
    group->doClose(false, "", 0.0);
  }

 private:
  const Zel::Ptr<Alarm> alarm_ = Zel::allocate<Alarm>(Zel::activityManager().clock());
};

struct UnwillingAgent : Agent {
  explicit UnwillingAgent(Zel::Name name) : Agent(name, Zel::Clock::kNever) {}
  void doInit() override { throw std::runtime_error("not today"); }
};

struct LateAgent : Agent {
  explicit LateAgent(Zel::Name name) : Agent(name, Zel::Clock::kNever) {}
  void doMountsComplete(Statedb::MountStatus, const Zel::Ptr<Statedb::EntityManager>&) override {
    throw std::runtime_error("too late");
  }
};

}  // namespace

namespace Unwilling {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<UnwillingAgent>(name); }
}  // namespace Unwilling

namespace Late {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<LateAgent>(name); }
}  // namespace Late

namespace Plain {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) {
  return Zel::allocate<Agent>(name, Zel::Clock::kNever);
}
}  // namespace Plain

namespace Faulty {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name, 0.0); }
}  // namespace Faulty
