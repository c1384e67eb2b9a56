// Lights the LED "Status" green.
//
//   pinlampd --agent libpinlamp.so --agent build/liblight-an-led.so:LightAnLed …
//   pinlampctl map set Status --green gpio17 --ready      # which pin is its green one
#include "platform/pinlamp.h"

namespace LightAnLed {

class Agent : public Zel::Described<Agent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("LightAnLed::Agent");
    return type;
  }
  using Described::Described;

  // "wi": the agent writes there, and what it writes is published.
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount({Paths::kLeds, "Hardware::Led::LedSystemConfigDir", "wi"});
    group->doClose(false, "", 0.0);
  }

  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& manager) override {
    if (status != Statedb::mountSuccess_) throw std::runtime_error("the LEDs can't be mounted");
    const auto leds =
        Zel::dynamicPtrCast<Hardware::Led::LedSystemConfigDir>(manager->getEntity(Paths::kLeds));
    Led::LightSetting setting;
    setting.green = true;
    leds->ledsIs("Status")->lightSettingIs(setting);
  }
};

ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name) { return Zel::allocate<Agent>(name); }

namespace {
const Zel::TypeRegistration types{&Agent::typeNode};
}

}  // namespace LightAnLed
