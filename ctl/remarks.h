// Remarks on LEDs that several commands make, on the error stream.
#pragma once

#include <vector>

#include "ctl/appliance.h"
#include "ctl/context.h"

namespace Ctl {

// Notes those that stay dark whatever is asked for, as they have no mapping, or one that is not ready.
void noteUndriven(Context& context, const std::vector<Lamp>& lamps);

}  // namespace Ctl
