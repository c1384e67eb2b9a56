#include "statemachine/gpioledstatemachine.h"

#include <limits>
#include <utility>

#include "common/trace.h"
#include "platform/zel/core/assert.h"
#include "platform/zel/notify/activity.h"
#include "statemachine/colours.h"

namespace Pinlamp {

namespace {

using Config = Hardware::Gpio::CorvelGpioLedConfig;
using Pin = Hardware::Gpio::CorvelPinConfig;

void writePin(const Colour& colour, const Zel::Ptr<Pin>& pin, U32 value) {
  const U32 oldValue = pin->value();
  pin->valueIs(value);
  trace(6, __LINE__, colour.operation, [&](std::ostream& out) {
    out << colour.tracePrefix << pin->name() << "  OldValue: " << oldValue << " NewValue: " << pin->value();
  });
}

void write(const Colour& colour, const Zel::Ptr<Config>& led, U32 value) {
  ZEL_ASSERT(led);
  trace(9, __LINE__, colour.operation,
        [&](std::ostream& out) { out << colour.operation << ' ' << led->name(); });
  ((*led).*colour.pins)().forEach([&](Pin& pin) {
    if (pin.value() != value) writePin(colour, Zel::Ptr<Pin>(&pin), value);
  });
}

Zel::Name nameOf(const Zel::Entity* entity) { return entity ? entity->name() : Zel::Name(); }

}  // namespace

const Zel::TypeNode& GpioLedStateMachine::typeNode() {
  static const Zel::TypeNode type = describe("Pinlamp::GpioLedStateMachine");
  return type;
}

Zel::Ptr<GpioLedStateMachine> GpioLedStateMachine::GpioLedStateMachineIs(
    const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig, const Zel::Ptr<const LedConfig>& hwLedConfig) {
  return Zel::valid(Zel::allocate<GpioLedStateMachine>(corvelGpioLedConfig, hwLedConfig));
}

GpioLedStateMachine::GpioLedStateMachine(const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig,
                                         const Zel::Ptr<const LedConfig>& hwLedConfig)
    : corvelGpioLedConfig_(corvelGpioLedConfig) {
  hwLedConfig_.make(*this, hwLedConfig);
  handleInitialized();
}

Zel::Name GpioLedStateMachine::name() const { return nameOf(hwLedConfig_.notifier()); }

void GpioLedStateMachine::hwLedConfigIs(const Zel::Ptr<const LedConfig>& led) {
  if (hwLedConfig_.watch(*this, led)) announce<&GpioLedStateMachine::hwLedConfig>();
}

Zel::Ptr<const Hardware::Led::LedConfig> GpioLedStateMachine::hwLedConfigDel() {
  auto led = hwLedConfig_.clear();
  if (led) announce<&GpioLedStateMachine::hwLedConfig>();
  return led;
}

void GpioLedStateMachine::clockIs(const Zel::Ptr<const Zel::Clock>& clock) {
  if (clock_.watch(*this, clock)) announce<&GpioLedStateMachine::clock>();
}

Zel::Ptr<const Zel::Clock> GpioLedStateMachine::clockDel() {
  auto clock = clock_.clear();
  if (clock) announce<&GpioLedStateMachine::clock>();
  return clock;
}

void GpioLedStateMachine::handleInitialized() {
  trace(6, __LINE__, "handleInitialized",
        [&](std::ostream& out) { out << "handleInitialized for " << name(); });
  if (initialized_) return;
  flashingStateIs(false);
  clockIs(Zel::activityManager().clock());
  ZEL_ASSERT(clock_);
  wakeUpIs(Zel::Clock::kNever);
  initializedIs(true);
  handleHwLedConfig();
}

void GpioLedStateMachine::handleHwLedConfig() {
  if (!initialized_) return;
  trace(7, __LINE__, "handleHwLedConfig", [&](std::ostream& out) { out << "handleHwLedConfig " << name(); });
  const LedConfig* led = hwLedConfig_.notifier();
  if (!led) return;
  const LightSetting setting = led->lightSetting();
  apply(setting);
}

void GpioLedStateMachine::handleLedSystemConfig(Zel::Name, const LightSetting& setting) { apply(setting); }

// handleLedSystemConfig() without the name, which would be copied for each event.
void GpioLedStateMachine::apply(const LightSetting& setting) {
  if (!initialized_) return;
  trace(8, __LINE__, "handleLedSystemConfig", [&](std::ostream& out) {
    out << "handleLedSystemConfig " << nameOf(corvelGpioLedConfig_.get()) << ' ' << setting
        << "Config: " << (corvelGpioLedConfig_ ? corvelGpioLedConfig_->systemConfig() : nullptr);
  });
  if (setting.flashInterval == 0.0)
    showSteady(setting);
  else
    startFlashing(setting.flashInterval);
}

void GpioLedStateMachine::showSteady(const LightSetting& setting) {
  if (corvelGpioLedConfig_) darken();
  if (corvelGpioLedConfig_) light(setting);
}

void GpioLedStateMachine::startFlashing(double interval) {
  ZEL_ASSERT(clock_);
  if (clock_->timeMin() > std::numeric_limits<double>::max()) wakeUpIs(Zel::System::currentTime() + interval);
}

void GpioLedStateMachine::handleClockTimeout() {
  if (!initialized_) return;
  trace(8, __LINE__, "handleClockTimeout",
        [&](std::ostream& out) { out << "handleClockTimeout for " << name(); });
  flashingStateIs(!flashingState_);
  const LedConfig* hwLedConfig = hwLedConfig_.notifier();
  ZEL_REQUIRE(hwLedConfig, "wake-up " << wakeUp());
  const LightSetting setting = hwLedConfig->lightSetting();
  if (setting.flashInterval == 0.0) return wakeUpIs(Zel::Clock::kNever);
  trace(8, __LINE__, "handleClockTimeout", [&](std::ostream& out) {
    out << "Led " << hwLedConfig->name() << " is now " << int{flashingState_};
  });
  darken();
  if (flashingState_) light(setting);
  wakeUpIs(Zel::System::currentTime() + setting.flashInterval);
}

// handleClockTimeout may be invoked by hand, on a machine without a clock.
void GpioLedStateMachine::wakeUpIs(double time) {
  if (clock_) clock_->timeMinIs(time);
}

void GpioLedStateMachine::darken() {
  for (const Colour& colour : kColours) write(colour, corvelGpioLedConfig_, 0);
}

void GpioLedStateMachine::light(const LightSetting& setting) {
  for (const Colour& colour : kColours)
    if (setting.*colour.lit) write(colour, corvelGpioLedConfig_, 1);
}

void GpioLedStateMachine::handleCorvelGpioYellow(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value) {
  write(colourOf("handleCorvelGpioYellow"), led, value);
}
void GpioLedStateMachine::handleCorvelGpioGreen(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value) {
  write(colourOf("handleCorvelGpioGreen"), led, value);
}
void GpioLedStateMachine::handleCorvelGpioRed(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value) {
  write(colourOf("handleCorvelGpioRed"), led, value);
}
void GpioLedStateMachine::handleCorvelGpioOrange(const Zel::Ptr<CorvelGpioLedConfig>& led, U32 value) {
  write(colourOf("handleCorvelGpioOrange"), led, value);
}

}  // namespace Pinlamp
