// The state of the GPIO line of a pin.
#pragma once

#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// Whether the line of one pin is driven. Has the name of the pin; written by the line agent.
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
    return std::tuple{Zel::attribute::value<&GpioLineStatus::driven_, &N::onDriven>("driven"),
                      Zel::attribute::value<&GpioLineStatus::place_, &N::onPlace>("place"),
                      Zel::attribute::value<&GpioLineStatus::error_, &N::onError>("error")};
  }
  static const Zel::TypeNode& typeNode();

  explicit GpioLineStatus(const Zel::Name& name) : Described(name) {}

  // Whether the line shows the pin's value.
  bool driven() const { return driven_; }
  void drivenIs(bool driven) { set<&GpioLineStatus::driven_>(driven); }
  // The line as it was found: "line 3 'LED_G' of gpiochip0 'front'".
  const Zel::String& place() const { return place_; }
  void placeIs(const Zel::String& place) { set<&GpioLineStatus::place_>(place); }
  // Why the line is not driven, or why it was not the last time; empty if it always was.
  const Zel::String& error() const { return error_; }
  void errorIs(const Zel::String& error) { set<&GpioLineStatus::error_>(error); }

 private:
  Zel::String place_;
  Zel::String error_;
  bool driven_ = false;
};

}  // namespace Hardware::Gpio
