// Rules: what the facts about the machine ask LEDs to show.
//
//     Rules rules(arbiter, facts, now);
//     rules.ruleIs("down", {.fact = "facts/link/swp*", .attribute = "carrier", .value = false,
//                           .led = "Ethernet*", .setting = red, .priority = 100, .holdTime = 2});
//     rules.valueChanged("facts/link", "swp3", "carrier");  // "Ethernet3" is red 2 s later: expire(now)
//
// Each text that a rule's '*' stands for and for which it holds is a request of the arbiter. A change of a
// fact costs the rules that look at it. Knows no entities; reads the time with Zel::System::currentTime().
// Activity thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/model/lightvalues.h"
#include "policy/arbiter.h"
#include "policy/starred.h"

namespace Policy {

// The facts as they are now. `directory` is the path above a fact.
class FactReader {
 public:
  virtual bool hasFact(Zel::Name directory, Zel::Name fact) const = 0;
  virtual void forEachFact(Zel::Name directory, const std::function<void(Zel::Name)>& call) const = 0;
  // Nullopt where there is no such fact. Throws ValueError where it has no such attribute.
  virtual std::optional<Zel::Value> value(Zel::Name directory, Zel::Name fact, Zel::Name attribute) const = 0;

 protected:
  ~FactReader() = default;
};

// As Hardware::Led::LightRule has it.
struct Rule {
  std::string fact{};
  Zel::Name attribute{};
  Led::Comparison comparison = Led::Comparison::is;
  Zel::Value value = true;
  std::string led{};
  Led::LightSetting setting{};
  std::uint32_t priority = 0;
  double holdTime = 0;  // seconds
};

class Rules {
 public:
  struct Limits {
    std::size_t rules = 10'000;
    std::size_t instances = 100'000;  // texts of '*' for which the comparisons of all rules hold
  };

  // The arbiter and the facts must outlive the rules.
  Rules(Arbiter& arbiter, const FactReader& facts, double now) : Rules(arbiter, facts, now, Limits()) {}
  Rules(Arbiter& arbiter, const FactReader& facts, double now, const Limits& limits);
  ~Rules();

  // Adds a rule, or replaces that of the name; its times start over. Throws ValueError where the rule makes
  // no sense or exceeds a limit; there is none of that name then.
  void ruleIs(Zel::Name name, const Rule& rule);
  bool ruleDel(Zel::Name name);
  bool has(Zel::Name name) const { return states_.contains(name); }

  // A fact came, went or became another.
  void factChanged(Zel::Name directory, Zel::Name fact);
  void valueChanged(Zel::Name directory, Zel::Name fact, Zel::Name attribute);
  // An LED came or went, in the arbiter already.
  void ledChanged(Zel::Name led);

  // Makes requests of what has held for long enough.
  void expire(double now);
  // As Arbiter::nextExpiry().
  double nextExpiry() { return wheel_.next(); }

  // The rules whose standing may have changed since the last call; some may be gone.
  std::vector<Zel::Name> takeTouched();
  struct Standing {
    std::size_t holds = 0;  // for how many texts of '*'
    std::string note;       // what keeps it from working; empty: nothing
  };
  // REQUIRES: has(rule).
  Standing standing(Zel::Name rule) const;

 private:
  struct State;
  // A text of '*' for which the comparison holds.
  struct Instance {
    State* state;
    Zel::Name star;
    Zel::TimerWheel::Timer timer = Zel::TimerWheel::kNone;  // until it has held for long enough
    bool isHeld = false;                                    // it is a request
  };
  struct State {
    State(Zel::Name theName, const Rule& theRule);
    bool isMissing() const { return rule.comparison == Led::Comparison::missing; }
    // Whether it holds once for each LED.
    bool isByLed() const { return isMissing() && led.hasStar(); }

    Zel::Name name;
    Rule rule;
    Zel::Name directory;
    Starred fact;  // in the directory
    Starred led;
    std::unordered_map<Zel::Name, Instance> instances{};
    std::size_t held = 0;
    std::string note{};
    bool isTouched = false;
  };
  using States = std::vector<State*>;
  // The rules on the facts of a directory.
  struct Directory {
    std::unordered_map<Zel::Name, States> exact{};        // by the fact
    States starred{};                                     // with a '*'
    std::unordered_map<Zel::Name, States> byAttribute{};  // those that read one
  };

  template <class Function>
  void forEachList(State& state, Function function);
  void index(State& state);
  void unindex(State& state);
  void evaluateAll(State& state);
  void evaluate(State& state, Zel::Name fact);
  void evaluateMissing(State& state, std::string_view star);
  bool isMissing(const State& state, std::string_view star) const;
  void holdsIs(State& state, std::string_view star, bool holds);
  void begin(State& state, Zel::Name star);
  void hold(Instance& instance);
  void end(Instance& instance);
  static bool isFor(const State& state, Zel::Name led);
  void findLed(State& state);
  void noteIs(State& state, const std::string& note);
  void touch(State& state);

  const Limits limits_;
  Arbiter& arbiter_;
  const FactReader& facts_;
  Zel::TimerWheel wheel_;
  std::unordered_map<Zel::Name, std::unique_ptr<State>> states_;
  std::unordered_map<Zel::Name, Directory> directories_;
  States byLed_;       // the rules that hold once for each LED
  States withoutLed_;  // the rules that no LED fits
  std::vector<Zel::Name> touched_;
  std::size_t instances_ = 0;
};

}  // namespace Policy
