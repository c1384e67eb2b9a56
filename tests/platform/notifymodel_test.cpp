// The notification contract against a plain model, under random operations: handlers change entities, remove
// them from their directory, re-point, switch, unregister, retire, destroy and make reactors, and throw.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>

#include "platform/model/ledsystemconfigdir.h"
#include "platform/zel/notify/activity.h"

namespace {

using Hardware::Led::LedConfig;
using Zel::Name;
using Zel::Ptr;

constexpr int kNone = -1;

// A mark is a number: first the attributes in the order of their table, then the keys of `mode`.
using SetAttribute = void (*)(LedConfig& led, int value);
constexpr SetAttribute kSetAttributes[] = {
    [](LedConfig& led, int value) { led.lightSettingIs({.flashInterval = value + 0.5}); },
    [](LedConfig& led, int value) { led.themeIs(std::to_string(value)); },
    [](LedConfig& led, int value) { led.modeIs(Zel::NameSet{std::to_string(value)}); },
    [](LedConfig& led, int value) { led.currentModeIs(std::to_string(value)); },
};
enum { kLightSetting, kTheme, kModes, kCurrentMode, kFirstKey, kMarks = kFirstKey + 24 };
using Marks = std::deque<int>;

void add(Marks& marks, int mark) {
  if (std::ranges::count(marks, mark) != 0) return;
  marks.insert(std::ranges::upper_bound(marks, std::min<int>(mark, kFirstKey), {},
                                        [](int each) { return std::min<int>(each, kFirstKey); }),
               mark);
}

struct Delivery {
  int reactor = kNone, entity = kNone, mark = kNone;
  auto operator<=>(const Delivery&) const = default;
  friend void PrintTo(const Delivery& it, std::ostream* out) {
    *out << "reactor " << it.reactor << ", entity " << it.entity << ", mark " << it.mark;
  }
};

struct Model {
  struct Reactor {
    int entity = kNone;
    bool registered = false, on = true, live = true;
    Marks marks{};
  };

  void drop(int reactor) {
    reactors[reactor].marks.clear();
    std::erase(queue, reactor);
    if (turn == reactor) rest.clear();
  }
  void flagIs(int reactor, bool Reactor::*flag, bool value) {
    if (std::exchange(reactors[reactor].*flag, value) == value) return;
    if (!value) drop(reactor);
    if (flag != &Reactor::registered) return;
    std::erase(registered, reactor);
    if (value) registered.push_back(reactor);
  }
  void point(int reactor, int entity) {
    if (reactors[reactor].entity == entity) return;
    flagIs(reactor, &Reactor::registered, false);
    reactors[reactor].entity = entity;
    flagIs(reactor, &Reactor::registered, entity != kNone);
  }
  void change(int entity, int mark) {
    for (const int reactor : registered) {
      Reactor& it = reactors[reactor];
      if (it.entity != entity || !it.on || !it.live) continue;
      if (turn == reactor && std::ranges::count(rest, mark) != 0) continue;
      add(it.marks, mark);
      if (std::ranges::count(queue, reactor) == 0) queue.push_back(reactor);
    }
  }
  bool mayBeNotified(int reactor) {
    const Reactor& it = reactors[reactor];
    return it.on && it.live && it.registered && it.entity != kNone && !gone[it.entity];
  }
  Delivery next() {
    while (rest.empty() || !mayBeNotified(turn)) {
      rest.clear();
      if (queue.empty()) return {};
      turn = queue.front();
      queue.pop_front();
      rest = std::exchange(reactors[turn].marks, {});
    }
    const int mark = rest.front();
    rest.pop_front();
    return {turn, reactors[turn].entity, mark};
  }
  void fail() {
    if (rest.empty()) return;
    for (const int mark : std::exchange(reactors[turn].marks, std::exchange(rest, {})))
      add(reactors[turn].marks, mark);
    std::erase(queue, turn);
    queue.push_front(turn);
  }

  std::map<int, Reactor> reactors{};
  std::map<int, bool> gone{};
  std::vector<int> registered{};  // in the order of registration
  std::deque<int> queue{};        // of the pending
  int turn = kNone;               // whose it is
  Marks rest{};                   // of the turn
};

// Applies each operation to the model and to the real objects.
class World {
 public:
  explicit World(unsigned seed) : random_(seed) {
    for (int i = 0; i < 3; ++i) leds_.push_back(dir_->ledsIs(Name(std::to_string(i))));
  }

