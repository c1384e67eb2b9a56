#include "host/control/brought.h"

namespace Board {

const Zel::TypeNode& Brought::typeNode() {
  static const Zel::TypeNode type = describe("Board::Brought", &Zel::newEntity<Brought>);
  return type;
}

}  // namespace Board
