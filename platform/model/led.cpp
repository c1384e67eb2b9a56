#include "platform/model/led.h"

#include <cmath>
#include <ostream>
#include <string_view>
#include <utility>

#include "platform/model/colourmembers.h"

namespace Led {

namespace {
constexpr const char* kColourTexts[kColourCount] = {"off",    "green", "red",   "yellow",
                                                    "orange", "blue",  "white", "purple"};
}

namespace {

constexpr auto kFieldNames =
    std::apply([](const auto&... fields) { return std::array{std::string_view(fields.name)...}; },
               LightSetting::fields());
static_assert(
    [] {
      for (const PinColour& colour : kPinColours)
        if (kFieldNames.at(colour.place) != colour.name) return false;
      return true;
    }(),
    "each colour has its place among the fields");

template <class T>
bool same(const T& a, const T& b) {
  return a == b;
}
bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

}  // namespace

bool operator==(const LightSetting& a, const LightSetting& b) {
  return std::apply(
      [&]<auto... Member>(const Zel::Field<Member>&...) { return (same(a.*Member, b.*Member) && ...); },
      LightSetting::fields());
}

const char* LightSetting::refuseBrightness(const Zel::Value& value) {
  const auto* number = value.as<std::int64_t>();
  return number && *number <= 100 ? nullptr : "a whole number from 0 to 100 (per cent)";
}

const char* LightSetting::refuseInterval(const Zel::Value& value) {
  const double interval = Zel::detail::number(value);
  return std::isfinite(interval) && interval >= 0.0 ? nullptr
                                                    : "seconds, finite and not negative (0: steady)";
}

std::ostream& operator<<(std::ostream& out, const LightSetting& setting) {
  const char* separator = "";
  out << '{';
  for (const ColourMembers& colour : asRead(kColourMembers))
    if (setting.*colour.lit) out << std::exchange(separator, " ") << colour.name;
  if (!*separator) out << "off";
  if (setting.flashInterval != 0.0) out << ", flash " << setting.flashInterval << " s";
  if (setting.brightness != 100) out << ", brightness " << setting.brightness << " %";
  if (setting.priority != 0) out << ", priority " << setting.priority;
  return out << '}';
}

std::ostream& operator<<(std::ostream& out, const Color& colour) {
  const auto number = static_cast<unsigned>(colour);
  return number < kColourCount ? out << kColourTexts[number] : out << number;
}

}  // namespace Led
