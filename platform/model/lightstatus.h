// The policy agent's reports on requests, rules and LEDs.
#pragma once

#include <cstdint>

#include "platform/model/lightvalues.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Led {

// Under "hardware/led/requestStatus" and "hardware/led/ruleStatus", by the name of the request or rule.
class ZEL_API LightStatus : public Zel::Described<LightStatus, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LightStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onState() {}
    virtual void onLeds() {}
    virtual void onNote() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&LightStatus::state_, &N::onState>("state"),
                      Zel::attribute::value<&LightStatus::leds_, &N::onLeds>("leds"),
                      Zel::attribute::value<&LightStatus::note_, &N::onNote>("note")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LightStatus(const Zel::Name& name) : Described(name) {}

  // "active", "ended" or "refused". A rule is active while it holds for any fact, and else "idle".
  const Zel::String& state() const { return state_; }
  void stateIs(const Zel::String& state) { set<&LightStatus::state_>(state); }
  // How many LEDs it asks for now; for a rule for how many facts it holds.
  std::uint32_t leds() const { return leds_; }
  void ledsIs(std::uint32_t count) { set<&LightStatus::leds_>(count); }
  // Why it was refused, or what in it has no effect; empty where nothing is wrong.
  const Zel::String& note() const { return note_; }
  void noteIs(const Zel::String& note) { set<&LightStatus::note_>(note); }

 private:
  Zel::String state_;
  Zel::String note_;
  std::uint32_t leds_ = 0;
};

// Under "hardware/led/claims", by the name of the LED: those that ask for it, and the one that is shown.
class ZEL_API LedClaims : public Zel::Described<LedClaims, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LedClaims> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onClaims() {}
    virtual void onOthers() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&LedClaims::claims_, &N::onClaims>("claims"),
                      Zel::attribute::value<&LedClaims::others_, &N::onOthers>("others")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LedClaims(const Zel::Name& name) : Described(name) {}

  // The highest ones: the first is shown, the others wait in this order.
  const ::Led::Claims& claims() const { return claims_; }
  void claimsIs(const ::Led::Claims& claims) { set<&LedClaims::claims_>(claims); }
  // How many more there are.
  std::uint32_t others() const { return others_; }
  void othersIs(std::uint32_t count) { set<&LedClaims::others_>(count); }

 private:
  ::Led::Claims claims_;
  std::uint32_t others_ = 0;
};

}  // namespace Hardware::Led
