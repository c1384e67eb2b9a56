// The arguments of `led set`: names, then colours.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

struct LedWords {
  std::vector<std::string> names;
  std::vector<std::string> colours;  // of the colour table, or only "off"; empty: keep those that are set
};

// "orange, green, red, yellow or off".
std::string colourList();
// Splits the words at the first colour after the first name, and checks them and the flash interval. Throws
// UsageError if neither a colour nor an interval is given or they contradict each other, Refusal for an
// unknown colour or an invalid interval; `command` begins the message.
LedWords splitLedWords(const std::vector<std::string>& words, std::optional<double> flash,
                       const std::string& command = "led set");

// Throws for an unknown colour, and for "off" beside others; `command` begins the message.
void checkColours(const std::string& command, const std::vector<std::string>& colours);

// Expands the names to those of LEDs. Throws Refusal; a name after the first may be a mistyped colour, so the
// message lists the colours too.
std::vector<std::string> expandLedWords(const LedWords& words, const std::set<std::string>& known);

// `before` with the given colours, if any, and interval; steady if only colours are given.
Json lightSetting(Json before, const std::vector<std::string>& colours, std::optional<double> flash);

}  // namespace Ctl
