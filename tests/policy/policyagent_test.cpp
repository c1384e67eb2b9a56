// The policy agent over a store in memory: what LEDs show, what is reported, and what stays when it ends.
#include "policy/policyagent.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "platform/model/lightwords.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Zel::Ptr;
using Zel::Value;

// A kind of fact.
class LinkFact : public Zel::Described<LinkFact, Zel::Entity> {
 public:
  static constexpr auto attributes() {
    return std::tuple{Zel::attribute::value<&LinkFact::carrier_>("carrier")};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::LinkFact", &Zel::newEntity<LinkFact>);
    return type;
  }
  explicit LinkFact(Zel::Name name) : Described(name) {}

 private:
  bool carrier_ = false;
};

const Zel::TypeRegistration linkFact{&LinkFact::typeNode};

double wallTime = 1.7e9;

class PolicyAgentTest : public testing::Test {
 protected:
  using Attributes = std::vector<std::pair<const char*, Value>>;

  PolicyAgentTest() {
    database_->reportIs([](const std::string& text) { ADD_FAILURE() << text; });
    for (const char* led : {"Ethernet1", "Ethernet2", "Fan1"})
      put("hardware/led/config/leds/" + std::string(led), "Hardware::Led::LedConfig",
          {{"lightSetting", Led::settingFrom("yellow")}});
    start();
  }
  ~PolicyAgentTest() override { stop(); }

  void start() {
    agent_ = Zel::allocate<Pinlamp::PolicyAgent>("policy", [] { return wallTime; });
    agent_->entityManagerIs(database_);
    agent_->doInit();
    run();
  }
  void stop() {
    agent_ = nullptr;
    database_->stop();
  }
  // The store drops the covers of a process that is gone.
  void kill() {
    stop();
    database_ = Zel::allocate<Statedb::EntityManager>(store_);
    store_.write({Change::del("hardware/led/config")}, Statedb::Durability::cover);
    run();
  }
  void put(const std::string& path, const char* type, const Attributes& attributes) {
    Changes changes{Change::put(path, type, "", {})};
    for (const auto& [attribute, value] : attributes)
      changes.push_back(Change::put(path, type, attribute, value));
    store_.write(changes, Statedb::Durability::stored);
    run();
  }
  void del(const std::string& path) {
    store_.write({Change::del(path)}, Statedb::Durability::stored);
    run();
  }
  void request(const std::string& name, const Attributes& attributes) {
    put("hardware/led/request/" + name, "Hardware::Led::LightRequest", attributes);
  }
  void rule(const std::string& name, const Attributes& attributes) {
    put("hardware/led/rule/" + name, "Hardware::Led::LightRule", attributes);
  }
  void link(const std::string& name, bool carrier) {
    put("facts/link/" + name, "Test::LinkFact", {{"carrier", carrier}});
  }
  void run() {
    for (int pass = 0; pass < 6; ++pass) {
      store_.flush();
      manager_.step();
    }
  }
  void advance(double seconds) {
    time_.advance(seconds);
    wallTime += seconds;
    run();
  }
  std::string read(const std::string& path, const char* attribute) {
    const auto records = store_.read(path);
    const Value* value = records.empty() ? nullptr : records[0]->find(attribute);
    std::ostringstream text;
    if (value) text << *value;
    return text.str();
  }
  std::string shown(const std::string& led) {
    const auto records = store_.read("hardware/led/config/leds/" + led);
    const Value* value = records.empty() ? nullptr : records[0]->find("lightSetting");
    if (!value) return "nothing";
    std::ostringstream text;
    text << Zel::ValueTraits<Led::LightSetting>::fromValue(*value);
    return text.str();
  }
  std::string status(const std::string& place) {
    const std::string path = "hardware/led/" + place;
    return read(path, "state") + ' ' + read(path, "leds") + ' ' + read(path, "note");
  }

  Zel::System::ManualTime time_{50};
  Zel::ActivityManager manager_;
  Statedb::MemoryStore store_;
  Ptr<Statedb::EntityManager> database_ = Zel::allocate<Statedb::EntityManager>(store_);
  Ptr<Pinlamp::PolicyAgent> agent_;
};

