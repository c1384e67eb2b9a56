#include "policy/policyagent.h"

#include <algorithm>
#include <stdexcept>

#include "platform/model/paths.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/notify/activity.h"
#include "policy/factreactors.h"
#include "policy/reactors.h"

namespace Pinlamp {

namespace {

using Hardware::Led::LightRequest;
using Hardware::Led::LightRule;
using Hardware::Led::LightStatus;
using Zel::Name;
using Zel::Ptr;

constexpr double kNever = Zel::TimerWheel::kNever;
constexpr std::size_t kMostClaims = 8;  // of an LED, that are published

std::vector<Name> listOf(const Zel::NameSet& names) {
  std::vector<Name> list;
  for (const Name& name : names) list.push_back(name);
  return list;
}

// The tree of facts is that deep; a rule on anything else would never hold, and not be noticed.
void checkFact(const std::string& path) {
  if (!path.starts_with(std::string(Paths::kFacts) + '/') || std::ranges::count(path, '/') != 2)
    throw Zel::ValueError("'" + Zel::excerpt(path) + "' is no path of a fact: '" + Paths::kFacts +
                          "/DIRECTORY/FACT'");
}

Policy::Rule ruleOf(const LightRule& rule) {
  checkFact(rule.fact().stdString());
  return {rule.fact().stdString(), rule.attribute(),    rule.comparison(),     rule.value().value,
          rule.led().stdString(),  rule.lightSetting(), rule.priority().level, rule.holdTime().count};
}

std::string otherType(const Zel::Entity& found, const Zel::TypeNode& expected) {
  return "it is a " + found.fwkType().name().stdString() + ", expected a " + expected.name().stdString();
}

void emptyOut(Zel::Dir& directory) {
  for (const auto& stale : directory.entries()) directory.entryDel(stale->name());
}

void publish(Zel::Dir& directory, Name name, const char* state, std::size_t leds, const std::string& note,
             double since = 0) {
  const auto status = Zel::dynamicPtrCast<LightStatus>(directory.entryIs(name, "Hardware::Led::LightStatus"));
  if (!status) return;
  status->sinceIs({std::max(since, 0.0)});
  status->stateIs(state);
  status->ledsIs(static_cast<std::uint32_t>(leds));
  status->noteIs(note);
}

}  // namespace

const Zel::TypeNode& PolicyAgent::typeNode() {
  static const Zel::TypeNode type = describe("Pinlamp::PolicyAgent");
  return type;
}

PolicyAgent::PolicyAgent(Name name, WallTime wallTime)
    : Described(name),
      wallTime_(wallTime),
      ledPaths_(Statedb::Path(Paths::kLeds).child("leds")),
      arbiter_(Zel::System::currentTime()),
      logic_(arbiter_, factTree_, Zel::System::currentTime()),
      work_(Zel::allocate<Policy::Work>()) {}

PolicyAgent::~PolicyAgent() = default;

void PolicyAgent::doInit() {
  const auto group = entityManager()->getMountGroup(Ptr<Statedb::Mounter>(this));
  group->doMount({Paths::kLeds, "Hardware::Led::LedSystemConfigDir", "c"});
  group->doMount({Paths::kInitialLeds, "Hardware::Led::LedSystemConfigDir", "r"});
  for (const char* path : {Paths::kRequests, Paths::kRules, Paths::kFacts})
    group->doMount({path, "Zel::Dir", "r"});
  for (const char* path : {Paths::kRequestStatus, Paths::kRuleStatus, Paths::kClaims})
    group->doMount({path, "Zel::Dir", "we"});
  group->doClose(false, "", 0.0);
}

void PolicyAgent::doMountsComplete(Statedb::MountStatus status, const Ptr<Statedb::EntityManager>& manager) {
  if (status != Statedb::mountSuccess_) throw std::runtime_error("the policy agent's mounts failed");
  const auto directory = [&](const char* path) {
    return Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(path));
  };
  const auto settings = [&](const char* path) {
    return Zel::dynamicPtrCast<Hardware::Led::LedSystemConfigDir>(manager->getEntity(path));
  };
  const auto leds = settings(Paths::kLeds), initial = settings(Paths::kInitialLeds);
  const auto requests = directory(Paths::kRequests), rules = directory(Paths::kRules),
             facts = directory(Paths::kFacts);
  requestStatus_ = directory(Paths::kRequestStatus);
  ruleStatus_ = directory(Paths::kRuleStatus);
  claims_ = directory(Paths::kClaims);
  for (const auto& each : {requestStatus_, ruleStatus_, claims_}) emptyOut(*each);
  factTree_.rootIs(facts);
  due_.make(*this, work_);
  clock_.make(*this, Zel::activityManager().clock());
  leds_.make(*this, leds);
  initial_.make(*this, initial);
  baseReactor_ = manager->covers().baseReactorIs([this](Statedb::Path path) { baseChanged(path); });
  requests_.make(*this, requests);
  rules_.make(*this, rules);
  facts_.make(*this, facts);
  for (const auto& led : initial->leds()) initialChanged(led->name());
  for (const auto& led : leds->leds()) ledChanged(led->name());
  for (const auto& fact : facts->entries()) factsChanged(fact->name());
  for (const auto& rule : rules->entries()) ruleChanged(rule->name());
  for (const auto& request : requests->entries()) requestChanged(request->name());
}

