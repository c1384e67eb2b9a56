#include "platform/model/hardwaregpio.h"

namespace Hardware::Gpio {

const Zel::TypeNode& GpioLedConfig::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Gpio::GpioLedConfig", &Zel::newEntity<GpioLedConfig>);
  return type;
}

const Zel::TypeNode& GpioLedSystemConfigDir::typeNode() {
  static const Zel::TypeNode type =
      describe("Hardware::Gpio::GpioLedSystemConfigDir", &Zel::newEntity<GpioLedSystemConfigDir>);
  return type;
}

GpioLedSystemConfigDir::~GpioLedSystemConfigDir() { orphanChildren<&GpioLedSystemConfigDir::gpioLeds_>(); }

const Zel::TypeNode& CorvelPinConfig::typeNode() {
  static const Zel::TypeNode type =
      describe("Hardware::Gpio::CorvelPinConfig", &Zel::newEntity<CorvelPinConfig>);
  return type;
}

const Zel::TypeNode& CorvelGpioLedConfig::typeNode() {
  static const Zel::TypeNode type =
      describe("Hardware::Gpio::CorvelGpioLedConfig", &Zel::newEntity<CorvelGpioLedConfig>);
  return type;
}

const Zel::TypeNode& CorvelGpioLedSystemConfigDir::typeNode() {
  static const Zel::TypeNode type =
      describe("Hardware::Gpio::CorvelGpioLedSystemConfigDir", &Zel::newEntity<CorvelGpioLedSystemConfigDir>);
  return type;
}

CorvelGpioLedSystemConfigDir::~CorvelGpioLedSystemConfigDir() {
  orphanChildren<&CorvelGpioLedSystemConfigDir::gpioLeds_>();
}

}  // namespace Hardware::Gpio