TEST_F(PolicyAgentTest, ShowsTheHighestRequestAndThenTheBaseThatWasSetMeanwhile) {
  request("night",
          {{"leds", Value::List{"*"}}, {"lightSetting", Led::settingFrom("off")}, {"priority", "operator"}});
  request("find", {{"leds", Value::List{"Fan1"}},
                   {"lightSetting", Led::settingFrom("green flash 0.2")},
                   {"priority", "identify"},
                   {"lasts", 60}});
  EXPECT_EQ(shown("Fan1"), "{green, flash 0.2 s, priority 300}");
  EXPECT_EQ(shown("Ethernet1"), "{off, priority 200}");
  EXPECT_EQ(read("hardware/led/claims/Fan1", "claims"),
            R"([{"request": "find", "priority": 300}, {"request": "night", "priority": 200}])");
  EXPECT_EQ(status("requestStatus/night"), R"("active" 3 "")");
  put("hardware/led/config/leds/Fan1", "Hardware::Led::LedConfig",
      {{"lightSetting", Led::settingFrom("red")}});
  EXPECT_EQ(shown("Fan1"), "{green, flash 0.2 s, priority 300}");
  advance(60);
  EXPECT_EQ(shown("Fan1"), "{off, priority 200}");
  EXPECT_EQ(status("requestStatus/find"), R"("ended" 0 "")");
  del("hardware/led/request/night");
  EXPECT_EQ(shown("Fan1"), "{red}");
  EXPECT_EQ(shown("Ethernet1"), "{yellow}");
  EXPECT_EQ(store_.read("hardware/led/claims").size(), 0U);
  EXPECT_EQ(status("requestStatus/night"), "  ");
}

TEST_F(PolicyAgentTest, ARequestLastsFromItsMakingWhateverRestartsAndClocksDo) {
  const auto make = [&](const char* name, double since) {
    request(name, {{"leds", Value::List{"Fan1"}},
                   {"lightSetting", Led::settingFrom("red")},
                   {"lasts", 60},
                   {"since", since}});
  };
  make("old", wallTime - 50);
  EXPECT_EQ(status("requestStatus/old"), R"("active" 1 "")");
  wallTime -= 1e6;  // the clock is set
  advance(10);
  EXPECT_EQ(status("requestStatus/old"), R"("ended" 0 "")");
  wallTime += 1e6;
  make("past", wallTime - 61);
  EXPECT_EQ(status("requestStatus/past"), R"("ended" 0 "")");
  make("future", wallTime + 1e6);
  advance(59);
  EXPECT_EQ(status("requestStatus/future"), R"("active" 1 "")");
  advance(1);
  EXPECT_EQ(status("requestStatus/future"), R"("ended" 0 "")");
}

TEST_F(PolicyAgentTest, LightsLedsByTheFactsOfTheMachine) {
  rule("down", {{"fact", "facts/link/swp*"},
                {"attribute", "carrier"},
                {"value", false},
                {"led", "Ethernet*"},
                {"lightSetting", Led::settingFrom("red")},
                {"for", 2}});
  rule("gone", {{"fact", "facts/link/swp*"},
                {"comparison", "missing"},
                {"led", "Ethernet*"},
                {"lightSetting", Led::settingFrom("orange")}});
  link("swp1", true);
  EXPECT_EQ(shown("Ethernet1"), "{yellow}");
  EXPECT_EQ(shown("Ethernet2"), "{orange, priority 100}");
  EXPECT_EQ(read("hardware/led/claims/Ethernet2", "claims"),
            R"([{"rule": "gone", "for": "2", "priority": 100}])");
  link("swp1", false);
  EXPECT_EQ(shown("Ethernet1"), "{yellow}");
  advance(2);
  EXPECT_EQ(shown("Ethernet1"), "{red, priority 100}");
  EXPECT_EQ(status("ruleStatus/down"), R"("active" 1 "")");
  del("facts/link");
  EXPECT_EQ(shown("Ethernet1"), "{orange, priority 100}");
  EXPECT_EQ(status("ruleStatus/down"), R"("idle" 0 "")");
  del("hardware/led/rule/gone");
  EXPECT_EQ(shown("Ethernet2"), "{yellow}");
}

TEST_F(PolicyAgentTest, RefusesABadOneAndKeepsTheOthers) {
  request("bad", {{"lightSetting", Led::settingFrom("red")}});
  request("vain", {{"leds", Value::List{"Lamp?"}}, {"skip", Value::List{"Fna1"}}});
  rule("bad", {{"fact", "facts/link/swp1"}, {"attribute", "carrier"}, {"led", "Ethernet*"}});
  rule("odd", {{"fact", "facts/link/swp*"}, {"attribute", "speed"}, {"led", "Ethernet*"}});
  rule("lost", {{"fact", "interface/swp1"}, {"attribute", "up"}, {"led", "Fan1"}});
  put("hardware/led/request/other", "Zel::Dir", {});
  link("swp1", true);
  EXPECT_EQ(status("requestStatus/bad"), R"("refused" 0 "it names no LED")");
  EXPECT_EQ(status("requestStatus/vain"),
            R"("active" 0 "no LED matches 'Lamp?'; 'skip': no LED is named 'Fna1'")");
  EXPECT_EQ(status("requestStatus/other"),
            R"("refused" 0 "it is a Zel::Dir, expected a Hardware::Led::LightRequest")");
  EXPECT_EQ(status("ruleStatus/bad"),
            R"("refused" 0 "the LED 'Ethernet*' has a '*', but the fact 'facts/link/swp1' has none")");
  EXPECT_EQ(status("ruleStatus/lost"),
            R"("refused" 0 "'interface/swp1' is no path of a fact: 'facts/DIRECTORY/FACT'")");
  EXPECT_EQ(status("ruleStatus/odd"),
            R"("idle" 0 "facts/link/swp1 speed: a Test::LinkFact has no such attribute")");
}

