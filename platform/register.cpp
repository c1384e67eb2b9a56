// The types that every process with the framework knows.
#include "platform/model/environment.h"
#include "platform/model/hardwaregpio.h"
#include "platform/model/hardwareled.h"
#include "platform/statedb/mount/mount.h"
#include "platform/warden/cagent.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/notify/clock.h"

namespace {

const Zel::TypeRegistration types{
    &Zel::Entity::typeNode,
    &Zel::Dir::typeNode,
    &Zel::Clock::typeNode,
    &Statedb::Mounter::typeNode,
    &Warden::CAgent::typeNode,
    &Hardware::Led::LedSystemConfigDir::typeNode,
    &Hardware::Led::LedConfig::typeNode,
    &Hardware::Gpio::GpioLedSystemConfigDir::typeNode,
    &Hardware::Gpio::GpioLedConfig::typeNode,
    &Hardware::Gpio::CorvelGpioLedSystemConfigDir::typeNode,
    &Hardware::Gpio::CorvelGpioLedConfig::typeNode,
    &Hardware::Gpio::CorvelPinConfig::typeNode,
    &Hardware::Gpio::GpioLineInit::typeNode,
    &Hardware::Gpio::GpioLineStatus::typeNode,
    &Environment::Cooling::Config::typeNode,
};

}  // namespace
