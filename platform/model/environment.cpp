#include "platform/model/coolingconfig.h"

namespace Environment::Cooling {

const Zel::TypeNode& Config::typeNode() {
  static const Zel::TypeNode type = describe("Environment::Cooling::Config", &Zel::newEntity<Config>);
  return type;
}

}  // namespace Environment::Cooling
