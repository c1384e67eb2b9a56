// Slots: the life of an owner's reactors, and saboteurs among them.
#include "platform/zel/notify/slot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "platform/model/ledconfig.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Hardware::Led::LedConfig;
using Support::Lines;
using Zel::Name;
using Zel::Ptr;

using Act = std::function<void(class Host&)>;

// Runs at the next reactor that reaches a moment of its life.
std::map<std::string, Act> sabotage;
Lines lines;

void reach(const std::string& moment, Host* host) {
  const auto act = sabotage.extract(moment);
  if (host && act) act.mapped()(*host);
}

struct Nested : Zel::NestedReactor<Nested, LedConfig::NotifieeConst, Host> {
  static constexpr const char* kTypeName = "Test::Nested";
  Nested(const Ptr<const LedConfig>& led, Host& host) : NestedReactor(led, host) { reach("made", &host); }
  void onLightSetting() override;
  void onLightSettingzelImmediate() override { reach("hook", owner()); }
  void notifierIs(const Ptr<const Zel::PtrInterface>& led) override {
    NestedReactor::notifierIs(led);
    reach("pointed", owner());
  }
  void hasNotificationActiveIs(bool active) override;
  void zelDoZombieReactors(bool zombie) override {
    if (zelIsZombie() == zombie) return;
    lines.push_back(text() + (zombie ? " retired" : " revived") + (owner() ? "" : " without owner") +
                    (follows(zombie) ? " after its owner" : ""));
    reach("retired", owner());
    NestedReactor::zelDoZombieReactors(zombie);
  }
  bool follows(bool zombie) const;
  std::string text() const { return notifier() ? notifier()->name().stdString() : "none"; }
};

class Host : public Support::Plain<Host, Zel::Entity> {
 public:
  static constexpr const char* kName = "Test::Host";
  static constexpr auto reactors() {
    return std::tuple{&Host::one, &Host::parts, &Host::several, &Host::other};
  }
  explicit Host(Name name, const Ptr<LedConfig>& led = nullptr, Ptr<Nested>* keep = nullptr) : Plain(name) {
    if (!led) return;
    one.make(*this, led);
    *keep = several.watch("led", *this, led);
    throw std::runtime_error("no host");
  }
  void changed(const std::string& led) {
    lines.push_back("changed " + led);
    reach("handler", this);
    lines.push_back("handled " + name().stdString());  // must still be alive
  }

  Zel::Slot<Nested> one, other, unnamed;
  Zel::SlotMap<Nested> several;
  Zel::PtrMap<Host> parts;
};

void Nested::onLightSetting() { notifyOwner(&Host::changed, text()); }
bool Nested::follows(bool zombie) const { return owner() && owner()->zelIsZombie() == zombie; }
void Nested::hasNotificationActiveIs(bool active) {
  NestedReactor::hasNotificationActiveIs(active);
  const bool early = owner() && owner()->hasNotificationActive() != active;
  lines.push_back(text() + (active ? " on" : " off") + (early ? " before its owner" : ""));
}

static_assert(sizeof(Zel::Slot<Nested>) == sizeof(Ptr<Nested>));
static_assert(sizeof(Zel::SlotMap<Nested>) == sizeof(Zel::PtrMap<Nested>));

class Slots : public testing::Test {
 protected:
  Slots() {
    sabotage.clear();
    fill();
    lines.clear();
  }
  ~Slots() override { sabotage.clear(); }

  void fill() {
    host = Zel::allocate<Host>("host");
    host->one.make(*host, a);
    host->other.watch(*host, b);
    host->several.watch("a", *host, a);
    host->several.watch("b", *host, b);
  }
  void change() {
    for (const auto& led : {a, b}) led->lightSettingIs({.flashInterval = interval += 1});
  }
  static Lines take() { return std::exchange(lines, {}); }
  static std::size_t reactors() { return Nested::typeNode().allocations().objects(); }

  Zel::ActivityManager manager;
  double interval = 0;
  Ptr<LedConfig> a = Zel::allocate<LedConfig>("a"), b = Zel::allocate<LedConfig>("b");
  Ptr<Host> host;
};

TEST_F(Slots, AnOwnerSwitchesItsReactorsAfterItselfAndRetiresThemBeforeItself) {
  host->parts.insert("part", Zel::allocate<Host>(""));
  host->hasNotificationActiveIs(false);
  EXPECT_EQ(take(), (Lines{"a off", "a off", "b off", "b off"}));
  EXPECT_FALSE(host->parts.get("part")->hasNotificationActive());
  host->hasNotificationActiveIs(false);
  host->zelDoZombieReactors(false);
  EXPECT_EQ(take(), Lines{}) << "as it was already";
  host->zelDoZombieReactors(true);
  EXPECT_EQ(take(), (Lines{"a retired", "a retired", "b retired", "b retired"}));
  EXPECT_FALSE(host->parts.get("part")->zelIsZombie());
}

