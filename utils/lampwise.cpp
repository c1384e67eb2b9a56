#include "utils/lampwise.h"

#include <cmath>
#include <ios>
#include <regex>
#include <sstream>
#include <string_view>

#include "platform/cell/cell.h"

namespace Lampwise {

namespace {

const std::ios_base::Init standardStreams;  // before the streams of toString

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

// The rest of the line is cut by hand: std::regex recurses once per character of a "(.*)".
Zel::String shortenLinkMode(Zel::String linkMode) {
  const std::regex prefix("linkMode(?:Forced)?");
  const std::string_view text = linkMode.view();
  std::cmatch match;
  if (!std::regex_search(text.data(), text.data() + text.size(), match, prefix)) return {};
  const std::string_view rest = text.substr(static_cast<std::size_t>(match.position() + match.length()));
  return Zel::String(rest.substr(0, rest.find_first_of("\n\r")));
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
  for (unsigned colour = 0; colour < Led::kColourCount; ++colour)
    if (toString(static_cast<Led::Color>(colour)) == text) return true;
  return false;
}

}  // namespace Lampwise
