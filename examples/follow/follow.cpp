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

struct LedReactor : Zel::Reactor<LedReactor, LedConfig::NotifieeConst> {
  static constexpr const char* kTypeName = "Follow::LedReactor";
  using Reactor::Reactor;
  void onLightSetting() override { log(notifier()->lightSetting()); }
};

// Points the LED's reactor at the LED of that name, or at none.
struct DirReactor : Zel::Reactor<DirReactor, LedDir::NotifieeConst> {
  static constexpr const char* kTypeName = "Follow::DirReactor";
  explicit DirReactor(const Zel::Ptr<LedDir>& leds) : Reactor(leds) { onLeds("Status"); }
  void onLeds(Zel::Name name) override {
    if (name != Zel::Name("Status")) return;
    led->notifierIs(notifier()->leds(name));
    if (led->notifier()) log(led->notifier()->lightSetting());
  }
  const Zel::Ptr<LedReactor> led = Zel::allocate<LedReactor>(nullptr);
};

struct Agent : Zel::Described<Agent, Warden::CAgent> {
  static constexpr auto attributes() { return std::tuple{}; }
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
    reactor = Zel::allocate<DirReactor>(Zel::dynamicPtrCast<LedDir>(manager->getEntity(Paths::kLeds)));
  }
  Zel::Ptr<DirReactor> reactor;
};

ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }

}  // namespace Follow
