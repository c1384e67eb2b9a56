// Configuration files as text.
#pragma once

#include <string>
#include <vector>

#include "ctl/configuration.h"

namespace Ctl {

// Reads the files; "-" is standard input. Throws Refusal for one that can't be read, is a directory, or has
// more than 256 MiB.
std::vector<Configuration::Source> sourcesFrom(const std::vector<std::string>& files);

}  // namespace Ctl
