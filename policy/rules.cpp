#include "policy/rules.h"

#include <algorithm>

#include "platform/model/priorities.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/entity/pathwalker.h"
#include "platform/zel/notify/clock.h"
#include "policy/comparison.h"
#include "policy/lane.h"

namespace Policy {

namespace {

using Zel::Name;
using Zel::PathWalker;
using Zel::ValueError;

std::string quoted(std::string_view text) { return "'" + Zel::excerpt(text) + "'"; }

Name directoryOf(const std::string& fact) {
  PathWalker::checkComponents(fact);
  const std::string_view directory = PathWalker::above(fact);
  if (directory.empty()) throw ValueError(quoted(fact) + " is no path of a fact, as 'facts/link/eth0'");
  if (directory.find('*') != std::string_view::npos)
    throw ValueError(quoted(fact) + ": only its last component may have a '*'");
  return Name(directory);
}

Starred factOf(const std::string& fact) {
  return Starred(Zel::unescapeComponent(fact.substr(fact.rfind('/') + 1)));
}

Starred ledOf(const Rule& rule) {
  if (rule.led.empty()) throw ValueError("it names no LED");
  Name::check(rule.led);
  return Starred(rule.led);
}

void checkRule(const Rule& rule, const Starred& fact, const Starred& led) {
  if (led.hasStar() && !fact.hasStar())
    throw ValueError("the LED " + quoted(rule.led) + " has a '*', but the fact " + quoted(rule.fact) +
                     " has none");
  if (rule.attribute.empty() && rule.comparison != Led::Comparison::missing)
    throw ValueError("it names no attribute of the fact");
  if (rule.priority > Led::kHighestPriority)
    throw ValueError("its priority " + std::to_string(rule.priority) + " is more than " +
                     std::to_string(Led::kHighestPriority));
  checkComparison(rule.comparison, rule.value);
}

template <class Lists>
void eraseIfEmpty(Lists& lists, Name key) {
  if (const auto found = lists.find(key); found != lists.end() && found->second.empty()) lists.erase(found);
}

}  // namespace

Rules::State::State(Name theName, const Rule& theRule)
    : name(theName),
      rule(theRule),
      directory(directoryOf(rule.fact)),
      fact(factOf(rule.fact)),
      led(ledOf(rule)) {
  checkRule(rule, fact, led);
}

Rules::Rules(Arbiter& arbiter, const FactReader& facts, double now, const Limits& limits)
    : limits_(limits), arbiter_(arbiter), facts_(facts), wheel_(now) {}

Rules::~Rules() = default;

void Rules::ruleIs(Name name, const Rule& rule) {
  ruleDel(name);
  if (states_.size() >= limits_.rules)
    throw ValueError("there are " + std::to_string(limits_.rules) + " rules already, the most");
  State& state = *states_.emplace(name, std::make_unique<State>(name, rule)).first->second;
  index(state);
  findLed(state);
  touch(state);
  evaluateAll(state);
}

bool Rules::ruleDel(Name name) {
  const auto found = states_.find(name);
  if (found == states_.end()) return false;
  State& state = *found->second;
  touch(state);
  while (!state.instances.empty()) end(state.instances.begin()->second);
  unindex(state);
  states_.erase(found);
  return true;
}

// Calls `function` with each list that has the rule, or is to have it.
template <class Function>
void Rules::forEachList(State& state, Function function) {
  Directory& directory = directories_[state.directory];
  if (!state.fact.hasStar()) {
    function(directory.exact[Name(state.fact.with({}))]);
  } else {
    function(directory.starred);
    if (!state.isMissing()) function(directory.byAttribute[state.rule.attribute]);
  }
  if (state.isByLed()) function(byLed_);
}

void Rules::index(State& state) {
  forEachList(state, [&](States& list) { list.push_back(&state); });
}

void Rules::unindex(State& state) {
  forEachList(state, [&](States& list) { std::erase(list, &state); });
  std::erase(withoutLed_, &state);
  Directory& directory = directories_[state.directory];
  if (!state.fact.hasStar()) eraseIfEmpty(directory.exact, Name(state.fact.with({})));
  eraseIfEmpty(directory.byAttribute, state.rule.attribute);
  if (directory.exact.empty() && directory.starred.empty()) directories_.erase(state.directory);
}

void Rules::evaluateAll(State& state) {
  if (state.isByLed())
    arbiter_.forEachLed([&](Name led) {
      if (const auto star = state.led.match(led.view())) evaluateMissing(state, *star);
    });
  else if (state.isMissing())
    evaluateMissing(state, {});
  else if (state.fact.hasStar())
    facts_.forEachFact(state.directory, [&](Name fact) { evaluate(state, fact); });
  else
    evaluate(state, Name(state.fact.with({})));
}

void Rules::evaluate(State& state, Name fact) {
  const auto star = state.fact.match(fact.view());
  if (!star) return;
  if (state.isMissing()) return evaluateMissing(state, state.led.hasStar() ? *star : std::string_view());
  const Rule& rule = state.rule;
  bool holds = false;
  try {
    const auto value = facts_.value(state.directory, fact, rule.attribute);
    holds = value && compare(rule.comparison, *value, rule.value);
  } catch (const ValueError& error) {
    noteIs(state, state.directory.stdString() + '/' + Zel::escapeComponent(fact.view()) + ' ' +
                      rule.attribute.stdString() + ": " + error.what());
  }
  holdsIs(state, *star, holds);
}

void Rules::evaluateMissing(State& state, std::string_view star) {
  holdsIs(state, star, isMissing(state, star));
}

bool Rules::isMissing(const State& state, std::string_view star) const {
  if (state.isByLed()) {
    const auto led = Name::existing(state.led.with(star));
    if (!led || !arbiter_.hasLed(*led)) return false;
  } else if (state.fact.hasStar()) {
    bool isThere = false;
    facts_.forEachFact(state.directory,
                       [&](Name fact) { isThere = isThere || state.fact.match(fact.view()); });
    return !isThere;
  }
  const auto fact = Name::existing(state.fact.with(star));
  return !fact || !facts_.hasFact(state.directory, *fact);
}

void Rules::holdsIs(State& state, std::string_view star, bool holds) {
  const auto known = Name::existing(star);
  const auto found = known ? state.instances.find(*known) : state.instances.end();
  if (found != state.instances.end()) {
    if (!holds) end(found->second);
  } else if (holds && instances_ >= limits_.instances) {
    noteIs(state, "not shown for " + quoted(star) + ": rules hold for more than " +
                      std::to_string(limits_.instances) + " facts");
  } else if (holds) {
    begin(state, Name(star));
  }
}

void Rules::begin(State& state, Name star) {
  ++instances_;
  Instance& instance = state.instances.emplace(star, Instance{&state, star}).first->second;
  if (state.rule.holdTime > 0)
    instance.timer = wheel_.arm(Zel::System::currentTime() + state.rule.holdTime, &instance);
  else
    hold(instance);
}

void Rules::hold(Instance& instance) {
  State& state = *instance.state;
  instance.isHeld = true;
  ++state.held;
  touch(state);
  Request request;
  request.leds = {Name(state.led.with(instance.star.view()))};
  request.setting = state.rule.setting;
  request.priority = state.rule.priority;
  request.began = Zel::System::currentTime();
  request.fallsBack = true;
  try {
    arbiter_.requestIs({state.name, instance.star}, request);
  } catch (const ValueError& error) {
    noteIs(state, "not shown for " + quoted(instance.star.view()) + ": " + error.what());
  }
}

void Rules::end(Instance& instance) {
  State& state = *instance.state;
  if (instance.timer != Zel::TimerWheel::kNone) wheel_.disarm(instance.timer);
  if (instance.isHeld) {
    arbiter_.requestDel({state.name, instance.star});
    --state.held;
    touch(state);
  }
  --instances_;
  state.instances.erase(Name(instance.star));
}

void Rules::factChanged(Name directory, Name fact) {
  const auto found = directories_.find(directory);
  if (found == directories_.end()) return;
  if (const auto exact = found->second.exact.find(fact); exact != found->second.exact.end())
    for (State* const each : exact->second) evaluate(*each, fact);
  for (State* const each : found->second.starred) evaluate(*each, fact);
}

void Rules::valueChanged(Name directory, Name fact, Name attribute) {
  const auto found = directories_.find(directory);
  if (found == directories_.end()) return;
  const Directory& rules = found->second;
  if (const auto exact = rules.exact.find(fact); exact != rules.exact.end())
    for (State* const each : exact->second)
      if (each->rule.attribute == attribute && !each->isMissing()) evaluate(*each, fact);
  if (const auto some = rules.byAttribute.find(attribute); some != rules.byAttribute.end())
    for (State* const each : some->second) evaluate(*each, fact);
}

void Rules::ledChanged(Name led) {
  for (State* const each : byLed_)
    if (const auto star = each->led.match(led.view())) evaluateMissing(*each, *star);
  if (!arbiter_.hasLed(led)) return;
  std::erase_if(withoutLed_, [&](State* each) {
    if (isFor(*each, led)) touch(*each);
    return isFor(*each, led);
  });
}

void Rules::expire(double now) {
  wheel_.collect(now);
  for (auto due = wheel_.firstDue(); due != Zel::TimerWheel::kNone; due = wheel_.firstDue()) {
    Instance& instance = *static_cast<Instance*>(wheel_.payload(due));
    wheel_.disarm(std::exchange(instance.timer, Zel::TimerWheel::kNone));
    hold(instance);
  }
}

// Whether the rule can light that LED, where it is there.
bool Rules::isFor(const State& state, Name led) {
  if (state.led.hasStar()) return state.led.match(led.view()).has_value();
  return state.rule.led == led.view() || portOf(Name(state.rule.led)) == led;
}

// Files a new rule under those without an LED where there is none that it can light.
void Rules::findLed(State& state) {
  const Name exact(state.led.hasStar() ? "" : state.rule.led);
  bool isThere = arbiter_.hasLed(exact) || arbiter_.hasLed(portOf(exact));
  if (state.led.hasStar()) arbiter_.forEachLed([&](Name led) { isThere = isThere || isFor(state, led); });
  if (!isThere) withoutLed_.push_back(&state);
}

void Rules::noteIs(State& state, const std::string& note) {
  if (state.note == note) return;
  state.note = note;
  touch(state);
}

void Rules::touch(State& state) {
  if (!std::exchange(state.isTouched, true)) touched_.push_back(state.name);
}

std::vector<Name> Rules::takeTouched() {
  for (const Name& name : touched_)
    if (const auto found = states_.find(name); found != states_.end()) found->second->isTouched = false;
  return std::exchange(touched_, {});
}

Rules::Standing Rules::standing(Name rule) const {
  State& state = *states_.at(rule);
  if (!state.note.empty() || std::ranges::count(withoutLed_, &state) == 0) return {state.held, state.note};
  return {state.held,
          (state.led.hasStar() ? "no LED matches " : "no LED is named ") + quoted(state.rule.led)};
}

}  // namespace Policy
