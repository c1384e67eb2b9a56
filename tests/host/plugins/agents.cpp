// Factories and agents that misbehave.
#include <stdexcept>

#include "platform/warden/cagent.h"
#include "platform/zel/activity.h"

namespace Null {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name) { return nullptr; }
}  // namespace Null

namespace Throwing {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name) { throw std::runtime_error("no lamp oil"); }
}  // namespace Throwing

namespace Odd::Inner {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name) { throw 7; }
}  // namespace Odd::Inner

namespace Plain {

class Agent : public Zel::Described<Agent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Plain::Agent");
    return type;
  }
  explicit Agent(Zel::Name name) : Described(name) {}
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount(Statedb::Mount("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "r"));
    group->doClose(false, "", 0.0);
  }
};

ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }

}  // namespace Plain

namespace Faulty {

struct Alarm : Zel::Reactor<Alarm, Zel::Clock::NotifieeConst> {
  static constexpr const char* kTypeName = "Faulty::Alarm";
  using Reactor::Reactor;
  void onTime() override { throw std::runtime_error("the lamp fell over"); }
};

class Agent : public Zel::Described<Agent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Faulty::Agent");
    return type;
  }
  explicit Agent(Zel::Name name) : Described(name) {}
  void doInit() override {
    alarm_ = Zel::allocate<Alarm>(Zel::activityManager().clock());
    alarm_->timeMinIs(Zel::System::currentTime());
  }

 private:
  Zel::Ptr<Alarm> alarm_;
};

ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }

}  // namespace Faulty
