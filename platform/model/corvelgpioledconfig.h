// An LED that is driven.
#pragma once

#include "platform/model/corvelpinconfig.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// The pins of one LED that is driven. The collections refer to pins that live in the output directory; a null
// pin raises RangeException "null ValidPtr".
class ZEL_API CorvelGpioLedConfig : public Zel::Described<CorvelGpioLedConfig, Zel::Entity> {
 public:
  using Pins = Zel::PtrMap<CorvelPinConfig>;

  class NotifieeConst : public Zel::NotifieeOf<CorvelGpioLedConfig> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onGpioYellow(Zel::Name) {}
    virtual void onGpioYellowzelImmediate() { declineImmediate(); }
    virtual void onGpioYellow() {}
    virtual void onGpioGreen(Zel::Name) {}
    virtual void onGpioGreenzelImmediate() { declineImmediate(); }
    virtual void onGpioGreen() {}
    virtual void onGpioRed(Zel::Name) {}
    virtual void onGpioRedzelImmediate() { declineImmediate(); }
    virtual void onGpioRed() {}
    virtual void onGpioOrange(Zel::Name) {}
    virtual void onGpioOrangezelImmediate() { declineImmediate(); }
    virtual void onGpioOrange() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    using C = CorvelGpioLedConfig;
    return std::tuple{
        Zel::attribute::accessor<&C::systemConfig>("systemConfig"),
        Zel::attribute::references<&C::gpioYellow_, N, &N::onGpioYellow, &N::onGpioYellowzelImmediate,
                                   &N::onGpioYellow>("gpioYellow"),
        Zel::attribute::references<&C::gpioGreen_, N, &N::onGpioGreen, &N::onGpioGreenzelImmediate,
                                   &N::onGpioGreen>("gpioGreen"),
        Zel::attribute::references<&C::gpioRed_, N, &N::onGpioRed, &N::onGpioRedzelImmediate, &N::onGpioRed>(
            "gpioRed"),
        Zel::attribute::references<&C::gpioOrange_, N, &N::onGpioOrange, &N::onGpioOrangezelImmediate,
                                   &N::onGpioOrange>("gpioOrange")};
  }
  static const Zel::TypeNode& typeNode();

  explicit CorvelGpioLedConfig(const Zel::Name& name) : Described(name) {}

  // The directory that the configuration belongs to; null once it was removed from it.
  Zel::Ptr<const Zel::Entity> systemConfig() const { return parentEntity(); }

  const Pins& gpioYellow() const { return gpioYellow_; }
  void gpioYellowIs(const Zel::Ptr<CorvelPinConfig>& pin) {
    referenceIs<&CorvelGpioLedConfig::gpioYellow_>(pin);
  }
  const Pins& gpioGreen() const { return gpioGreen_; }
  void gpioGreenIs(const Zel::Ptr<CorvelPinConfig>& pin) {
    referenceIs<&CorvelGpioLedConfig::gpioGreen_>(pin);
  }
  const Pins& gpioRed() const { return gpioRed_; }
  void gpioRedIs(const Zel::Ptr<CorvelPinConfig>& pin) { referenceIs<&CorvelGpioLedConfig::gpioRed_>(pin); }
  const Pins& gpioOrange() const { return gpioOrange_; }
  void gpioOrangeIs(const Zel::Ptr<CorvelPinConfig>& pin) {
    referenceIs<&CorvelGpioLedConfig::gpioOrange_>(pin);
  }

 private:
  Pins gpioYellow_;
  Pins gpioGreen_;
  Pins gpioRed_;
  Pins gpioOrange_;
};

}  // namespace Hardware::Gpio
