// The cell: the card or supervisor of an appliance that a process runs on.
#pragma once

#include <cstdint>

#include "platform/zel/core/export.h"

namespace Cell {

// The identifier of the cell on which the process runs; 1 unless the host set another.
ZEL_API std::uint16_t cellId();
// For the host, before it loads agents.
ZEL_API void cellIdIs(std::uint16_t id);

}  // namespace Cell
