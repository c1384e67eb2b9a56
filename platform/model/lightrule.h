// A rule: the light of an LED while a fact about the machine has a value.
#pragma once

#include "platform/model/led.h"
#include "platform/model/lightvalues.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Led {

// Under "hardware/led/rule", from the board's file. docs/policy.md has examples.
class ZEL_API LightRule : public Zel::Described<LightRule, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LightRule> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onFact() {}
    virtual void onAttribute() {}
    virtual void onComparison() {}
    virtual void onValue() {}
    virtual void onFor() {}
    virtual void onLed() {}
    virtual void onLightSetting() {}
    virtual void onPriority() {}
  };

  static constexpr auto attributes() {
    using R = LightRule;
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&R::fact_, &N::onFact>("fact"),
                      Zel::attribute::value<&R::attribute_, &N::onAttribute>("attribute"),
                      Zel::attribute::value<&R::comparison_, &N::onComparison>("comparison"),
                      Zel::attribute::value<&R::value_, &N::onValue>("value"),
                      Zel::attribute::value<&R::for_, &N::onFor>("for"),
                      Zel::attribute::value<&R::led_, &N::onLed>("led"),
                      Zel::attribute::value<&R::lightSetting_, &N::onLightSetting>("lightSetting"),
                      Zel::attribute::value<&R::priority_, &N::onPriority>("priority")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LightRule(const Zel::Name& name) : Described(name) {}

  // The path of a fact; its last component may have one '*', which stands for any text.
  const Zel::String& fact() const { return fact_; }
  void factIs(const Zel::String& path) { set<&LightRule::fact_>(path); }
  // The fact's attribute that is compared with `value`. Neither is used for `missing`: no such fact.
  Zel::Name attribute() const { return attribute_; }
  void attributeIs(Zel::Name attribute) { set<&LightRule::attribute_>(attribute); }
  ::Led::Comparison comparison() const { return comparison_; }
  void comparisonIs(::Led::Comparison comparison) { set<&LightRule::comparison_>(comparison); }
  const ::Led::Operand& value() const { return value_; }
  void valueIs(const ::Led::Operand& value) { set<&LightRule::value_>(value); }
  // How long the comparison must hold before the LED shows it ("for").
  ::Led::Seconds holdTime() const { return for_; }
  void holdTimeIs(::Led::Seconds seconds) { set<&LightRule::for_>(seconds); }

  // The LED's name; it may have a '*' where the fact has one, for the same text.
  const Zel::String& led() const { return led_; }
  void ledIs(const Zel::String& name) { set<&LightRule::led_>(name); }
  const ::Led::LightSetting& lightSetting() const { return lightSetting_; }
  void lightSettingIs(const ::Led::LightSetting& setting) { set<&LightRule::lightSetting_>(setting); }
  ::Led::Priority priority() const { return priority_; }
  void priorityIs(::Led::Priority priority) { set<&LightRule::priority_>(priority); }

 private:
  ::Led::LightSetting lightSetting_;
  Zel::String fact_;
  Zel::String led_;
  ::Led::Operand value_;
  ::Led::Seconds for_;
  Zel::Name attribute_;
  ::Led::Priority priority_;
  ::Led::Comparison comparison_ = ::Led::Comparison::is;
};

}  // namespace Hardware::Led
