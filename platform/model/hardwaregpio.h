// The GPIO model: which pins light which LED, and the values of the pins.
#pragma once

#include <cstdint>

#include "platform/zel/dir.h"
#include "platform/zel/entity.h"

namespace Hardware::Gpio {

// The pins of one LED, as the appliance is wired. Only the keys of the four sets matter; a set may be empty.
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
        Zel::row::value<&C::ledConfig_, &N::onLedConfig, &N::onLedConfigzelImmediate>("ledConfig"),
        Zel::row::nameSet<&C::gpioYellowName_, N, &N::onGpioYellowName, &N::onGpioYellowNamezelImmediate,
                          &N::onGpioYellowName>("gpioYellowName"),
        Zel::row::nameSet<&C::gpioGreenName_, N, &N::onGpioGreenName, &N::onGpioGreenNamezelImmediate,
                          &N::onGpioGreenName>("gpioGreenName"),
        Zel::row::nameSet<&C::gpioRedName_, N, &N::onGpioRedName, &N::onGpioRedNamezelImmediate,
                          &N::onGpioRedName>("gpioRedName"),
        Zel::row::nameSet<&C::gpioOrangeName_, N, &N::onGpioOrangeName, &N::onGpioOrangeNamezelImmediate,
                          &N::onGpioOrangeName>("gpioOrangeName"),
        Zel::row::value<&C::ready_, &N::onReady, &N::onReadyzelImmediate>("ready")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLedConfig(Zel::Name name) : Described(name) {}

  // The path of the LED's configuration, for people.
  const Zel::String& ledConfig() const { return ledConfig_; }
  void ledConfigIs(const Zel::String& path) { set<&GpioLedConfig::ledConfig_>(path); }

  const Zel::NameSet& gpioYellowName() const { return gpioYellowName_; }
  void gpioYellowNameIs(Zel::Name pin, bool value) { nameIs<&GpioLedConfig::gpioYellowName_>(pin, value); }
  void gpioYellowNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioYellowName_>(pins); }
  bool gpioYellowNameDel(Zel::Name pin) { return nameDel<&GpioLedConfig::gpioYellowName_>(pin); }
  const Zel::NameSet& gpioGreenName() const { return gpioGreenName_; }
  void gpioGreenNameIs(Zel::Name pin, bool value) { nameIs<&GpioLedConfig::gpioGreenName_>(pin, value); }
  void gpioGreenNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioGreenName_>(pins); }
  bool gpioGreenNameDel(Zel::Name pin) { return nameDel<&GpioLedConfig::gpioGreenName_>(pin); }
  const Zel::NameSet& gpioRedName() const { return gpioRedName_; }
  void gpioRedNameIs(Zel::Name pin, bool value) { nameIs<&GpioLedConfig::gpioRedName_>(pin, value); }
  void gpioRedNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioRedName_>(pins); }
  bool gpioRedNameDel(Zel::Name pin) { return nameDel<&GpioLedConfig::gpioRedName_>(pin); }
  const Zel::NameSet& gpioOrangeName() const { return gpioOrangeName_; }
  void gpioOrangeNameIs(Zel::Name pin, bool value) { nameIs<&GpioLedConfig::gpioOrangeName_>(pin, value); }
  void gpioOrangeNameIs(const Zel::NameSet& pins) { namesAre<&GpioLedConfig::gpioOrangeName_>(pins); }
  bool gpioOrangeNameDel(Zel::Name pin) { return nameDel<&GpioLedConfig::gpioOrangeName_>(pin); }

  // Whether the mapping is complete; nothing is made of it before.
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
    return std::tuple{Zel::row::children<&GpioLedSystemConfigDir::gpioLeds_, N, &N::onGpioLeds,
                                         &N::onGpioLedszelImmediate, &N::onGpioLeds>("gpioLeds")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLedSystemConfigDir(Zel::Name name) : Described(name) {}

  const Zel::PtrMap<GpioLedConfig>& gpioLeds() const { return gpioLeds_; }
  Zel::Ptr<GpioLedConfig> gpioLeds(Zel::Name name) const { return gpioLeds_.find(name); }
  Zel::Ptr<GpioLedConfig> gpioLedsIs(Zel::Name name) {
    return childIs<&GpioLedSystemConfigDir::gpioLeds_>(name);
  }
  void gpioLedsIs(const Zel::Ptr<GpioLedConfig>& led) { childIs<&GpioLedSystemConfigDir::gpioLeds_>(led); }
  // Replaces all entries at once; announced as a change of the whole.
  void gpioLedsIs(const std::vector<Zel::Ptr<GpioLedConfig>>& leds) {
    childrenAre<&GpioLedSystemConfigDir::gpioLeds_>(leds);
  }
  Zel::Ptr<GpioLedConfig> gpioLedsDel(Zel::Name name) {
    return childDel<&GpioLedSystemConfigDir::gpioLeds_>(name);
  }
  void gpioLedsDelAll() { childDelAll<&GpioLedSystemConfigDir::gpioLeds_>(); }

 protected:
  ~GpioLedSystemConfigDir() override;

 private:
  Zel::PtrMap<GpioLedConfig> gpioLeds_;
};