void PolicyAgent::ledChanged(Name name) {
  if (leds_.notifier()->leds(name)) {
    arbiter_.ledIs(name);
  } else {
    arbiter_.ledDel(name);
    show(name);
  }
  logic_.ledChanged(name);
  if (initial_.notifier()->leds(name)) changedBases_.insert(name, true);
  work_->request();
}

void PolicyAgent::initialChanged(Name led) {
  initialReactors_.watch(led, *this, initial_.notifier()->leds(led));
  changedBases_.insert(led, true);
  work_->request();
}

void PolicyAgent::baseChanged(Statedb::Path path) {
  const auto add = [this](Name led) { changedBases_.insert(led, true); };
  if (ledPaths_.isUnder(path)) {
    for (const auto& led : initial_.notifier()->leds()) add(led->name());
  } else if (path.parent() == ledPaths_) {
    const Name led(Zel::unescapeComponent(path.component().view()));
    if (initial_.notifier()->leds(led)) add(led);
  }
  if (!changedBases_.empty()) work_->request();
}

void PolicyAgent::requestChanged(Name name) {
  requestReactors_.watch(name, *this,
                         Zel::dynamicPtrCast<LightRequest>(requests_.notifier()->entityRef(name)));
  changedRequests_.insert(name, true);
  work_->request();
}

void PolicyAgent::ruleChanged(Name name) {
  ruleReactors_.watch(name, *this, Zel::dynamicPtrCast<LightRule>(rules_.notifier()->entityRef(name)));
  changedRules_.insert(name, true);
  work_->request();
}

void PolicyAgent::factsChanged(Name directory) {
  const Ptr<Policy::FactFollower> old = followers_.remove(directory);
  if (const auto facts = Zel::dynamicPtrCast<const Zel::Dir>(facts_.notifier()->entityRef(directory)))
    followers_.insert(directory, Zel::allocate<Policy::FactFollower>(facts, logic_, work_));
  if (old) old->reportAll();
}

void PolicyAgent::wake() {
  const double now = Zel::System::currentTime();
  for (const Policy::Source& ended : arbiter_.expire(now)) known_[ended.name].hasEnded = true;
  logic_.expire(now);
  settle();
}

// The LEDs follow all changes of the pass at once.
void PolicyAgent::settle() {
  for (const Name& name : std::exchange(changedRequests_, {})) applyRequest(name);
  for (const Name& name : std::exchange(changedRules_, {})) applyRule(name);
  for (const Name& led : std::exchange(changedBases_, {})) show(led);
  for (const Name& led : arbiter_.takeChanged()) show(led);
  for (const Name& name : arbiter_.takeTouched()) publishRequest(name);
  for (const Name& name : logic_.takeTouched()) publishRule(name);
  clock_->timeMinIs(std::min(arbiter_.nextExpiry(), logic_.nextExpiry()));
}

void PolicyAgent::applyRequest(Name name) {
  const auto request = requestReactors_.find(name);
  if (request) {
    ask(*request->notifier(), known_[name]);
  } else {
    arbiter_.requestDel({{}, name});
    known_.erase(name);
    if (const auto other = requests_.notifier()->entityRef(name))
      known_[name].refusal = otherType(*other, LightRequest::typeNode());
  }
  publishRequest(name);
}

