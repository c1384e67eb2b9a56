// What people write after `led set`: names, then colours.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

struct LedWords {
  std::vector<std::string> names;
  std::vector<std::string> colours;  // of the colour table, or "off" alone; none to keep those that are set
};

// "orange, green, red, yellow or off".
std::string colourList();
// Splits the words at the first colour after the first name, and checks them and the flash interval. Throws
// UsageError where neither a colour nor an interval is given or they contradict each other, Refusal for an
// unknown colour or an impossible interval.
LedWords splitLedWords(const std::vector<std::string>& words, std::optional<double> flash);

// The LEDs that the names mean. Throws Refusal; a name after the first may have been meant as a colour, so
// that the text lists these too.
std::vector<std::string> expandLedWords(const LedWords& words, const std::set<std::string>& known);

// A light setting like `before` with other colours (where any are given) and another interval: steady where
// only colours are given.
Json lightSetting(Json before, const std::vector<std::string>& colours, std::optional<double> flash);

}  // namespace Ctl
