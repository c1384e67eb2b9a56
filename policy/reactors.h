// The reactors of the policy agent.
#pragma once

#include "policy/policyagent.h"

namespace Pinlamp {

class PolicyAgent::LedsReactor
    : public Zel::NestedReactor<LedsReactor, Hardware::Led::LedSystemConfigDir::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::LedsReactor";
  using NestedReactor::NestedReactor;
  void onLeds(Zel::Name led) override { notifyOwner(&PolicyAgent::ledChanged, led); }
};

class PolicyAgent::InitialLedsReactor
    : public Zel::NestedReactor<InitialLedsReactor, Hardware::Led::LedSystemConfigDir::NotifieeConst,
                                PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::InitialLedsReactor";
  using NestedReactor::NestedReactor;
  void onLeds(Zel::Name led) override { notifyOwner(&PolicyAgent::initialChanged, led); }
};

class PolicyAgent::InitialReactor
    : public Zel::NestedReactor<InitialReactor, Hardware::Led::LedConfig::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::InitialReactor";
  using NestedReactor::NestedReactor;
  void onLightSetting() override { notifyOwner(&PolicyAgent::initialChanged, notifier()->name()); }
};

class PolicyAgent::RequestsReactor
    : public Zel::NestedReactor<RequestsReactor, Zel::Dir::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::RequestsReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name request) override { notifyOwner(&PolicyAgent::requestChanged, request); }
};

class PolicyAgent::RequestReactor
    : public Zel::NestedReactor<RequestReactor, Hardware::Led::LightRequest::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::RequestReactor";
  using NestedReactor::NestedReactor;
  void onLeds(Zel::Name) override { changed(); }
  void onLeds() override { changed(); }
  void onSkip(Zel::Name) override { changed(); }
  void onSkip() override { changed(); }
  void onLightSetting() override { changed(); }
  void onPriority() override { changed(); }
  void onLasts() override { changed(); }
  void onSince() override { changed(); }

 private:
  void changed() { notifyOwner(&PolicyAgent::requestChanged, notifier()->name()); }
};

class PolicyAgent::RulesReactor
    : public Zel::NestedReactor<RulesReactor, Zel::Dir::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::RulesReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name rule) override { notifyOwner(&PolicyAgent::ruleChanged, rule); }
};

class PolicyAgent::RuleReactor
    : public Zel::NestedReactor<RuleReactor, Hardware::Led::LightRule::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::RuleReactor";
  using NestedReactor::NestedReactor;
  void onFact() override { changed(); }
  void onAttribute() override { changed(); }
  void onComparison() override { changed(); }
  void onValue() override { changed(); }
  void onFor() override { changed(); }
  void onLed() override { changed(); }
  void onLightSetting() override { changed(); }
  void onPriority() override { changed(); }

 private:
  void changed() { notifyOwner(&PolicyAgent::ruleChanged, notifier()->name()); }
};

class PolicyAgent::FactsReactor
    : public Zel::NestedReactor<FactsReactor, Zel::Dir::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::FactsReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name directory) override { notifyOwner(&PolicyAgent::factsChanged, directory); }
};

class PolicyAgent::ClockReactor
    : public Zel::NestedReactor<ClockReactor, Zel::Clock::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::ClockReactor";
  using NestedReactor::NestedReactor;
  void onTime() override { notifyOwner(&PolicyAgent::wake); }
};

class PolicyAgent::WorkReactor
    : public Zel::NestedReactor<WorkReactor, Policy::Work::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Pinlamp::PolicyAgent::WorkReactor";
  using NestedReactor::NestedReactor;
  void onDue() override { notifyOwner(&PolicyAgent::settle); }
};

}  // namespace Pinlamp