TEST_F(Slots, ARemovedReactorIsRetiredThenDetachedAndUnregistered) {
  const std::pair<Act, std::function<Nested*(Host&)>> ways[] = {
      {[](Host& owner) { owner.one.clear(); }, [](Host& owner) { return owner.one.get(); }},
      {[](Host& owner) { owner.one.watch(owner, Ptr<LedConfig>()); },
       [](Host& owner) { return owner.one.get(); }},
      {[this](Host& owner) { owner.one.make(owner, b); }, [](Host& owner) { return owner.one.get(); }},
      {[](Host& owner) { owner.several.remove("a"); }, [](Host& owner) { return owner.several.get("a"); }},
      {[](Host& owner) { owner.several.watch("a", owner, Ptr<LedConfig>()); },
       [](Host& owner) { return owner.several.get("a"); }},
      {[this](Host&) { host = nullptr; }, [](Host& owner) { return owner.other.get(); }},
  };
  for (const auto& [leave, where] : ways) {
    if (!host->several.get("a")) host->several.watch("a", *host, a);
    host->one.watch(*host, a);
    const Ptr<Nested> held(where(*host));
    const std::string text = held->text();
    change();  // is pending when it leaves
    lines.clear();
    leave(*host);
    EXPECT_NE(std::ranges::find(lines, text + " retired"), lines.end()) << "its owner was there still";
    EXPECT_TRUE(held->zelIsZombie() && !held->owner() && !held->isRegisteredNotifiee());
    EXPECT_TRUE(held->notifier()) << "it keeps its notifier";
    if (host) host->one.clear(), host->other.clear(), host->several.remove("a"), host->several.remove("b");
    lines.clear();
    manager.step();
    EXPECT_EQ(lines, Lines{});
    if (host) host->other.watch(*host, b);
  }
}

// At every moment of a reactor: no use after free, and nothing leaks.
TEST_F(Slots, AReactorMayDoAnythingAtAnyTime) {
  const Act acts[] = {
      [](Host& owner) { owner.one.clear(); },
      [](Host& owner) { owner.other.clear(); },
      [this](Host& owner) { owner.one.watch(owner, b); },
      [this](Host& owner) { owner.one.make(owner, a), owner.other.make(owner, a); },
      [](Host& owner) { owner.several.remove("a"), owner.several.remove("b"); },
      [this](Host& owner) { owner.several.watch("a", owner, b), owner.several.watch("c", owner, a); },
      [](Host& owner) { owner.zelDoZombieReactors(true); },
      [](Host& owner) { owner.hasNotificationActiveIs(false); },
      [this](Host&) { host = nullptr; },
      [this](Host&) { host = nullptr, a = nullptr, b = nullptr; },
  };
  for (const std::string moment : {"handler", "hook", "made", "pointed", "retired", "retired with the owner"})
    for (const Act& act : acts) {
      a = Zel::allocate<LedConfig>("a"), b = Zel::allocate<LedConfig>("b");
      fill();
      sabotage[moment.substr(0, moment.find(' '))] = act;
      if (moment.ends_with("owner")) host->zelDoZombieReactors(true);
      if (a) a->lightSettingIs({.flashInterval = interval += 1});
      if (host) host->several.watch("c", *host, b);  // each may be the end of the host
      if (host) host->one.make(*host, b);
      if (host) host->other.watch(*host, a);
      manager.step();
      if (host) host->one.clear();
      if (host) change(), manager.step();
      EXPECT_TRUE(sabotage.empty()) << moment;
      host = nullptr;
      EXPECT_EQ(reactors(), 0U) << moment;
      EXPECT_EQ(Host::typeNode().allocations().objects(), 0U) << moment;
    }
}

TEST_F(Slots, AnExceptionLeavesTheSlotUnchangedAndNoReactorWithADeadOwner) {
  const Act fail = [](Host&) { throw std::runtime_error("it broke"); };
  const auto before = host->one.get();
  for (const Act& act : {Act([this](Host& owner) { owner.one.make(owner, b); }),
                         Act([this](Host& owner) { owner.several.watch("c", owner, b); })}) {
    sabotage["made"] = fail;
    EXPECT_THROW(act(*host), std::runtime_error);
  }
  EXPECT_TRUE(host->one.get() == before && host->several.size() == 2 && reactors() == 4);

  const Ptr<Nested> held(before);
  sabotage["retired"] = fail;
  EXPECT_THROW(host->one.clear(), std::runtime_error);
  EXPECT_TRUE(!host->one && !held->owner() && !held->isRegisteredNotifiee());

  Ptr<Nested> kept;
  EXPECT_THROW(Zel::allocate<Host>("half made", a, &kept), std::runtime_error);
  EXPECT_TRUE(kept && !kept->owner() && kept->zelIsZombie());
  EXPECT_EQ(lines.back(), "a retired without owner");
}

TEST_F(Slots, ASlotThatItsOwnerDoesNotNameIsABug) {
  EXPECT_DEATH(host->unnamed.make(*host, a), "Test::Host::reactors\\(\\) leaves out a slot of Test::Nested");
}

}  // namespace
