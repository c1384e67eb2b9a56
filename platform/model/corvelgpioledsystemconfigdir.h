// The LEDs that are driven.
#pragma once

#include "platform/model/corvelgpioledconfig.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// The directory of the LEDs that are driven. Its agent creates it; it is not mounted.
class ZEL_API CorvelGpioLedSystemConfigDir
    : public Zel::Described<CorvelGpioLedSystemConfigDir, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<CorvelGpioLedSystemConfigDir> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onGpioLeds(Zel::Name) {}
    virtual void onGpioLedszelImmediate() { declineImmediate(); }
    virtual void onGpioLeds() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::children<&CorvelGpioLedSystemConfigDir::gpioLeds_, N, &N::onGpioLeds,
                                               &N::onGpioLedszelImmediate, &N::onGpioLeds>("gpioLeds")};
  }
  static const Zel::TypeNode& typeNode();

  explicit CorvelGpioLedSystemConfigDir(const Zel::Name& name) : Described(name) {}

  const Zel::PtrMap<CorvelGpioLedConfig>& gpioLeds() const { return gpioLeds_; }
  Zel::Ptr<CorvelGpioLedConfig> gpioLeds(const Zel::Name& name) const { return gpioLeds_.find(name); }
  Zel::Ptr<CorvelGpioLedConfig> gpioLedsIs(const Zel::Name& name) {
    return childIs<&CorvelGpioLedSystemConfigDir::gpioLeds_>(name);
  }
  Zel::Ptr<CorvelGpioLedConfig> gpioLedsDel(const Zel::Name& name) {
    return childDel<&CorvelGpioLedSystemConfigDir::gpioLeds_>(name);
  }

 protected:
  ~CorvelGpioLedSystemConfigDir() override;

 private:
  Zel::PtrMap<CorvelGpioLedConfig> gpioLeds_;
};

}  // namespace Hardware::Gpio
