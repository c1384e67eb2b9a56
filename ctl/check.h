// Finds mistakes in configuration files that a host takes, as they are valid, but that leave an LED dark.
#pragma once

#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

struct Finding {
  std::string path;
  std::string text;     // what is wrong, and what would be right
  bool isNote = false;  // may be intended
};

// The findings in entities with their "path", "type" and "attributes", sorted by path. Looks for missing
// mappings and wirings only where there are any, as they may be in other files.
std::vector<Finding> findingsIn(const Json& entities);

}  // namespace Ctl
