// The rules against a model that evaluates all of them for all facts each time, under random operations.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>

#include "platform/zel/notify/clock.h"
#include "policy/comparison.h"
#include "policy/rules.h"
#include "tests/support.h"

namespace {

using Led::Comparison;
using Policy::Rule;
using Zel::Name;
using Zel::Value;
using Names = std::vector<Name>;

class FactTable : public Policy::FactReader {
 public:
  using Fact = std::map<Name, Value>;

  bool hasFact(Name directory, Name fact) const override { return facts.contains({directory, fact}); }
  void forEachFact(Name directory, const std::function<void(Name)>& call) const override {
    for (const auto& [place, fact] : facts)
      if (place.first == directory) call(place.second);
  }
  std::optional<Value> value(Name directory, Name fact, Name attribute) const override {
    const auto found = facts.find({directory, fact});
    if (found == facts.end()) return std::nullopt;
    const auto value = found->second.find(attribute);
    if (value == found->second.end()) throw Zel::ValueError("no such attribute");
    return value->second;
  }

  std::map<std::pair<Name, Name>, Fact> facts;
};

class RulesTest : public testing::Test {
 protected:
  using Held = std::map<std::pair<Name, std::string>, double>;  // since when, by rule and '*'

  Name anyOf(const Names& names) { return names[random_() % names.size()]; }
  Value someValue() {
    const Value values[] = {true, false, 10, 20.5, "full", "linkModeForced100gfull", "100gfull"};
    return values[random_() % std::size(values)];
  }
  Rule someRule() {
    static const Names kFacts{"f/link/*", "f/link/swp*",   "f/link/swp1",
                              "f/fan/*",  "f/fan/fan*_in", "f/fan/fan1_in"};
    static const Names kLeds{"Ethernet*", "Fan*", "Ethernet1", "Status", "Ethernet1/*"};
    Rule rule;
    rule.fact = anyOf(kFacts).stdString();
    rule.attribute = anyOf({"a", "b"});
    rule.comparison = static_cast<Comparison>(random_() % 5);
    rule.value = someValue();
    rule.led = anyOf(kLeds).stdString();
    rule.holdTime = random_() % 2 == 0 ? 0 : static_cast<double>(random_() % 5);
    return rule;
  }
  void ruleIs(Name name, const Rule& rule) {
    given_.erase(name);
    std::erase_if(since_, [&](const auto& each) { return each.first.first == name; });
    if (Support::errorOf<Zel::ValueError>([&] { rules_.ruleIs(name, rule); }) == "none") given_[name] = rule;
  }
  void anyOperation() {
    const std::pair<Name, Name> fact{anyOf({"f/link", "f/fan"}),
                                     anyOf({"swp1", "swp2", "eth0", "fan1_in", "fan2_in"})};
    switch (random_() % 8) {
      case 0:
        return ruleIs(anyOf(names_), someRule());
      case 1: {
        const Name name = anyOf(names_);
        EXPECT_EQ(rules_.ruleDel(name), given_.erase(name) == 1);
        std::erase_if(since_, [&](const auto& each) { return each.first.first == name; });
        return;
      }
      case 2: {
        const Name led = anyOf(leds_);
        random_() % 3 == 0 ? arbiter_.ledDel(led) : arbiter_.ledIs(led);
        return rules_.ledChanged(led);
      }
      case 3:
        facts_.facts.erase(fact);
        return rules_.factChanged(fact.first, fact.second);
      case 4:
        facts_.facts[fact] = {{"a", someValue()}, {"b", someValue()}};
        return rules_.factChanged(fact.first, fact.second);
      case 5:
        time_.advance(static_cast<double>(random_() % 3));
        return rules_.expire(time_.now());
      default:
        if (!facts_.facts.contains(fact)) return;
        const Name attribute = anyOf({"a", "b"});
        facts_.facts[fact][attribute] = someValue();
        return rules_.valueChanged(fact.first, fact.second, attribute);
    }
  }

  // All texts of '*' for which a rule's comparison is true now.
  std::set<std::string> holding(const Rule& rule) const {
    const std::string directory = rule.fact.substr(0, rule.fact.rfind('/'));
    const Policy::Starred pattern(rule.fact.substr(rule.fact.rfind('/') + 1)), led(rule.led);
    std::set<std::string> all, there;
    for (const auto& [place, fact] : facts_.facts)
      if (const auto star = pattern.match(place.second.view()); star && place.first.view() == directory) {
        there.insert(std::string(*star));
        if (rule.comparison != Comparison::missing && isTrue(rule, fact.at(rule.attribute)))
          all.emplace(*star);
      }
    if (rule.comparison != Comparison::missing) return all;
    if (!led.hasStar()) return there.empty() ? std::set<std::string>{""} : all;
    for (const Name& name : leds_)
      if (const auto star = led.match(name.view());
          star && arbiter_.hasLed(name) && !there.contains(std::string(*star)))
        all.emplace(*star);
    return all;
  }
  static bool isTrue(const Rule& rule, const Value& found) {
    bool is = false;
    Support::errorOf<Zel::ValueError>([&] { is = Policy::compare(rule.comparison, found, rule.value); });
    return is;
  }
  Held model() {
    Held held;
    for (const auto& [name, rule] : given_)
      for (const std::string& star : holding(rule)) {
        const auto known = since_.find({name, star});
        held[{name, star}] = known == since_.end() ? time_.now() : known->second;
      }
    return held;
  }
  // A rule that has held for long enough is a request, and no other is.
  void expectSame() {
    rules_.expire(time_.now());
    since_ = model();
    std::size_t wanted = 0;
    for (const auto& [place, since] : since_) {
      const bool isDue = time_.now() >= since + given_.at(place.first).holdTime;
      wanted += isDue ? 1 : 0;
      ASSERT_EQ(arbiter_.has({place.first, Name(place.second)}), isDue) << place.first << ' ' << place.second;
    }
    ASSERT_EQ(arbiter_.size(), wanted);
  }

