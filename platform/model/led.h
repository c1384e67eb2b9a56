// The LED model: what one LED should show.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <tuple>

#include "platform/zel/core/export.h"
#include "platform/zel/object/valuetraits.h"

namespace Led {

// Any number of colours may be set at once.
struct ZEL_API LightSetting {
  bool orange = false;
  bool green = false;
  bool red = false;
  bool yellow = false;
  std::uint32_t brightness = 100;  // per cent, for LEDs that can be dimmed
  double flashInterval = 0.0;      // seconds between two toggles of a flashing LED; 0.0: steady
  std::uint32_t priority = 0;      // of the request behind the setting; for policy agents

  static constexpr const char* kTypeName = "Led::LightSetting";
  static constexpr auto fields() {
    return std::tuple{Zel::field<&LightSetting::orange>("orange"),
                      Zel::field<&LightSetting::green>("green"),
                      Zel::field<&LightSetting::red>("red"),
                      Zel::field<&LightSetting::yellow>("yellow"),
                      Zel::field<&LightSetting::brightness>("brightness", &refuseBrightness),
                      Zel::field<&LightSetting::flashInterval>("flashInterval", &refuseInterval),
                      Zel::field<&LightSetting::priority>("priority")};
  }

  // Two NaN intervals are equal, so that storing one again is no change.
  friend ZEL_API bool operator==(const LightSetting& a, const LightSetting& b);

 private:
  static const char* refuseBrightness(const Zel::Value& value);
  static const char* refuseInterval(const Zel::Value& value);
};

// As `{green red, flash 0.5 s}`, `{off}`; fields that have their defaults are left out.
ZEL_API std::ostream& operator<<(std::ostream& out, const LightSetting& setting);

enum class Color : std::uint8_t { off, green, red, yellow, orange, blue, white, purple };
inline constexpr unsigned kColourCount = 8;

// The enumerator's name, or the number of a value that has none.
ZEL_API std::ostream& operator<<(std::ostream& out, const Color& color);

}  // namespace Led
