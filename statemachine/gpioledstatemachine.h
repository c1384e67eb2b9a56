// The state machine of one LED: turns the LED's light setting into the values of its pins, and flashes it.
//
// Activity thread only.
#pragma once

#include <cstdint>

#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/ledconfig.h"
#include "platform/zel/entity/described.h"
#include "platform/zel/notify/clock.h"
#include "platform/zel/notify/slot.h"

namespace Pinlamp {

using U32 = std::uint32_t;

// Owned by the configuration reactor, under the LED's name. Made by GpioLedStateMachineIs only.
//
// A steady setting is shown at once: all pins go dark, then those of its colours are lit. A flashing one is
// shown by the machine's own wake-ups on the clock, one each flash interval, which toggle between all dark
// and the colours of the setting at that time. A setting never re-arms a wake-up that is armed; a wake-up
// that finds a steady setting is the last. The phase is kept for the next time. A machine leaves its pins as
// they are when it ends.
//
// A hook on a pin may drop the machine while it writes.
class GpioLedStateMachine : public Zel::Described<GpioLedStateMachine, Zel::Notifier> {
 public:
  using CorvelGpioLedConfig = Hardware::Gpio::CorvelGpioLedConfig;
  using LedConfig = Hardware::Led::LedConfig;
  using LightSetting = ::Led::LightSetting;

  class ZelHwLedConfig
      : public Zel::NestedReactor<ZelHwLedConfig, LedConfig::NotifieeConst, GpioLedStateMachine> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::GpioLedStateMachine::ZelHwLedConfig";
    using NestedReactor::NestedReactor;
    void onLightSetting() override { notifyOwner(&GpioLedStateMachine::handleHwLedConfig); }
  };

  class ZelClock : public Zel::NestedReactor<ZelClock, Zel::Clock::NotifieeConst, GpioLedStateMachine> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::GpioLedStateMachine::ZelClock";
    using NestedReactor::NestedReactor;
    void onTime() override { notifyOwner(&GpioLedStateMachine::handleClockTimeout); }
  };

  static constexpr auto attributes() {
    using M = GpioLedStateMachine;
    return std::tuple{
        Zel::attribute::value<&M::corvelGpioLedConfig_>("corvelGpioLedConfig", Zel::attribute::kGet),
        Zel::attribute::accessor<&M::hwLedConfig>("hwLedConfig"),
        Zel::attribute::accessor<&M::name>("name"),
        Zel::attribute::procedure<&M::handleHwLedConfig>("handleHwLedConfig"),
        Zel::attribute::procedure<&M::handleCorvelGpioYellow>("handleCorvelGpioYellow", "led", "value"),
        Zel::attribute::procedure<&M::handleCorvelGpioGreen>("handleCorvelGpioGreen", "led", "value"),
        Zel::attribute::procedure<&M::handleCorvelGpioRed>("handleCorvelGpioRed", "led", "value"),
        Zel::attribute::procedure<&M::handleCorvelGpioOrange>("handleCorvelGpioOrange", "led", "value"),
        Zel::attribute::procedure<&M::handleLedSystemConfig>("handleLedSystemConfig", "ledSystemConfig",
                                                             "setting"),
        Zel::attribute::accessor<&M::clock, &M::clockIs>("clock"),
        Zel::attribute::procedure<&M::handleClockTimeout>("handleClockTimeout"),
        Zel::attribute::value<&M::flashingState_>("flashingState"),
        Zel::attribute::value<&M::initialized_>("initialized"),
        Zel::attribute::procedure<&M::handleInitialized>("handleInitialized"),
    };
  }
  static constexpr auto reactors() {
    return std::tuple{&GpioLedStateMachine::hwLedConfig_, &GpioLedStateMachine::clock_};
  }
  static const Zel::TypeNode& typeNode();

  // Either may be null. Without pins a steady setting is not shown; without an LED nothing is shown until one
  // is set and its light setting changes.
  static Zel::Ptr<GpioLedStateMachine> GpioLedStateMachineIs(
      const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig, const Zel::Ptr<const LedConfig>& hwLedConfig);
  // For Zel::allocate.
  GpioLedStateMachine(const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig,
                      const Zel::Ptr<const LedConfig>& hwLedConfig);

  // The LED's name, the machine's key; empty while there is no LED.
  Zel::Name name() const;

  const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig() const { return corvelGpioLedConfig_; }

  // The LED that is watched. Setting one does not apply its setting; removing it (which returns it) leaves
  // pins and wake-up alone. REQUIRES: a machine whose wake-up is armed has an LED.
  Zel::Ptr<const LedConfig> hwLedConfig() const { return Zel::Ptr<const LedConfig>(hwLedConfig_.notifier()); }
  void hwLedConfigIs(const Zel::Ptr<const LedConfig>& led);
  Zel::Ptr<const LedConfig> hwLedConfigDel();

  // The clock that paces flashing. Removing it returns it and ends flashing where it is.
  Zel::Ptr<const Zel::Clock> clock() const { return Zel::Ptr<const Zel::Clock>(clock_.notifier()); }
  void clockIs(const Zel::Ptr<const Zel::Clock>& clock);
  Zel::Ptr<const Zel::Clock> clockDel();
  // The next toggle.
  double wakeUp() const override { return clock_ ? clock_->wakeUp() : Zel::Clock::kNever; }

  // The phase of flashing that the last wake-up showed: true is lit.
  bool flashingState() const { return flashingState_; }
  void flashingStateIs(bool lit) { set<&GpioLedStateMachine::flashingState_>(lit); }

  // Whether start-up has run; no setting is applied before.
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { set<&GpioLedStateMachine::initialized_>(initialized); }

  // Installs the activity manager's clock, disarmed, and applies the LED's setting. Only the first time.
  void handleInitialized();
  // Applies the LED's light setting.
  void handleHwLedConfig();
  // Applies any setting. The LED's name is not used.
  void handleLedSystemConfig(Zel::Name ledSystemConfig, const LightSetting& setting);
  // One toggle.
  void handleClockTimeout();

  // Write a value to the pins of one colour; pins that have it are skipped. REQUIRES: led.
  void handleCorvelGpioYellow(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value);
  void handleCorvelGpioGreen(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value);
  void handleCorvelGpioRed(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value);
  void handleCorvelGpioOrange(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value);

 protected:
  ~GpioLedStateMachine() override = default;

 private:
  friend bool lookahead(const GpioLedStateMachine& machine, unsigned step);

  void apply(const LightSetting& setting);
  void showSteady(const LightSetting& setting);
  void startFlashing(double interval);
  void wakeUpIs(double time);
  void darken();
  void light(const LightSetting& setting);

  Zel::Ptr<CorvelGpioLedConfig> corvelGpioLedConfig_;
  Zel::Slot<ZelHwLedConfig> hwLedConfig_;
  Zel::Slot<ZelClock> clock_;
  bool flashingState_ = false;
  bool initialized_ = false;
};

}  // namespace Pinlamp
