// The arbiter against a model that looks at everything each time, under random operations.
#include <fnmatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>

#include "platform/zel/core/exception.h"
#include "policy/arbiter.h"
#include "tests/support.h"

namespace {

using Policy::Arbiter;
using Policy::Request;
using Policy::Source;
using Zel::Name;
using Names = std::vector<Name>;

// Keeps requests and LEDs in lists, and decides by sorting them all.
class ArbiterModel {
 public:
  struct Held {
    Source source;
    Request request;
    std::uint64_t made = 0, changed = 0;
  };

  void ledIs(Name led) { leds_.insert(led); }
  void ledDel(Name led) {
    leds_.erase(led);
    shown_.erase(led);
  }
  void requestIs(const Source& source, const Request& request) {
    Held held{source, request, ++last_, last_};
    held.request.setting.priority = request.priority;
    if (const Held* old = find(source)) {
      held.made = old->made;
      if (old->request.setting == held.request.setting) held.changed = old->changed;
    }
    requestDel(source);
    held_.push_back(held);
  }
  void requestDel(const Source& source) {
    std::erase_if(held_, [&](const Held& each) { return each.source == source; });
  }
  std::vector<Name> expire(double now) {
    std::vector<Name> ended;
    for (const Held& each : held_)
      if (each.request.ends <= now) ended.push_back(each.source.name);
    std::erase_if(held_, [&](const Held& each) { return each.request.ends <= now; });
    return ended;
  }
  std::vector<Held> asking(Name led) const {
    std::vector<Held> asking;
    for (const Held& each : held_)
      if (asks(each.request, led)) asking.push_back(each);
    std::ranges::sort(asking, std::greater(), [](const Held& each) {
      return std::tuple(each.request.priority, each.request.began, each.made);
    });
    return asking;
  }
  std::set<Name> takeChanged() {
    std::set<Name> changed;
    for (const Name& led : leds_) {
      const auto held = asking(led);
      const std::uint64_t now = held.empty() ? 0 : held.front().changed;
      if (std::exchange(shown_[led], now) != now) changed.insert(led);
    }
    return changed;
  }
  const std::set<Name>& leds() const { return leds_; }

 private:
  const Held* find(const Source& source) const {
    const auto found = std::ranges::find(held_, source, &Held::source);
    return found == held_.end() ? nullptr : &*found;
  }
  static bool isAmong(const Names& patterns, Name led) {
    return std::ranges::any_of(patterns,
                               [&](Name each) { return fnmatch(each.charPtr(), led.charPtr(), 0) == 0; });
  }
  bool asks(const Request& request, Name led) const {
    if (isAmong(request.skip, led)) return false;
    if (isAmong(request.leds, led)) return true;
    return request.fallsBack && std::ranges::any_of(request.leds, [&](Name lane) {
             const std::string text = lane.stdString();
             return text.find('*') == std::string::npos && !leds_.contains(lane) &&
                    !isAmong(request.skip, lane) && text.starts_with("Ethernet") &&
                    text.substr(0, text.rfind('/')) == led.view();
           });
  }

  std::set<Name> leds_;
  std::vector<Held> held_;
  std::map<Name, std::uint64_t> shown_;
  std::uint64_t last_ = 0;
};

class ArbiterTest : public testing::Test {
 protected:
  Name anyOf(const Names& names) { return names[random_() % names.size()]; }
  Names some(const Names& names, std::size_t least) {
    Names chosen;
    for (std::size_t count = least + random_() % 3; count > 0; --count) chosen.push_back(anyOf(names));
    return chosen;
  }
  Source someSource() {
    static const Names kNames{"a", "b", "c", "d", "e", "f", "g", "h"};
    return {random_() % 3 == 0 ? Name("rule") : Name(), anyOf(kNames)};
  }
  Request someRequest() {
    static const Names kPatterns{"Ethernet*", "Fan?", "*/1", "[EF]*3", "*", "Ethernet1/*", "Fan2"};
    Request request;
    request.leds = some(random_() % 2 ? kPatterns : leds_, 1);
    if (random_() % 3 == 0) request.skip = some(random_() % 2 ? kPatterns : leds_, 0);
    request.setting.green = random_() % 2 == 0;
    request.priority = static_cast<std::uint32_t>(random_() % 3) * 100;
    request.began = static_cast<double>(random_() % 3);
    if (random_() % 2 == 0) request.ends = now_ + static_cast<double>(random_() % 20);
    request.fallsBack = random_() % 3 == 0;
    return request;
  }
  void requestIs(const Source& source, const Request& request) {
    arbiter_.requestIs(source, request);
    model_.requestIs(source, request);
  }
  void ledIs(Name led, bool isThere) {
    isThere ? arbiter_.ledIs(led) : arbiter_.ledDel(led);
    isThere ? model_.ledIs(led) : model_.ledDel(led);
  }
  void expire() {
    now_ += static_cast<double>(random_() % 4);
    Names ended, wanted = model_.expire(now_);
    for (const Source& each : arbiter_.expire(now_)) ended.push_back(each.name);
    std::ranges::sort(ended);
    std::ranges::sort(wanted);
    ASSERT_EQ(ended, wanted);
    ASSERT_GT(arbiter_.nextExpiry(), now_);
  }
  void anyOperation() {
    switch (random_() % 8) {
      case 0:
        return ledIs(anyOf(leds_), random_() % 4 != 0);
      case 1: {
        const Source source = someSource();
        arbiter_.requestDel(source);
        return model_.requestDel(source);
      }
      case 2:
        return expire();
      default:
        return requestIs(someSource(), someRequest());
    }
  }
  void expectSame() {
    for (const Name& led : leds_) {
      SCOPED_TRACE(led.stdString());
      std::vector<Arbiter::Asking> wanted;
      const auto held = model_.leds().contains(led) ? model_.asking(led) : std::vector<ArbiterModel::Held>();
      for (const auto& each : held) wanted.push_back({each.source, each.request.priority});
      ASSERT_EQ(arbiter_.asking(led), wanted);
      ASSERT_EQ(arbiter_.askingCount(led), wanted.size());
      ASSERT_EQ(arbiter_.setting(led),
                held.empty() ? std::nullopt : std::optional(held.front().request.setting));
    }
  }

