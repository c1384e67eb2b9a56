// The colours of an LED: for each its pins, whether a setting lights it, and what traces call it.
#pragma once

#include <array>

#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/led.h"

namespace Pinlamp {

struct Colour {
  const char* operation;
  const char* tracePrefix;
  const Hardware::Gpio::CorvelGpioLedConfig::Pins& (Hardware::Gpio::CorvelGpioLedConfig::*pins)() const;
  bool ::Led::LightSetting::*lit;
};

// In the order in which colours are written.
inline constexpr auto kColours = [] {
  using Config = Hardware::Gpio::CorvelGpioLedConfig;
  using Setting = ::Led::LightSetting;
  return std::array<Colour, 4>{{
      {"handleCorvelGpioYellow", "Corvel Yellow Pin: ", &Config::gpioYellow, &Setting::yellow},
      {"handleCorvelGpioGreen", "Corvel Green Pin: ", &Config::gpioGreen, &Setting::green},
      {"handleCorvelGpioRed", "Corvel Red Pin: ", &Config::gpioRed, &Setting::red},
      {"handleCorvelGpioOrange", "Corvel Orange Pin: ", &Config::gpioOrange, &Setting::orange},
  }};
}();

}  // namespace Pinlamp
