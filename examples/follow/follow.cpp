// Follows the LED "Status" and logs each of its settings, also when the LED is removed and set again.
//
//   pinlampd --agent build/libfollow.so:Follow --trace Follow/1 …
#include "platform/pinlamp.h"

namespace Follow {

using LedDir = Hardware::Led::LedSystemConfigDir;
using Hardware::Led::LedConfig;

void log(const Led::LightSetting& setting) {
  static const Zel::TraceHandle trace("Follow", false);
  Zel::traceRecord(trace, 1, "Follow", __LINE__, __func__, [&](std::ostream& out) { out << setting; });
}

struct Agent : Zel::Described<Agent, Warden::CAgent> {
  struct LedReactor : Zel::NestedReactor<LedReactor, LedConfig::NotifieeConst, Agent> {
    static constexpr const char* kTypeName = "Follow::LedReactor";
    using NestedReactor::NestedReactor;
    void onLightSetting() override { log(notifier()->lightSetting()); }
  };
  struct LedsReactor : Zel::NestedReactor<LedsReactor, LedDir::NotifieeConst, Agent> {
    static constexpr const char* kTypeName = "Follow::LedsReactor";
    using NestedReactor::NestedReactor;
    void onLeds(Zel::Name name) override { notifyOwner(&Agent::ledChanged, name); }
  };

  static constexpr auto attributes() { return std::tuple{}; }
  static constexpr auto reactors() { return std::tuple{&Agent::leds, &Agent::led}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Follow::Agent");
    return type;
  }
  using Described::Described;
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount({Paths::kLeds, "Hardware::Led::LedSystemConfigDir", "r"});
    group->doClose(false, "", 0.0);
  }
  void doMountsComplete(Statedb::MountStatus, const Zel::Ptr<Statedb::EntityManager>& manager) override {
    leds.make(*this, Zel::dynamicPtrCast<LedDir>(manager->getEntity(Paths::kLeds)));
    ledChanged("Status");
  }
  // Follows the LED of that name, or none where it was removed.
  void ledChanged(Zel::Name name) {
    if (name != Zel::Name("Status")) return;
    led.watch(*this, leds.notifier()->leds(name));
    if (led) log(led.notifier()->lightSetting());
  }
  Zel::Slot<LedsReactor> leds;
  Zel::Slot<LedReactor> led;
};

ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }

}  // namespace Follow
