#include "platform/model/facts.h"

namespace Facts {

const Zel::TypeNode& Link::typeNode() {
  static const Zel::TypeNode type = describe("Facts::Link", &Zel::newEntity<Link>);
  return type;
}

const Zel::TypeNode& Sensor::typeNode() {
  static const Zel::TypeNode type = describe("Facts::Sensor", &Zel::newEntity<Sensor>);
  return type;
}

const Zel::TypeNode& Unit::typeNode() {
  static const Zel::TypeNode type = describe("Facts::Unit", &Zel::newEntity<Unit>);
  return type;
}

const Zel::TypeNode& SourceStatus::typeNode() {
  static const Zel::TypeNode type = describe("Facts::SourceStatus", &Zel::newEntity<SourceStatus>);
  return type;
}

}  // namespace Facts
