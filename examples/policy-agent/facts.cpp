#include "facts.h"

namespace Policy {

const Zel::TypeNode& LinkStatus::typeNode() {
  static const Zel::TypeNode type = describe("Policy::LinkStatus", &Zel::newEntity<LinkStatus>);
  return type;
}

const Zel::TypeNode& FanStatus::typeNode() {
  static const Zel::TypeNode type = describe("Policy::FanStatus", &Zel::newEntity<FanStatus>);
  return type;
}

}  // namespace Policy
