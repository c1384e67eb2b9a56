#include "bench/appliance.h"

#include "bench/measure.h"
#include "platform/model/colourmembers.h"

namespace Bench {

using Hardware::Gpio::CorvelGpioLedConfig;

using Led::kColourMembers;

std::string ledName(std::size_t number) { return "Ethernet" + std::to_string(number); }
std::string pinName(std::size_t number, std::size_t colour) {
  return ledName(number) + '-' + kColourMembers[colour].name;
}

Appliance::Appliance(std::size_t leds)
    : ledDir_(Zel::allocate<Hardware::Led::LedSystemConfigDir>("config")),
      mappingDir_(Zel::allocate<Hardware::Gpio::GpioLedSystemConfigDir>("led")),
      pinDir_(Zel::allocate<Zel::Dir>("config")),
      reactor_(Pinlamp::ConfigReactor::ConfigReactorIs(mappingDir_, ledDir_, pinDir_)) {
  static const Zel::String pinType("Hardware::Gpio::CorvelPinConfig");
  for (const std::uint32_t pin : shuffled(leds * kPins))
    pinDir_->entryIs(pinName(pin / kPins, pin % kPins), pinType);
  for (std::size_t i = 0; i < leds; ++i) add(i);
  Zel::activityManager().step();
}

Appliance::~Appliance() {
  reactor_->hasNotificationActiveIs(false);
  reactor_ = nullptr;
}

void Appliance::add(std::size_t number) {
  const Zel::Name name(ledName(number));
  if (number >= leds_.size()) leds_.resize(number + 1);
  leds_[number] = ledDir_->ledsIs(name).get();
  const auto mapping = mappingDir_->gpioLedsIs(name);
  for (std::size_t colour = 0; colour < kPins; ++colour)
    ((*mapping).*kColourMembers[colour].nameIs)(pinName(number, colour), true);
  mapping->readyIs(true);
}

void Appliance::remove(std::size_t number) {
  const Zel::Name name(ledName(number));
  mappingDir_->gpioLedsDel(name);
  ledDir_->ledsDel(name);
}

const CorvelGpioLedConfig::Pins& Appliance::pins(std::size_t number, std::size_t colour) const {
  const auto* output = reactor_->corvelLedSystemConfig()->gpioLeds().get(ledName(number));
  return (output->*kColourMembers[colour].pins)();
}

}  // namespace Bench
