#include "platform/model/led.h"

#include <cmath>
#include <ostream>
#include <utility>

namespace Led {

namespace {
constexpr const char* kColourTexts[kColourCount] = {"off",    "green", "red",   "yellow",
                                                    "orange", "blue",  "white", "purple"};
}

bool operator==(const LightSetting& a, const LightSetting& b) {
  const bool sameInterval =
      a.flashInterval == b.flashInterval || (std::isnan(a.flashInterval) && std::isnan(b.flashInterval));
  return sameInterval && a.orange == b.orange && a.green == b.green && a.red == b.red &&
         a.yellow == b.yellow && a.brightness == b.brightness && a.priority == b.priority;
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
  const std::pair<bool, const char*> colours[] = {
      {setting.orange, "orange"}, {setting.green, "green"}, {setting.red, "red"}, {setting.yellow, "yellow"}};
  const char* separator = "";
  out << '{';
  for (const auto& [lit, text] : colours)
    if (lit) out << std::exchange(separator, " ") << text;
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
