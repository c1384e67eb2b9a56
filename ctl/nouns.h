// The JSON of what commands show: one shape for each noun, whatever the command. docs/commands.md has them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ctl/appliance.h"

namespace Ctl {

// The value of each pin, as pinsOf() has them.
using PinValues = std::map<std::string, std::optional<unsigned>>;

// A pin of an LED. `mapped`: false where the LED agent drives it though it left the mapping. `value`: nullopt
// if it is not driven.
Json pinJson(std::size_t colour, const std::string& name, bool mapped, std::optional<unsigned> value);
// An LED. `stale`: whether no LED agent runs, so that what it shows stays as it is.
Json ledJson(const Lamp& lamp, const PinValues& values, bool stale);
// The mapping of an LED.
Json mappingJson(const Lamp& lamp);

}  // namespace Ctl
