#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/corvelpinconfig.h"
#include "platform/model/gpioledconfig.h"
#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/gpiolineinit.h"
#include "platform/model/gpiolinestatus.h"

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

const Zel::TypeNode& GpioLineInit::typeNode() {
  static const Zel::TypeNode type = describe("Hardware::Gpio::GpioLineInit", &Zel::newEntity<GpioLineInit>);
  return type;
}

const Zel::TypeNode& GpioLineStatus::typeNode() {
  static const Zel::TypeNode type =
      describe("Hardware::Gpio::GpioLineStatus", &Zel::newEntity<GpioLineStatus>);
  return type;
}

}  // namespace Hardware::Gpio

using Hardware::Gpio::LineRef;
using Hardware::Gpio::OnExit;

LineRef Zel::ValueTraits<LineRef>::fromValue(const Value& value) {
  if (const auto* offset = value.as<std::int64_t>(); offset && *offset >= 0) return {std::to_string(*offset)};
  return {detail::expect<std::string>(value, "a line's name, or its offset")};
}

Zel::Value Zel::ValueTraits<OnExit>::toValue(OnExit onExit) { return onExit == OnExit::off ? "off" : "keep"; }

OnExit Zel::ValueTraits<OnExit>::fromValue(const Value& value) {
  const auto& text = detail::expect<std::string>(value, "\"keep\" or \"off\"");
  if (text != "keep" && text != "off") throwWrongKind(value, "\"keep\" or \"off\"");
  return text == "off" ? OnExit::off : OnExit::keep;
}
