// The members that each colour has in the entities of the LED model.
//
//     for (const Led::ColourMembers& colour : Led::kColourMembers)
//       if (setting.*colour.lit) show((output.*colour.pins)());
#pragma once

#include "platform/model/colours.h"
#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/gpioledconfig.h"
#include "platform/model/led.h"

namespace Led {

struct ColourMembers {
  using Mapping = Hardware::Gpio::GpioLedConfig;
  using Output = Hardware::Gpio::CorvelGpioLedConfig;
  using Pin = Hardware::Gpio::CorvelPinConfig;

  const char* name;
  bool LightSetting::*lit;
  const Zel::NameSet& (Mapping::*names)() const;
  void (Mapping::*nameIs)(const Zel::Name& pin, bool value);
  const Output::Pins& (Output::*pins)() const;
  void (Output::*pinIs)(const Zel::Ptr<Pin>& pin);
};

#define LED_PIN_COLOUR(name, Title, ...)                      \
  ColourMembers{#name,                                        \
                &LightSetting::name,                          \
                &ColourMembers::Mapping::gpio##Title##Name,   \
                &ColourMembers::Mapping::gpio##Title##NameIs, \
                &ColourMembers::Output::gpio##Title,          \
                &ColourMembers::Output::gpio##Title##Is},
// In the order of kPinColours.
inline constexpr std::array kColourMembers{LED_PIN_COLOURS(LED_PIN_COLOUR)};
#undef LED_PIN_COLOUR

}  // namespace Led
