// The types that every process with the framework knows.
#include "platform/model/coolingconfig.h"
#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/corvelpinconfig.h"
#include "platform/model/facts.h"
#include "platform/model/gpioledconfig.h"
#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/gpiolineinit.h"
#include "platform/model/gpiolinestatus.h"
#include "platform/model/led.h"
#include "platform/model/ledconfig.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/model/lightrequest.h"
#include "platform/model/lightrule.h"
#include "platform/model/lightstatus.h"
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
    &Hardware::Led::LightRequest::typeNode,
    &Hardware::Led::LightRule::typeNode,
    &Hardware::Led::LightStatus::typeNode,
    &Hardware::Led::LedClaims::typeNode,
    &Hardware::Gpio::GpioLedSystemConfigDir::typeNode,
    &Hardware::Gpio::GpioLedConfig::typeNode,
    &Hardware::Gpio::CorvelGpioLedSystemConfigDir::typeNode,
    &Hardware::Gpio::CorvelGpioLedConfig::typeNode,
    &Hardware::Gpio::CorvelPinConfig::typeNode,
    &Hardware::Gpio::GpioLineInit::typeNode,
    &Hardware::Gpio::GpioLineStatus::typeNode,
    &Environment::Cooling::Config::typeNode,
    &Facts::Link::typeNode,
    &Facts::Sensor::typeNode,
    &Facts::Unit::typeNode,
    &Facts::SourceStatus::typeNode,
};

}  // namespace
