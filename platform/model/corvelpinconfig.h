// The value of one pin.
#pragma once

#include <cstdint>

#include "platform/zel/entity/entity.h"

namespace Hardware::Gpio {

// One pin's value: 1 lit, 0 dark. The line agent drives the pin's line from it.
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
        Zel::attribute::value<&CorvelPinConfig::value_, &N::onValue, &N::onValuezelImmediate>("value")};
  }
  static const Zel::TypeNode& typeNode();

  explicit CorvelPinConfig(const Zel::Name& name) : Described(name) {}

  std::uint32_t value() const { return value_; }
  void valueIs(std::uint32_t value) { set<&CorvelPinConfig::value_>(value); }

 private:
  std::uint32_t value_ = 0;
};

}  // namespace Hardware::Gpio
