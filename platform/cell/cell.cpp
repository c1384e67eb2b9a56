#include "platform/cell/cell.h"

namespace Cell {

namespace {
constinit std::uint16_t id = 1;
}

std::uint16_t cellId() { return id; }
void cellIdIs(std::uint16_t newId) { id = newId; }

}  // namespace Cell
