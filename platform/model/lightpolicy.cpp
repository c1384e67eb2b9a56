#include "platform/model/lightrequest.h"
#include "platform/model/lightrule.h"
#include "platform/model/lightstatus.h"

namespace Hardware::Led {

const Zel::TypeNode& LightRequest::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Led::LightRequest", &Zel::newEntity<LightRequest>);
  return type;
}

const Zel::TypeNode& LightRule::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Led::LightRule", &Zel::newEntity<LightRule>);
  return type;
}

const Zel::TypeNode& LightStatus::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Led::LightStatus", &Zel::newEntity<LightStatus>);
  return type;
}

const Zel::TypeNode& LedClaims::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Led::LedClaims", &Zel::newEntity<LedClaims>);
  return type;
}

}  // namespace Hardware::Led
