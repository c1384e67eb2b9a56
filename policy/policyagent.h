// The policy agent: decides what LEDs show, by requests, by rules over the facts about the machine, and by
// the settings under "hardware/led/config", which it covers and never writes. docs/policy.md explains the
// whole.
//
// Activity thread only.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/model/ledsystemconfigdir.h"
#include "platform/model/lightrequest.h"
#include "platform/model/lightrule.h"
#include "platform/model/lightstatus.h"
#include "platform/statedb/store/path.h"
#include "platform/warden/cagent.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/notify/clock.h"
#include "platform/zel/notify/slot.h"
#include "policy/arbiter.h"
#include "policy/facttree.h"
#include "policy/rules.h"

namespace Pinlamp {

// Owned by the host that made it. Its covers end with the process: the LEDs show their settings then.
class PolicyAgent : public Zel::Described<PolicyAgent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static constexpr auto reactors() {
    using A = PolicyAgent;
    return std::tuple{
        &A::leds_, &A::initial_,         &A::requests_,        &A::rules_,        &A::facts_,    &A::clock_,
        &A::due_,  &A::initialReactors_, &A::requestReactors_, &A::ruleReactors_, &A::followers_};
  }
  static const Zel::TypeNode& typeNode();

  // Seconds since 1970, UTC. For tests.
  using WallTime = double (*)();
  explicit PolicyAgent(Zel::Name name, WallTime wallTime);

  void doInit() override;
  // Throws std::runtime_error where a mount failed.
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& entityManager) override;

 protected:
  ~PolicyAgent() override;

 private:
  class LedsReactor;
  class InitialLedsReactor;
  class InitialReactor;
  class RequestsReactor;
  class RequestReactor;
  class RulesReactor;
  class RuleReactor;
  class FactsReactor;
  class ClockReactor;
  class WorkReactor;

  // The agent's knowledge of one request.
  struct Known {
    double since = -1;  // of the entity, when `began` was computed
    double began = 0;   // monotonic
    std::string refusal{};
    bool hasEnded = false;
  };

  // An entity came, went, became another object, or changed.
  void ledChanged(Zel::Name name);
  void initialChanged(Zel::Name led);
  void requestChanged(Zel::Name name);
  void ruleChanged(Zel::Name name);
  void factsChanged(Zel::Name directory);
  void baseChanged(Statedb::Path path);
  void wake();
  void settle();

  void applyRequest(Zel::Name name);
  void ask(const Hardware::Led::LightRequest& request, Known& known);
  void applyRule(Zel::Name name);
  double began(const Hardware::Led::LightRequest& request, Known& known) const;
  std::optional<Led::LightSetting> settingOf(Zel::Name led) const;
  std::optional<Led::LightSetting> initialSetting(Zel::Name led) const;
  void show(Zel::Name led);
  void publishClaims(Zel::Name led);
  void publishRequest(Zel::Name name);
  void publishRule(Zel::Name name);

  const WallTime wallTime_;
  const Statedb::Path ledPaths_;  // above those of the LEDs
  Policy::Arbiter arbiter_;
  Policy::FactTree factTree_;
  Policy::Rules logic_;
  const Zel::Ptr<Policy::Work> work_;
  std::unordered_map<Zel::Name, Known> known_;
  std::unordered_map<Zel::Name, std::string> refusedRules_;
  Zel::NameSet changedRequests_;  // in this pass
  Zel::NameSet changedRules_;
  Zel::NameSet changedBases_;  // LEDs with an initial setting
  Zel::Ptr<Zel::Dir> requestStatus_;
  Zel::Ptr<Zel::Dir> ruleStatus_;
  Zel::Ptr<Zel::Dir> claims_;
  Zel::Slot<LedsReactor> leds_;
  Zel::Slot<InitialLedsReactor> initial_;
  Zel::Slot<RequestsReactor> requests_;
  Zel::Slot<RulesReactor> rules_;
  Zel::Slot<FactsReactor> facts_;
  Zel::Slot<ClockReactor> clock_;
  Zel::Slot<WorkReactor> due_;
  Zel::SlotMap<InitialReactor> initialReactors_;
  Zel::SlotMap<RequestReactor> requestReactors_;
  Zel::SlotMap<RuleReactor> ruleReactors_;
  Zel::PtrMap<Policy::FactFollower> followers_;  // before the end of what they refer to
  std::shared_ptr<void> baseReactor_;
};

}  // namespace Pinlamp