  const Names leds_{"Ethernet1", "Ethernet1/1", "Ethernet1/2", "Ethernet3", "Fan1", "Fan2", "Fan3", "Status"};
  std::mt19937 random_{5};
  double now_ = 1000;
  Arbiter arbiter_{now_};
  ArbiterModel model_;
};

TEST_F(ArbiterTest, FollowsAModelUnderRandomOperations) {
  for (int step = 0; step < 5000; ++step) {
    SCOPED_TRACE(step);
    anyOperation();
    expectSame();
    if (random_() % 3 == 0) {
      const Names changed = arbiter_.takeChanged();
      ASSERT_EQ(std::set<Name>(changed.begin(), changed.end()), model_.takeChanged());
      ASSERT_EQ(changed.size(), std::set<Name>(changed.begin(), changed.end()).size()) << "each once";
      expectSame();
    }
    if (HasFatalFailure()) return;
  }
}

TEST_F(ArbiterTest, RefusesWhatExceedsALimitAndKeepsTheOthers) {
  Arbiter arbiter(now_, {.requests = 3, .names = 2, .patterns = 4, .matches = 5});
  for (const char* led : {"a1", "a2", "a3"}) arbiter.ledIs(led);
  const auto refusal = [&](const char* name, const Names& leds, std::uint32_t priority = 100) {
    return Support::errorOf<Zel::ValueError>([&] {
      arbiter.requestIs({{}, name}, {.leds = leds, .priority = priority});
    });
  };
  EXPECT_EQ(refusal("all", {"a*"}), "none");
  EXPECT_EQ(refusal("none", {}), "it names no LED");
  EXPECT_EQ(refusal("empty", {""}), "an LED's name is empty");
  EXPECT_EQ(refusal("names", {"a1", "a2", "a3"}), "'leds' has 3 names, more than 2");
  EXPECT_EQ(refusal("high", {"a1"}, 500), "its priority 500 is more than 499");
  EXPECT_EQ(refusal("stars", {"*a*a*a*a*a*a*a*a*"}), "'*a*a*a*a*a*a*a*a*' has more than 8 '*'");
  EXPECT_EQ(refusal("matches", {"*"}), "all requests together ask for more than 5 LEDs");
  EXPECT_EQ(refusal("two", {"a1", "b*"}), "none");
  EXPECT_EQ(refusal("patterns", {"b*", "c*"}), "all requests together have more than 4 patterns");
  EXPECT_EQ(refusal("one", {"a1"}), "none");
  EXPECT_EQ(refusal("more", {"a1"}), "there are 3 requests already, the most");
  EXPECT_EQ(arbiter.asking("a1").size(), 3U);
  EXPECT_EQ(arbiter.asking("a3").size(), 1U);
  EXPECT_EQ(refusal("two", {}), "it names no LED");
  EXPECT_EQ(arbiter.asking("a1").size(), 2U) << "what was refused does not leave its predecessor";
  arbiter.ledIs("a4");
  arbiter.ledIs("a5");
  EXPECT_EQ(arbiter.standing({{}, "all"}).leds, 4U);
  EXPECT_EQ(arbiter.standing({{}, "all"}).note, "LEDs were left out: all requests together ask for too many");
}

TEST_F(ArbiterTest, NotesNamesAndPatternsWithoutEffect) {
  for (const char* led : {"Fan1", "Fan2"}) arbiter_.ledIs(led);
  const auto note = [&](const Request& request) {
    arbiter_.requestIs({{}, "r"}, request);
    return arbiter_.standing({{}, "r"}).note;
  };
  EXPECT_EQ(note({.leds = {"Fan1", "Fan?"}}), "");
  EXPECT_EQ(note({.leds = {"Fan1", "Fan3", "Fna*"}}), "no LED is named 'Fan3'; no LED matches 'Fna*'");
  EXPECT_EQ(note({.leds = {"Fan*"}, .skip = {"*"}}), "'skip' leaves no LED");
  EXPECT_EQ(note({.leds = {"a", "b", "c", "d", "e", "f"}}),
            "no LED is named 'a'; no LED is named 'b'; no LED is named 'c'; no LED is named 'd'; and 2 more");
  arbiter_.takeTouched();
  arbiter_.ledIs("a");
  EXPECT_EQ(arbiter_.takeTouched(), Names{"r"}) << "its standing has changed";
  EXPECT_EQ(arbiter_.standing({{}, "r"}).leds, 1U);
}

}  // namespace
