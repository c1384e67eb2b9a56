// Which pins light one LED.
#pragma once

#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// The pins of one LED, as the appliance is wired. Only the names in the sets count, not the values beside
// them; a set may be empty.
class ZEL_API GpioLedConfig : public Zel::Described<GpioLedConfig, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<GpioLedConfig> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLedConfig() {}
    virtual void onLedConfigzelImmediate() { declineImmediate(); }
    virtual void onGpioYellowName(Zel::Name) {}
    virtual void onGpioYellowNamezelImmediate() { declineImmediate(); }
    virtual void onGpioYellowName() {}
    virtual void onGpioGreenName(Zel::Name) {}
    virtual void onGpioGreenNamezelImmediate() { declineImmediate(); }
    virtual void onGpioGreenName() {}
    virtual void onGpioRedName(Zel::Name) {}
    virtual void onGpioRedNamezelImmediate() { declineImmediate(); }
    virtual void onGpioRedName() {}
    virtual void onGpioOrangeName(Zel::Name) {}
    virtual void onGpioOrangeNamezelImmediate() { declineImmediate(); }
    virtual void onGpioOrangeName() {}
    virtual void onReady() {}
    virtual void onReadyzelImmediate() { declineImmediate(); }
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    using C = GpioLedConfig;
    return std::tuple{
        Zel::attribute::value<&C::ledConfig_, &N::onLedConfig, &N::onLedConfigzelImmediate>("ledConfig"),
        Zel::attribute::nameSet<&C::gpioYellowName_, N, &N::onGpioYellowName,
                                &N::onGpioYellowNamezelImmediate, &N::onGpioYellowName>("gpioYellowName"),
        Zel::attribute::nameSet<&C::gpioGreenName_, N, &N::onGpioGreenName, &N::onGpioGreenNamezelImmediate,
                                &N::onGpioGreenName>("gpioGreenName"),
        Zel::attribute::nameSet<&C::gpioRedName_, N, &N::onGpioRedName, &N::onGpioRedNamezelImmediate,
                                &N::onGpioRedName>("gpioRedName"),
        Zel::attribute::nameSet<&C::gpioOrangeName_, N, &N::onGpioOrangeName,
                                &N::onGpioOrangeNamezelImmediate, &N::onGpioOrangeName>("gpioOrangeName"),
        Zel::attribute::value<&C::ready_, &N::onReady, &N::onReadyzelImmediate>("ready")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLedConfig(const Zel::Name& name) : Described(name) {}

  // The path of the LED's configuration, for people.
  const Zel::String& ledConfig() const { return ledConfig_; }
  void ledConfigIs(const Zel::String& path) { set<&GpioLedConfig::ledConfig_>(path); }

  const Zel::NameSet& gpioYellowName() const { return gpioYellowName_; }
  void gpioYellowNameIs(const Zel::Name& pin, bool value) {
    nameIs<&GpioLedConfig::gpioYellowName_>(pin, value);
  }
  void gpioYellowNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioYellowName_>(pins); }
  bool gpioYellowNameDel(const Zel::Name& pin) { return nameDel<&GpioLedConfig::gpioYellowName_>(pin); }
  const Zel::NameSet& gpioGreenName() const { return gpioGreenName_; }
  void gpioGreenNameIs(const Zel::Name& pin, bool value) {
    nameIs<&GpioLedConfig::gpioGreenName_>(pin, value);
  }
  void gpioGreenNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioGreenName_>(pins); }
  bool gpioGreenNameDel(const Zel::Name& pin) { return nameDel<&GpioLedConfig::gpioGreenName_>(pin); }
  const Zel::NameSet& gpioRedName() const { return gpioRedName_; }
  void gpioRedNameIs(const Zel::Name& pin, bool value) { nameIs<&GpioLedConfig::gpioRedName_>(pin, value); }
  void gpioRedNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioRedName_>(pins); }
  bool gpioRedNameDel(const Zel::Name& pin) { return nameDel<&GpioLedConfig::gpioRedName_>(pin); }
  const Zel::NameSet& gpioOrangeName() const { return gpioOrangeName_; }
  void gpioOrangeNameIs(const Zel::Name& pin, bool value) {
    nameIs<&GpioLedConfig::gpioOrangeName_>(pin, value);
  }
  void gpioOrangeNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioOrangeName_>(pins); }
  bool gpioOrangeNameDel(const Zel::Name& pin) { return nameDel<&GpioLedConfig::gpioOrangeName_>(pin); }

  // Whether the mapping is complete; agents wait until it is.
  bool ready() const { return ready_; }
  void readyIs(bool ready) { set<&GpioLedConfig::ready_>(ready); }

 private:
  Zel::String ledConfig_;
  Zel::NameSet gpioYellowName_;
  Zel::NameSet gpioGreenName_;
  Zel::NameSet gpioRedName_;
  Zel::NameSet gpioOrangeName_;
  bool ready_ = false;
};

}  // namespace Hardware::Gpio
