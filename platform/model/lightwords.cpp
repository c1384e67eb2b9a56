#include "platform/model/lightwords.h"

#include <charconv>
#include <cmath>
#include <string>

#include "platform/model/colourmembers.h"
#include "platform/zel/core/exception.h"

namespace Led {

namespace {

// Takes the first word off a text; empty at its end.
std::string_view takeWord(std::string_view& text) {
  constexpr std::string_view kBlanks = " \t";
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

std::string colourList() {
  std::string list;
  for (const PinColour& colour : kColoursAsRead) list += std::string(colour.name) + ", ";
  return list + "or off alone";
}

void light(LightSetting& setting, std::string_view word) {
  for (const ColourMembers& colour : kColourMembers) {
    if (word != colour.name) continue;
    setting.*colour.lit = true;
    return;
  }
  throw Zel::ValueError("'" + std::string(word) + "' is no colour; colours are " + colourList());
}

double interval(std::string_view word) {
  double seconds = 0.0;
  const char* const end = word.data() + word.size();
  const auto [read, error] = std::from_chars(word.data(), end, seconds);
  if (error != std::errc() || read != end || !std::isfinite(seconds) || seconds < 0.0)
    throw Zel::ValueError("'flash " + std::string(word) +
                          "' is no interval: the seconds between two toggles, finite and not negative");
  return seconds;
}

}  // namespace

Zel::Value settingFrom(std::string_view words) {
  LightSetting setting;
  std::string_view rest = words;
  std::string_view word = takeWord(rest);
  if (word.empty()) throw Zel::ValueError("no colour is given; colours are " + colourList());
  const bool isOff = word == "off";
  if (isOff) word = takeWord(rest);
  for (; !word.empty() && word != "flash"; word = takeWord(rest)) light(setting, word);
  if (word == "flash") setting.flashInterval = interval(takeWord(rest));
  if (isOff && setting != LightSetting())
    throw Zel::ValueError("'off' stands alone, without colours or flash");
  if (!takeWord(rest).empty()) throw Zel::ValueError("nothing follows the interval of 'flash'");
  return Zel::ValueTraits<LightSetting>::toValue(setting);
}

}  // namespace Led
