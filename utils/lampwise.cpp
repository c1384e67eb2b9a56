#include "utils/lampwise.h"

#include <cmath>
#include <regex>
#include <sstream>
#include <string_view>

#include "platform/cell/cell.h"

namespace Lampwise {

namespace {

constexpr std::uint16_t kActive = 0x0400;
constexpr std::uint16_t kActiveHere = 0x0010;

struct Device {
  std::string_view prefix;
  std::uint16_t bit;
};

// In the order in which they are tried, which is not the order of the bits.
constexpr Device kDevices[] = {
    {"Ethernet", 0x0001},         {"Fan", 0x0002},
    {"PowerSupply", 0x0004},      {"Status", 0x0008},
    {"Active", kActive},          {"Linecard", 0x0040},
    {"Fabric", 0x0040},           {"MultiFan", 0x0020},
    {"MultiLineCard", 0x0080},    {"MultiFabricCard", 0x0100},
    {"MultiPowerSupply", 0x0200},
};

bool isActiveHere(Zel::Name name) {
  return name.view() == Zel::format("Active%d", int{Cell::cellId()}).view();
}

double powerOfTen(int exponent) { return std::pow(10.0, static_cast<double>(exponent)); }

}  // namespace

std::uint16_t ledToDevice(Zel::Name name) {
  for (const auto& [prefix, bit] : kDevices)
    if (name.view().starts_with(prefix)) return bit == kActive && isActiveHere(name) ? kActiveHere : bit;
  return 0;
}

Zel::String portSubString(Zel::Name name) {
  return Zel::String(name.view().substr(0, name.view().rfind('/')));
}

Zel::String shortenLinkMode(Zel::String linkMode) {
  const std::regex pattern("linkMode(?:Forced)?(.*)");
  const std::string text = linkMode.stdString();
  std::smatch match;
  return std::regex_search(text, match, pattern) ? Zel::String(match[1].str()) : Zel::String();
}

double roundVal(double value, int places) {
  return std::round(value * powerOfTen(places)) / powerOfTen(places);
}

template <class T>
Zel::String toString(T value) {
  std::ostringstream text;
  text << value;
  return text.str();
}
template ZEL_API Zel::String toString<Led::Color>(Led::Color value);

bool isColorValid(Zel::String text) {
  for (unsigned color = 0; color < Led::kColors; ++color)
    if (toString(static_cast<Led::Color>(color)) == text) return true;
  return false;
}

}  // namespace Lampwise
