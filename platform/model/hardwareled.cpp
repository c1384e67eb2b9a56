#include "platform/model/ledsystemconfigdir.h"

namespace Hardware::Led {

const Zel::TypeNode& LedConfig::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Led::LedConfig", &Zel::newEntity<LedConfig>);
  return type;
}

const Zel::TypeNode& LedSystemConfigDir::typeNode() {
  static const Zel::TypeNode type =
      describe("Hardware::Led::LedSystemConfigDir", &Zel::newEntity<LedSystemConfigDir>);
  return type;
}

LedSystemConfigDir::~LedSystemConfigDir() { orphanChildren<&LedSystemConfigDir::leds_>(); }

}  // namespace Hardware::Led