  void pass() {
    for (budget_ = 30; budget_ > 20; --budget_) operate();
    for (bool done = false; !done;) try {
        manager_.step();
        done = true;
      } catch (const Zel::HandlerFault&) {
      }
    EXPECT_EQ(model_.next(), Delivery{}) << "was not delivered";
  }

 private:
  struct Actor : Zel::Reactor<Actor, LedConfig::NotifieeConst> {
    static constexpr const char* kTypeName = "Test::Actor";
    Actor(World& made, int number) : world(made), id(number) {}
    void onLightSetting() override { world.delivered(*this, kLightSetting); }
    void onTheme() override { world.delivered(*this, kTheme); }
    void onMode() override { world.delivered(*this, kModes); }
    void onMode(Name key) override { world.delivered(*this, std::stoi(key.stdString())); }
    void onCurrentMode() override { world.delivered(*this, kCurrentMode); }
    World& world;
    const int id;
  };

  const Ptr<LedConfig>& ledAt(int entity) const { return leds_[static_cast<std::size_t>(entity)]; }
  int below(int end) { return static_cast<int>(random_() % static_cast<unsigned>(end)); }

  void delivered(const Actor& actor, int mark) {
    const int entity = actor.notifier() ? std::stoi(actor.notifier()->name().stdString()) : kNone;
    EXPECT_EQ((Delivery{actor.id, entity, mark}), model_.next());
    for (int i = below(4); i > 0 && budget_ > 0; --i, --budget_) operate();
    if (below(8) != 0) return;
    model_.fail();
    throw std::runtime_error("a handler's fault");
  }

  void operate() {
    const int entity = below(3);
    if (below(12) == 0) return leaveOrReturn(entity);
    if (below(2) == 0) return reconfigure(below(6), below(5) == 0 ? kNone : entity, below(3) != 0);
    const int mark = below(kMarks);
    if (below(2) == 0) return change(entity, mark % kFirstKey);
    for (int key = mark; key < kMarks; ++key) change(entity, key);
  }
  void change(int entity, int mark) {
    LedConfig& led = *ledAt(entity);
    const Name key(std::to_string(mark));
    if (mark < kFirstKey)
      kSetAttributes[mark](led, 1000 + ++changes_);
    else
      led.modeIs(key, !led.mode().value(key));
    model_.change(entity, mark);
  }
  void leaveOrReturn(int entity) {
    const bool gone = model_.gone[entity] = !model_.gone[entity];
    gone ? static_cast<void>(dir_->ledsDel(ledAt(entity)->name())) : dir_->ledsIs(ledAt(entity));
  }
  void reconfigure(int reactor, int entity, bool on) {
    Ptr<Actor>& actor = actors_[reactor];
    if (!actor) actor = Zel::allocate<Actor>(*this, reactor);
    switch (below(5)) {
      case 0:
        actor = nullptr;
        model_.point(reactor, kNone);
        model_.drop(reactor);
        model_.reactors.erase(reactor);
        break;
      case 1:
        actor->isRegisteredNotifieeIs(on);
        return model_.flagIs(reactor, &Model::Reactor::registered, on);
      case 2:
        actor->hasNotificationActiveIs(on);
        return model_.flagIs(reactor, &Model::Reactor::on, on);
      case 3:
        actor->zelDoZombieReactors(!on);
        return model_.flagIs(reactor, &Model::Reactor::live, on);
      case 4:
        actor->notifierIs(entity == kNone ? Ptr<Zel::Entity>(dir_) : ledAt(entity));
        return model_.point(reactor, entity);
    }
  }

  std::mt19937 random_;
  Zel::ActivityManager manager_;
  Ptr<Hardware::Led::LedSystemConfigDir> dir_ = Zel::allocate<Hardware::Led::LedSystemConfigDir>("leds");
  std::vector<Ptr<LedConfig>> leds_;
  std::map<int, Ptr<Actor>> actors_;
  Model model_;
  int changes_ = 0;
  int budget_ = 0;
};

TEST(NotificationModel, DeliversAsTheModelExpects) {
  for (unsigned seed = 0; seed < 20 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    World world(seed);
    for (int pass = 0; pass < 400 && !testing::Test::HasFailure(); ++pass) world.pass();
  }
}

}  // namespace
