// Which pins light which LED.
#pragma once

#include <vector>

#include "platform/model/gpioledconfig.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// The directory that maps LEDs to pins.
class ZEL_API GpioLedSystemConfigDir : public Zel::Described<GpioLedSystemConfigDir, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<GpioLedSystemConfigDir> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onGpioLeds(Zel::Name) {}
    virtual void onGpioLedszelImmediate() { declineImmediate(); }
    virtual void onGpioLeds() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::children<&GpioLedSystemConfigDir::gpioLeds_, N, &N::onGpioLeds,
                                               &N::onGpioLedszelImmediate, &N::onGpioLeds>("gpioLeds")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLedSystemConfigDir(const Zel::Name& name) : Described(name) {}

  const Zel::PtrMap<GpioLedConfig>& gpioLeds() const { return gpioLeds_; }
  Zel::Ptr<GpioLedConfig> gpioLeds(const Zel::Name& name) const { return gpioLeds_.find(name); }
  Zel::Ptr<GpioLedConfig> gpioLedsIs(const Zel::Name& name) {
    return childIs<&GpioLedSystemConfigDir::gpioLeds_>(name);
  }
  void gpioLedsIs(const Zel::Ptr<GpioLedConfig>& led) { childIs<&GpioLedSystemConfigDir::gpioLeds_>(led); }
  // Replaces all entries at once; announced as a change of the whole.
  void gpioLedsIs(const std::vector<Zel::Ptr<GpioLedConfig>>& leds) {
    childrenAre<&GpioLedSystemConfigDir::gpioLeds_>(leds);
  }
  Zel::Ptr<GpioLedConfig> gpioLedsDel(const Zel::Name& name) {
    return childDel<&GpioLedSystemConfigDir::gpioLeds_>(name);
  }

 protected:
  ~GpioLedSystemConfigDir() override;

 private:
  Zel::PtrMap<GpioLedConfig> gpioLeds_;
};

}  // namespace Hardware::Gpio
