// Prefetches what a machine reads and writes to show a setting.
#include "platform/zel/notify/lookahead.h"

#include "statemachine/colours.h"
#include "statemachine/gpioledstatemachine.h"

namespace Pinlamp {

namespace {

using Config = Hardware::Gpio::CorvelGpioLedConfig;
using Pin = Hardware::Gpio::CorvelPinConfig;

void prefetchCollections(const Config& pins) {
  constexpr auto first = kColours.front().pins, last = kColours.back().pins;  // the others lie between
  Zel::prefetch(&(pins.*first)());
  Zel::prefetch(&(pins.*last)());
}

template <class Function>
void forEachPin(const Config& pins, Function function) {
  for (const Colour& colour : kColours)
    (pins.*colour.pins)().forEach([&](const Pin& pin) { function(colour, pin); });
}

}  // namespace

bool lookahead(const GpioLedStateMachine& machine, unsigned step) {
  const Config* pins = machine.corvelGpioLedConfig_.get();
  if (!pins) return false;
  if (step == 2) {
    Zel::prefetch(machine.hwLedConfig_.get());
    prefetchCollections(*pins);
    return true;
  }
  const auto* led = machine.hwLedConfig_.notifier();
  if (!led) return false;
  if (step == 3) {
    Zel::prefetch(&led->lightSetting());
    forEachPin(*pins, [](const Colour&, const Pin& pin) { Zel::prefetch(&pin); });
    return true;
  }
  const auto& setting = led->lightSetting();
  forEachPin(*pins, [&](const Colour& colour, const Pin& pin) {
    if (pin.value() != 0 || setting.*colour.lit) Zel::Lookahead::prefetchSubscriber(pin);
  });
  return false;
}

}  // namespace Pinlamp
