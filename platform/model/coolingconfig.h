// The cooling configuration. LED agents mount it beside the LEDs; nothing in this library reads it.
#pragma once

#include "platform/zel/entity/entity.h"

namespace Environment::Cooling {

class ZEL_API Config : public Zel::Described<Config, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<Config> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onPollInterval() {}
    virtual void onPollIntervalzelImmediate() { declineImmediate(); }
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{
        Zel::attribute::value<&Config::pollInterval_, &N::onPollInterval, &N::onPollIntervalzelImmediate>(
            "pollInterval")};
  }
  static const Zel::TypeNode& typeNode();

  explicit Config(const Zel::Name& name) : Described(name) {}

  // Seconds between two readings of the temperature sensors.
  double pollInterval() const { return pollInterval_; }
  void pollIntervalIs(double seconds) { set<&Config::pollInterval_>(seconds); }

 private:
  double pollInterval_ = 0.0;
};

}  // namespace Environment::Cooling
