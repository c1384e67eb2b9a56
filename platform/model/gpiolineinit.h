// The wiring: which GPIO line a pin is.
#pragma once

#include <cstdint>

#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// A GPIO line of a chip: its offset in digits, or its name.
struct LineRef {
  Zel::String text;
  bool operator==(const LineRef&) const = default;
};

// The line agent's action on a line when it stops normally.
enum class OnExit : std::uint8_t { keep, off };

}  // namespace Hardware::Gpio

template <>
struct ZEL_API Zel::ValueTraits<Hardware::Gpio::LineRef> {
  static std::string typeName() { return "line"; }
  static Value toValue(const Hardware::Gpio::LineRef& line) { return line.text.stdString(); }
  static Hardware::Gpio::LineRef fromValue(const Value& value);  // a string, or an offset as a number
};

template <>
struct ZEL_API Zel::ValueTraits<Hardware::Gpio::OnExit> {
  static std::string typeName() { return "keep or off"; }
  static Value toValue(Hardware::Gpio::OnExit onExit);
  static Hardware::Gpio::OnExit fromValue(const Value& value);
};

namespace Hardware::Gpio {

// The GPIO line of one pin, as the board is wired. Has the name of the pin.
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
    return std::tuple{Zel::attribute::value<&GpioLineInit::chip_, &N::onChip>("chip"),
                      Zel::attribute::value<&GpioLineInit::line_, &N::onLine>("line"),
                      Zel::attribute::value<&GpioLineInit::activeLow_, &N::onActiveLow>("activeLow"),
                      Zel::attribute::value<&GpioLineInit::onExit_, &N::onOnExit>("onExit")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLineInit(const Zel::Name& name) : Described(name) {}

  // The chip's label, or the kernel's name for it. Empty: any chip that has a line of that name.
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

}  // namespace Hardware::Gpio
