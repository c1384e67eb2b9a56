// A machine's view of each colour: its pins, when they are lit, and the texts of their trace records.
#pragma once

#include <string_view>

#include "platform/model/colourmembers.h"

namespace Pinlamp {

struct Colour {
  const char* operation;
  const char* tracePrefix;
  const Hardware::Gpio::CorvelGpioLedConfig::Pins& (Hardware::Gpio::CorvelGpioLedConfig::*pins)() const;
  bool ::Led::LightSetting::*lit;
};

#define LED_PIN_COLOUR(name, Title, ...)                                               \
  Colour{"handleCorvelGpio" #Title,                                                    \
         "Corvel " #Title " Pin: ", &Hardware::Gpio::CorvelGpioLedConfig::gpio##Title, \
         &::Led::LightSetting::name},
inline constexpr std::array kColours{LED_PIN_COLOURS(LED_PIN_COLOUR)};
#undef LED_PIN_COLOUR

// The colour that an operation writes.
consteval const Colour& colourOf(std::string_view operation) {
  for (const Colour& colour : kColours)
    if (colour.operation == operation) return colour;
  throw "no colour has this operation";
}

}  // namespace Pinlamp
