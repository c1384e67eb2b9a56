#include "ctl/ledwords.h"

#include <algorithm>
#include <cmath>

#include "ctl/appliance.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

bool isColour(const std::string& word) {
  return word == "off" || std::any_of(kColours.begin(), kColours.end(),
                                      [&](const Colour& colour) { return word == colour.name; });
}

void checkFlash(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0.0)
    throw Refusal("--flash " + shortNumber(seconds) +
                  ": the interval must be seconds, finite and not negative (0: steady)");
}

void checkTogether(const LedWords& words, std::optional<double> flash, const std::string& command) {
  if (words.colours.empty() && !flash)
    throw UsageError(command + ": no colour is given; colours are " + colourList());
  const bool off = std::count(words.colours.begin(), words.colours.end(), "off") != 0;
  if (off && flash.value_or(0.0) != 0.0)
    throw UsageError(command + ": an LED that is off can't flash; leave out --flash");
}

}  // namespace

std::string colourList() {
  std::string list;
  for (const Colour& colour : kColours) list += (list.empty() ? "" : ", ") + std::string(colour.name);
  return list + " or off";
}

void checkColours(const std::string& command, const std::vector<std::string>& colours) {
  for (const std::string& colour : colours)
    if (!isColour(colour))
      throw Refusal(command + ": there is no colour '" + colour + "'; colours are " + colourList());
  if (std::ranges::count(colours, "off") != 0 && colours.size() > 1)
    throw UsageError(command + ": 'off' can't be combined with colours");
}

LedWords splitLedWords(const std::vector<std::string>& words, std::optional<double> flash,
                       const std::string& command) {
  if (flash) checkFlash(*flash);
  const auto firstColour = std::find_if(words.begin() + 1, words.end(), isColour);
  LedWords split{{words.begin(), firstColour}, {firstColour, words.end()}};
  checkColours(command, split.colours);
  if (split.colours.empty() && !flash && words.size() > 1)
    throw Refusal(command + ": there is no colour '" + words.back() + "'; colours are " + colourList());
  checkTogether(split, flash, command);
  return split;
}

std::vector<std::string> expandLedWords(const LedWords& words, const std::set<std::string>& known) {
  try {
    return expandNames(words.names, known);
  } catch (const Refusal& refusal) {
    if (words.names.size() == 1) throw;
    throw Refusal(std::string(refusal.what()) + "; colours are " + colourList());
  }
}

Json lightSetting(Json before, const std::vector<std::string>& colours, std::optional<double> flash) {
  if (!colours.empty())
    for (const Colour& colour : kColours) before.erase(colour.name);
  for (const std::string& colour : colours)
    if (colour != "off") before[colour] = true;
  before.erase("flashInterval");
  if (flash.value_or(0.0) != 0.0) before["flashInterval"] = *flash;
  return before;
}

}  // namespace Ctl
