// Finds mistakes in requests and rules that the policy agent would refuse, or that leave them without effect.
#pragma once

#include <vector>

#include "ctl/check.h"

namespace Ctl {

// The findings in entities with their "path", "type" and "attributes". `types`: as the host lists them. Looks
// for LEDs only where there are any, as they may be in other files.
std::vector<Finding> lightFindingsIn(const Json& entities, const Json& types);

}  // namespace Ctl