TEST_F(PolicyAgentTest, TakesInLedsThatComeAndForgetsThoseThatGo) {
  request("all", {{"leds", Value::List{"*"}}, {"lightSetting", Led::settingFrom("green")}});
  put("hardware/led/config/leds/Fan2", "Hardware::Led::LedConfig", {});
  EXPECT_EQ(shown("Fan2"), "{green, priority 100}");
  del("hardware/led/config/leds/Fan2");
  EXPECT_EQ(store_.read("hardware/led/claims/Fan2").size(), 0U);
  EXPECT_EQ(status("requestStatus/all"), R"("active" 3 "")");
  put("hardware/led/config/leds/Fan2", "Hardware::Led::LedConfig", {});
  EXPECT_EQ(shown("Fan2"), "{green, priority 100}");
}

// Returns the setting that an LED must show, by looking at everything: that of the request of the highest
// priority, among equals the latest; or else its own, or else its initial one.
struct Model {
  struct Request {
    std::string led;  // "*": all
    std::string words;
    unsigned priority;
    double since, ends;
  };
  std::map<std::string, std::string> base{},
      initial{};  // words of settings; LEDs that nobody set are not there
  std::map<std::string, Request> requests{};

  std::string shown(const std::string& led, bool runs, double now) const {
    const Request* best = nullptr;
    for (const auto& [name, each] : requests)
      if (runs && each.ends > now && (each.led == led || each.led == "*") &&
          (!best || std::tie(each.priority, each.since) > std::tie(best->priority, best->since)))
        best = &each;
    if (best) return text(best->words, best->priority);
    if (const auto set = base.find(led); set != base.end()) return text(set->second, 0);
    const auto first = initial.find(led);
    return runs && first != initial.end() ? text(first->second, 0) : "nothing";
  }
  static std::string text(const std::string& words, unsigned priority) {
    auto setting = Zel::ValueTraits<Led::LightSetting>::fromValue(Led::settingFrom(words));
    setting.priority = priority;
    std::ostringstream out;
    out << setting;
    return out.str();
  }
};

TEST_F(PolicyAgentTest, ShowsWhatTheModelDoesUnderRandomRequestsSettingsAndKills) {
  const std::string leds[] = {"Ethernet1", "Ethernet2", "Fan1"}, words[] = {"green", "red flash 0.5", "off"};
  const unsigned priorities[] = {50, 100, 100, 149, 300};
  Model model;
  for (const auto& led : leds) model.base[led] = "yellow";
  std::mt19937 random(7);
  const auto some = [&](auto& list) -> auto& { return list[random() % std::size(list)]; };
  const auto set = [&](const char* place, std::map<std::string, std::string>& settings) {
    const std::string led = some(leds), path = std::string(place) + "/leds/" + led;
    if (random() % 2) {
      settings[led] = some(words);
      put(path, "Hardware::Led::LedConfig", {{"lightSetting", Led::settingFrom(settings[led])}});
    } else if (settings.erase(led)) {
      store_.write({Change::unset(path, "lightSetting")}, Statedb::Durability::stored);
      if (place == std::string("hardware/led/configInit")) del(path);
    }
  };
  const auto ask = [&](const std::string& name) {
    const double lasts = random() % 2 ? 0 : 0.5 + static_cast<double>(random() % 9);
    const Model::Request made{random() % 3 ? some(leds) : "*", some(words), some(priorities), wallTime,
                              lasts > 0 ? wallTime + lasts : 1e18};
    request(name, {{"leds", Value::List{made.led}},
                   {"lightSetting", Led::settingFrom(made.words)},
                   {"priority", made.priority},
                   {"lasts", lasts},
                   {"since", made.since}});
    model.requests[name] = made;
  };
  for (int step = 0; step < 3000; ++step) {
    const std::string name(1, static_cast<char>('a' + random() % 5));
    switch (random() % 8) {
      case 0:
      case 1:
        set("hardware/led/config", model.base);
        break;
      case 2:
        set("hardware/led/configInit", model.initial);
        break;
      case 3:
        del("hardware/led/request/" + name);
        model.requests.erase(name);
        break;
      case 4:
        agent_ ? kill() : start();
        break;
      default:
        ask(name);
    }
    advance(1);
    for (const auto& led : leds)
      ASSERT_EQ(shown(led), model.shown(led, agent_ != nullptr, wallTime)) << led << " in step " << step;
  }
}

}  // namespace