// One pin, to be driven from: 1 lit, 0 dark.
class ZEL_API CorvelPinConfig : public Zel::Described<CorvelPinConfig, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<CorvelPinConfig> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onValue() {}
    virtual void onValuezelImmediate() { declineImmediate(); }
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{
        Zel::row::value<&CorvelPinConfig::value_, &N::onValue, &N::onValuezelImmediate>("value")};
  }
  static const Zel::TypeNode& typeNode();

  explicit CorvelPinConfig(Zel::Name name) : Described(name) {}

  std::uint32_t value() const { return value_; }
  void valueIs(std::uint32_t value) { set<&CorvelPinConfig::value_>(value); }

 private:
  std::uint32_t value_ = 0;
};

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
        Zel::row::accessor<&C::systemConfig>("systemConfig"),
        Zel::row::references<&C::gpioYellow_, N, &N::onGpioYellow, &N::onGpioYellowzelImmediate,
                             &N::onGpioYellow>("gpioYellow"),
        Zel::row::references<&C::gpioGreen_, N, &N::onGpioGreen, &N::onGpioGreenzelImmediate,
                             &N::onGpioGreen>("gpioGreen"),
        Zel::row::references<&C::gpioRed_, N, &N::onGpioRed, &N::onGpioRedzelImmediate, &N::onGpioRed>(
            "gpioRed"),
        Zel::row::references<&C::gpioOrange_, N, &N::onGpioOrange, &N::onGpioOrangezelImmediate,
                             &N::onGpioOrange>("gpioOrange")};
  }
  static const Zel::TypeNode& typeNode();

  explicit CorvelGpioLedConfig(Zel::Name name) : Described(name) {}

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

// The directory of the LEDs that are driven; made by itself, outside any mounted directory.
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
    return std::tuple{Zel::row::children<&CorvelGpioLedSystemConfigDir::gpioLeds_, N, &N::onGpioLeds,
                                         &N::onGpioLedszelImmediate, &N::onGpioLeds>("gpioLeds")};
  }
  static const Zel::TypeNode& typeNode();

  explicit CorvelGpioLedSystemConfigDir(Zel::Name name) : Described(name) {}

  const Zel::PtrMap<CorvelGpioLedConfig>& gpioLeds() const { return gpioLeds_; }
  Zel::Ptr<CorvelGpioLedConfig> gpioLeds(Zel::Name name) const { return gpioLeds_.find(name); }
  Zel::Ptr<CorvelGpioLedConfig> gpioLedsIs(Zel::Name name) {
    return childIs<&CorvelGpioLedSystemConfigDir::gpioLeds_>(name);
  }
  Zel::Ptr<CorvelGpioLedConfig> gpioLedsDel(Zel::Name name) {
    return childDel<&CorvelGpioLedSystemConfigDir::gpioLeds_>(name);
  }

 protected:
  ~CorvelGpioLedSystemConfigDir() override;

 private:
  Zel::PtrMap<CorvelGpioLedConfig> gpioLeds_;
};

}  // namespace Hardware::Gpio
