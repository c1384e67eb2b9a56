// Factories and agents that misbehave.
#include <stdexcept>

#include "platform/warden/agentoptions.h"
#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

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

// Mounts a directory of LEDs. Its alarm throws when it expires.
struct Agent : Support::Plain<Agent, Warden::CAgent> {
  static constexpr const char* kName = "Test::Agent";
  explicit Agent(Zel::Name name, double alarm = Zel::Clock::kNever) : Plain(name) {
    alarm_->timeMinIs(alarm);
  }
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount(Statedb::Mount("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "r"));
    group->doClose(false, "", 0.0);
  }
  const Zel::Ptr<Alarm> alarm_ = Zel::allocate<Alarm>(Zel::activityManager().clock());
};

// A type of entities that only this library knows.
struct Fan : Zel::Described<Fan, Zel::Entity> {
  static constexpr auto attributes() { return std::tuple{Zel::attribute::value<&Fan::rounds>("rounds")}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::Fan", &Zel::newEntity<Fan>);
    return type;
  }
  explicit Fan(Zel::Name name) : Described(name) {}
  double rounds = 0;
};
const Zel::TypeRegistration types{&Fan::typeNode};

struct UnwillingAgent : Agent {
  using Agent::Agent;
  void doInit() override { throw std::runtime_error("not today"); }
};

struct LateAgent : Agent {
  using Agent::Agent;
  void doMountsComplete(Statedb::MountStatus, const Zel::Ptr<Statedb::EntityManager>&) override {
    throw std::runtime_error("too late");
  }
};

// Covers the LED "Fan1" with red, and a mark, whatever others set.
struct CoveringAgent : Agent {
  using Agent::Agent;
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount(Statedb::Mount("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "c"));
    group->doClose(false, "", 0.0);
  }
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& manager) override {
    if (status != Statedb::mountSuccess_) throw std::runtime_error("covers nothing");
    const Statedb::Path led("hardware/led/config/leds/Fan1");
    manager->covers().put(led, "Hardware::Led::LedConfig", "lightSetting", Zel::Value::Fields{{"red", true}});
    manager->covers().put(led, "Hardware::Led::LedConfig", "theme", "cover-mark");
  }
};

}  // namespace

namespace Covering {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<CoveringAgent>(name); }
}  // namespace Covering

namespace Unwilling {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<UnwillingAgent>(name); }
}  // namespace Unwilling

namespace Late {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<LateAgent>(name); }
}  // namespace Late

namespace Plain {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }
}  // namespace Plain

namespace Optional {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name, const Warden::AgentOptions& options) {
  options.words("zones", {"front", "rear"});
  return Zel::allocate<Agent>(name, options.number("alarm", Zel::Clock::kNever, 0, 10));
}
}  // namespace Optional

namespace Faulty {
ZEL_API Zel::Ptr<Warden::CAgent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name, 0.0); }
}  // namespace Faulty
