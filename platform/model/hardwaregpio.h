// The GPIO model: which pins light which LED, and the values of the pins.
#pragma once

#include <cstdint>

#include "platform/zel/entity/dir.h"
#include "platform/zel/entity/entity.h"

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

  // Fetches the value into the cache.
  void foreseeValue() const { Zel::prefetch(&value_); }

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

// A GPIO line of a chip: its offset in digits, or its name.
struct LineRef {
  Zel::String text;
  bool operator==(const LineRef&) const = default;
};

// What becomes of a line when the agent that drives it ends in order.
enum class OnExit : std::uint8_t { keep, off };

}  // namespace Hardware::Gpio

template <>
struct ZEL_API Zel::ValueTraits<Hardware::Gpio::LineRef> {
  static std::string typeName() { return "line"; }
  static Value toValue(const Hardware::Gpio::LineRef& line) { return line.text.stdString(); }
  static Hardware::Gpio::LineRef fromValue(const Value& value);  // a text, or an offset as a number
};

template <>
struct ZEL_API Zel::ValueTraits<Hardware::Gpio::OnExit> {
  static std::string typeName() { return "keep or off"; }
  static Value toValue(Hardware::Gpio::OnExit onExit);
  static Hardware::Gpio::OnExit fromValue(const Value& value);
};

namespace Hardware::Gpio {

// Which line a pin is, as the board is wired. Named as the pin.
class ZEL_API GpioLineInit : public Zel::Described<GpioLineInit, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<GpioLineInit> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onChip() {}
    virtual void onLine() {}
    virtual void onActiveLow() {}
    virtual void onOnExit() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::row::value<&GpioLineInit::chip_, &N::onChip>("chip"),
                      Zel::row::value<&GpioLineInit::line_, &N::onLine>("line"),
                      Zel::row::value<&GpioLineInit::activeLow_, &N::onActiveLow>("activeLow"),
                      Zel::row::value<&GpioLineInit::onExit_, &N::onOnExit>("onExit")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLineInit(Zel::Name name) : Described(name) {}

  // The chip's label, or the kernel's name for it; empty where the line's name says enough.
  const Zel::String& chip() const { return chip_; }
  void chipIs(const Zel::String& chip) { set<&GpioLineInit::chip_>(chip); }
  const LineRef& line() const { return line_; }
  void lineIs(const LineRef& line) { set<&GpioLineInit::line_>(line); }
  // Whether the low level lights the LED.
  bool activeLow() const { return activeLow_; }
  void activeLowIs(bool activeLow) { set<&GpioLineInit::activeLow_>(activeLow); }
  OnExit onExit() const { return onExit_; }
  void onExitIs(OnExit onExit) { set<&GpioLineInit::onExit_>(onExit); }

 private:
  Zel::String chip_;
  LineRef line_;
  bool activeLow_ = false;
  OnExit onExit_ = OnExit::keep;
};

// How the line of a pin fares. Named as the pin; written by the agent that drives the lines.
class ZEL_API GpioLineStatus : public Zel::Described<GpioLineStatus, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<GpioLineStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onDriven() {}
    virtual void onPlace() {}
    virtual void onError() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::row::value<&GpioLineStatus::driven_, &N::onDriven>("driven"),
                      Zel::row::value<&GpioLineStatus::place_, &N::onPlace>("place"),
                      Zel::row::value<&GpioLineStatus::error_, &N::onError>("error")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLineStatus(Zel::Name name) : Described(name) {}

  // Whether the line shows the pin's value.
  bool driven() const { return driven_; }
  void drivenIs(bool driven) { set<&GpioLineStatus::driven_>(driven); }
  // Where the line was found: "line 3 'LED_G' of gpiochip0 'front'".
  const Zel::String& place() const { return place_; }
  void placeIs(const Zel::String& place) { set<&GpioLineStatus::place_>(place); }
  // What is in the way, or was last; empty where nothing ever was.
  const Zel::String& error() const { return error_; }
  void errorIs(const Zel::String& error) { set<&GpioLineStatus::error_>(error); }

 private:
  Zel::String place_;
  Zel::String error_;
  bool driven_ = false;
};

}  // namespace Hardware::Gpio