void PolicyAgent::ask(const LightRequest& request, Known& known) {
  Policy::Request asked;
  asked.leds = listOf(request.leds());
  asked.skip = listOf(request.skip());
  asked.setting = request.lightSetting();
  asked.priority = request.priority().level;
  asked.began = began(request, known);
  asked.ends = request.lasts().count > 0 ? asked.began + request.lasts().count : kNever;
  known.hasEnded = asked.ends <= Zel::System::currentTime();
  known.refusal.clear();
  if (known.hasEnded) {
    arbiter_.requestDel({{}, request.name()});
    return;
  }
  try {
    arbiter_.requestIs({{}, request.name()}, asked);
  } catch (const Zel::ValueError& error) {
    known.refusal = error.what();
  }
}

// When it was made, on the monotonic clock: now at the latest. Computed once, so that a step of the other
// clock changes nothing.
double PolicyAgent::began(const LightRequest& request, Known& known) const {
  const double since = request.since().count;
  if (since == known.since) return known.began;
  const double now = Zel::System::currentTime();
  if (known.since < 0 || since > 0) known.began = since > 0 ? now - std::max(wallTime_() - since, 0.0) : now;
  known.since = since;
  return known.began;
}

void PolicyAgent::applyRule(Name name) {
  const auto rule = ruleReactors_.find(name);
  refusedRules_.erase(name);
  try {
    logic_.ruleDel(name);
    if (rule) logic_.ruleIs(name, ruleOf(*rule->notifier()));
    if (const auto other = rules_.notifier()->entityRef(name); other && !rule)
      refusedRules_[name] = otherType(*other, LightRule::typeNode());
  } catch (const Zel::ValueError& error) {
    refusedRules_[name] = error.what();
  }
  publishRule(name);
}

std::optional<Led::LightSetting> PolicyAgent::settingOf(Name led) const {
  const auto asked = arbiter_.setting(led);
  return asked ? asked : initialSetting(led);
}

// Of an LED that nobody set.
std::optional<Led::LightSetting> PolicyAgent::initialSetting(Name led) const {
  const auto initial = initial_.notifier()->leds(led);
  const bool isSet = entityManager()->covers().base(ledPaths_.childNamed(led), "lightSetting");
  if (!initial || isSet || !arbiter_.hasLed(led)) return std::nullopt;
  return initial->lightSetting();
}

void PolicyAgent::show(Name led) {
  Statedb::Covers& covers = entityManager()->covers();
  const Statedb::Path path = ledPaths_.childNamed(led);
  if (const auto setting = settingOf(led))
    covers.put(path, "Hardware::Led::LedConfig", "lightSetting",
               Zel::ValueTraits<Led::LightSetting>::toValue(*setting));
  else
    covers.remove(path, "lightSetting");
  publishClaims(led);
}

void PolicyAgent::publishClaims(Name led) {
  Led::Claims claims;
  for (const auto& each : arbiter_.asking(led, kMostClaims))
    claims.list.push_back({each.source.rule, each.source.name, each.priority});
  if (claims.list.empty()) {
    claims_->entryDel(led);
    return;
  }
  const auto entity =
      Zel::dynamicPtrCast<Hardware::Led::LedClaims>(claims_->entryIs(led, "Hardware::Led::LedClaims"));
  if (!entity) return;
  entity->claimsIs(claims);
  entity->othersIs(static_cast<std::uint32_t>(arbiter_.askingCount(led) - claims.list.size()));
}

void PolicyAgent::publishRequest(Name name) {
  const auto known = known_.find(name);
  if (known == known_.end()) {
    requestStatus_->entryDel(name);
    return;
  }
  const auto& [since, began, refusal, hasEnded] = known->second;
  if (!refusal.empty()) return publish(*requestStatus_, name, "refused", 0, refusal, since);
  if (hasEnded) return publish(*requestStatus_, name, "ended", 0, {}, since);
  const auto standing = arbiter_.standing({{}, name});
  publish(*requestStatus_, name, "active", standing.leds, standing.note, since);
}

void PolicyAgent::publishRule(Name name) {
  if (const auto refused = refusedRules_.find(name); refused != refusedRules_.end())
    return publish(*ruleStatus_, name, "refused", 0, refused->second);
  if (!logic_.has(name)) {
    ruleStatus_->entryDel(name);
    return;
  }
  const auto standing = logic_.standing(name);
  publish(*ruleStatus_, name, standing.holds > 0 ? "active" : "idle", standing.holds, standing.note);
}

}  // namespace Pinlamp
