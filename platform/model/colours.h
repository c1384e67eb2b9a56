// The colours that an LED may have pins of. A colour is one line here; besides, there are the members and
// operations that carry its name: those of Led::LightSetting, Hardware::Gpio::GpioLedConfig and
// CorvelGpioLedConfig, and Pinlamp::GpioLedStateMachine.
//
//     for (const Led::PinColour& colour : Led::kColoursAsRead) std::cout << colour.name << '\n';
//
// Words alone, for clients that know no entity; the members are in colourmembers.h.
#pragma once

#include <array>
#include <cstddef>

// In the order in which pins are made, written and removed. A line has, of each colour:
//
//     its name; the same within other names; its place among the fields of a light setting, from 0; how a
//     screen shows it: red, green and blue of 255, and the code of a terminal that has 16 colours only
//
// For the preprocessor, which makes names of the words, so that each table has the columns that its layer
// knows.
#define LED_PIN_COLOURS(COLOUR)               \
  COLOUR(yellow, Yellow, 3, 255, 220, 30, 93) \
  COLOUR(green, Green, 1, 0, 215, 75, 92)     \
  COLOUR(red, Red, 2, 255, 45, 45, 91)        \
  COLOUR(orange, Orange, 0, 255, 135, 0, 33)

namespace Led {

struct PinColour {
  const char* name;        // "yellow": what people write, and the field of a light setting
  const char* mappedPins;  // "gpioYellowName": the attribute of a mapping that names the pins
  const char* drivenPins;  // "gpioYellow": the attribute of an LED that is driven
  char letter;             // 'Y'
  std::size_t place;       // among the fields of a light setting
  std::array<unsigned char, 3> rgb;
  const char* terminalCode;  // of SGR, on a terminal of 16 colours
};

#define LED_PIN_COLOUR(name, Title, place, r, g, b, code) \
  PinColour{#name, "gpio" #Title "Name", "gpio" #Title, #Title[0], place, {r, g, b}, #code},
inline constexpr std::array kPinColours{LED_PIN_COLOURS(LED_PIN_COLOUR)};
#undef LED_PIN_COLOUR

// A table of the colours in the order of a light setting's fields, which is how people read them.
template <class T, std::size_t N>
constexpr std::array<T, N> asRead(const std::array<T, N>& table) {
  auto ordered = table;
  for (std::size_t i = 0; i < N; ++i) ordered[kPinColours[i].place] = table[i];
  return ordered;
}
inline constexpr auto kColoursAsRead = asRead(kPinColours);

}  // namespace Led