  const Names names_{"r1", "r2", "r3", "r4", "r5", "r6"};
  const Names leds_{"Ethernet1", "Ethernet2", "Ethernet1/1", "Fan1", "Fan2", "Status"};
  std::mt19937 random_{7};
  Zel::System::ManualTime time_{100};
  Policy::Arbiter arbiter_{100};
  FactTable facts_;
  Policy::Rules rules_{arbiter_, facts_, 100};
  std::map<Name, Rule> given_;
  Held since_;
};

TEST_F(RulesTest, FollowAModelUnderRandomOperations) {
  for (int step = 0; step < 10000; ++step) {
    SCOPED_TRACE(step);
    anyOperation();
    expectSame();
    if (HasFatalFailure()) return;
  }
}

TEST_F(RulesTest, CompareNumbersTextsAndShortLinkModes) {
  const struct {
    Comparison comparison;
    Value found, wanted;
    const char* result;
  } cases[] = {
      {Comparison::is, 10, 10.0, "true"},
      {Comparison::is, "linkModeForced100gfull", "100gfull", "true"},
      {Comparison::isNot, "linkModeAutoneg", "100gfull", "true"},
      {Comparison::is, "linkMode", "", "false"},
      {Comparison::above, 10, 10, "false"},
      {Comparison::below, 9.5, 10, "true"},
      {Comparison::isNot, true, "true", "found true or false (true), expected a string, as in the rule"},
      {Comparison::above, "hot", 10, "found a string (\"hot\"), expected a whole number, as in the rule"},
  };
  for (const auto& each : cases) {
    bool is = false;
    const std::string error = Support::errorOf<Zel::ValueError>(
        [&] { is = Policy::compare(each.comparison, each.found, each.wanted); });
    EXPECT_EQ(error != "none" ? error : is ? "true" : "false", each.result);
  }
}

TEST_F(RulesTest, RefuseOrNoteWhatIsWrong) {
  const auto refusal = [&](const Rule& rule) {
    return Support::errorOf<Zel::ValueError>([&] { rules_.ruleIs("r", rule); });
  };
  const Rule good{.fact = "f/link/swp*", .attribute = "up", .led = "Ethernet*"};
  const auto with = [&](auto member, auto value) {
    Rule rule = good;
    rule.*member = value;
    return rule;
  };
  EXPECT_EQ(refusal(good), "none");
  EXPECT_EQ(rules_.standing("r").note, "no LED matches 'Ethernet*'");
  EXPECT_EQ(refusal(with(&Rule::fact, "eth0")), "'eth0' is no path of a fact, as 'facts/link/eth0'");
  EXPECT_FALSE(rules_.has("r")) << "what was refused does not leave its predecessor";
  EXPECT_EQ(refusal(with(&Rule::fact, "f/*/up")), "'f/*/up': only its last component may have a '*'");
  EXPECT_EQ(refusal(with(&Rule::fact, "f/link/s*p*")), "'s*p*' has more than one '*'");
  EXPECT_EQ(refusal(with(&Rule::fact, "f/link/swp1")),
            "the LED 'Ethernet*' has a '*', but the fact 'f/link/swp1' has none");
  EXPECT_EQ(refusal(with(&Rule::led, "")), "it names no LED");
  EXPECT_EQ(refusal(with(&Rule::attribute, "")), "it names no attribute of the fact");
  EXPECT_EQ(refusal(with(&Rule::priority, 1000U)), "its priority 1000 is more than 499");
  EXPECT_EQ(refusal(with(&Rule::comparison, Comparison::above)),
            "'above' needs a number as its value, found true or false");
  arbiter_.ledIs("Ethernet1");
  EXPECT_EQ(refusal(with(&Rule::value, 1)), "none");
  EXPECT_EQ(rules_.standing("r").note, "");
  facts_.facts[{"f/link", "swp1"}] = {{"up", true}};
  rules_.factChanged("f/link", "swp1");
  EXPECT_EQ(rules_.standing("r").note,
            "f/link/swp1 up: found true or false (true), expected a whole number, as in the rule");
}

TEST_F(RulesTest, LightThePortOfALaneWithoutAnLedOfItsOwn) {
  arbiter_.ledIs("Ethernet49");
  facts_.facts[{"f/link", "swp49/1"}] = {{"up", true}};
  rules_.ruleIs("up",
                {.fact = "f/link/swp*", .attribute = "up", .led = "Ethernet*", .setting = {.green = true}});
  ASSERT_TRUE(arbiter_.setting("Ethernet49"));
  EXPECT_TRUE(arbiter_.setting("Ethernet49")->green);
  arbiter_.ledIs("Ethernet49/1");
  EXPECT_FALSE(arbiter_.setting("Ethernet49"));
  EXPECT_TRUE(arbiter_.setting("Ethernet49/1"));
}

}  // namespace
