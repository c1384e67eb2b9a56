// Notification cases that the model (notifymodel_test.cpp) leaves out: equal values, hooks, faults, and the
// activity manager itself. Raw reactors are tested in tests/agent.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <optional>

#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Hardware::Gpio::GpioLedSystemConfigDir;
using Hardware::Led::LedConfig;
using Support::Lines;
using Zel::Name;
using Zel::Ptr;

Led::LightSetting setting(double interval) { return {.flashInterval = interval}; }

// Logs its notifications; throws on a change of the mode.
struct Spy : Zel::Reactor<Spy, LedConfig::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Spy";
  Spy(const Ptr<const LedConfig>& led, Lines& log) : Reactor(led), lines(log) {}
  void onLightSetting() override { lines.push_back("lightSetting"); }
  void onCurrentMode() override { throw std::runtime_error("it broke"); }
  Lines& lines;
};

class Notification : public testing::Test {
 protected:
  Lines step() {
    manager.step();
    return std::exchange(lines, {});
  }

  Zel::System::ManualTime time{1.0};
  Zel::ActivityManager manager;
  Lines lines;
  Ptr<LedConfig> led = Zel::allocate<LedConfig>("Status");
};

TEST_F(Notification, AnEqualValueIsSilent) {
  const auto spy = Zel::allocate<Spy>(led, lines);
  led->lightSettingIs(led->lightSetting());
  led->modeIs(Zel::NameSet{});
  EXPECT_FALSE(led->modeDel("none"));
  led->lightSettingIs(setting(std::nan("")));
  EXPECT_EQ(step(), Lines{"lightSetting"});
  led->lightSettingIs(setting(std::nan("")));
  EXPECT_EQ(step(), Lines{});
}

TEST_F(Notification, AHandlerThatChangesItsOwnEntityForeverDoesNotHoldUpThePass) {
  int count = 0;
  const auto restless = Zel::allocate<Support::Watcher>(
      led, [&](const std::string&, Name) { led->lightSettingIs(setting(++count)); });
  led->lightSettingIs(setting(-1));
  EXPECT_LE(manager.step(), time.now()) << "work is left";
  EXPECT_GT(count, 1);
  restless->zelDoZombieReactors(true);
  EXPECT_EQ(manager.step(), Zel::Clock::kNever);
}

// The immediate hook runs inside the mutation: for a plain attribute, and for a collection only if it is
// replaced as a whole.
struct Hooked : Zel::Reactor<Hooked, GpioLedSystemConfigDir::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Hooked";
  Hooked(const Ptr<const GpioLedSystemConfigDir>& dir, Lines& log) : Reactor(dir), lines(log) {}
  void onGpioLeds(Name name) override { lines.push_back("key " + name.stdString()); }
  void onGpioLedszelImmediate() override {
    lines.push_back("immediate " + std::to_string(notifier()->gpioLeds().size()));
  }
  void onGpioLeds() override { lines.push_back("whole"); }
  Lines& lines;
};

TEST_F(Notification, TheImmediateHookRunsForAWholeCollectionAndNotForAKey) {
  const auto dir = Zel::allocate<GpioLedSystemConfigDir>("map");
  const auto hooked = Zel::allocate<Hooked>(dir, lines);
  dir->gpioLedsIs(Name("a"));
  EXPECT_EQ(lines, Lines{});
  EXPECT_EQ(step(), Lines{"key a"});
  dir->gpioLedsIs(
      {Zel::allocate<Hardware::Gpio::GpioLedConfig>("b"), Zel::allocate<Hardware::Gpio::GpioLedConfig>("c")});
  EXPECT_EQ(std::exchange(lines, {}), Lines{"immediate 2"});
  dir->gpioLedsIs(std::vector<Ptr<Hardware::Gpio::GpioLedConfig>>());
  EXPECT_EQ(std::exchange(lines, {}), Lines{"immediate 0"});
  EXPECT_EQ(step(), Lines{"whole"});
  dir->gpioLedsIs(std::vector<Ptr<Hardware::Gpio::GpioLedConfig>>());
  EXPECT_EQ(lines, Lines{}) << "an empty collection does not change";
}

struct Impatient : Zel::Reactor<Impatient, LedConfig::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Impatient";
  Impatient(const Ptr<const LedConfig>& watched, Ptr<Impatient>& other) : Reactor(watched), victim(other) {}
  void onLightSettingzelImmediate() override { ++notified, victim = nullptr; }
  Ptr<Impatient>& victim;
  int notified = 0;
};

TEST_F(Notification, ImmediateHooksMayDetachOneAnother) {
  Ptr<Impatient> a, b;
  a = Zel::allocate<Impatient>(led, b);
  b = Zel::allocate<Impatient>(led, a);
  led->lightSettingIs(setting(1));
  ASSERT_TRUE(a && !b);
  EXPECT_EQ(a->notified, 1);
}

TEST_F(Notification, AFaultNamesTheAgentTheReactorAndTheText) {
  const Zel::ActivityManager::AgentScope scope("Agent7");
  const auto spy = Zel::allocate<Spy>(led, lines);
  led->currentModeIs("m");
  EXPECT_EQ(Support::errorOf<Zel::HandlerFault>([this] { return manager.step(); }),
            "agent 'Agent7', reactor Test::Spy of <Hardware::Led::LedConfig Status>: it broke");
}

TEST(ActivityManager, TheLatestRemainingOneIsCurrent) {
  std::array<std::optional<Zel::ActivityManager>, 4> managers;
  for (auto& manager : managers) manager.emplace();
  const auto led = Zel::allocate<LedConfig>("Status");
  Lines lines;
  const auto spy = Zel::allocate<Spy>(led, lines);
  led->lightSettingIs(setting(1));
  for (const auto& [destroyed, current] : {std::pair{1, 3}, {3, 2}, {2, 0}}) {
    managers[static_cast<std::size_t>(destroyed)].reset();
    EXPECT_EQ(&Zel::ActivityManager::current(), &*managers[static_cast<std::size_t>(current)]);
  }
  led->currentModeIs("m");
  EXPECT_THROW(managers[0]->step(), Zel::HandlerFault);
  EXPECT_EQ(lines, Lines{}) << "pending notifications end with their manager";
}

struct End : Zel::PassEnd {
  void onPassEnd() override {
    ++ran;
    if (then) then();
  }
  int ran = 0;
  std::function<void()> then;
};

TEST_F(Notification, PassEndsMayAddAndRemoveOneAnother) {
  End a, b, c;
  manager.passEndDel(a);  // not there
  for (End* const end : {&a, &a, &b}) manager.passEndIs(*end);
  a.then = [&] {
    manager.passEndDel(a);
    manager.passEndDel(b);
    manager.passEndIs(c);
  };
  manager.step();
  EXPECT_EQ(a.ran + b.ran + c.ran, 1);
  manager.step();
  EXPECT_EQ(a.ran + c.ran, 2);
}

TEST_F(Notification, PostedTasksRunInOrderAlsoAfterOneThrows) {
  Lines ran;
  manager.post([&] {
    ran.push_back("1");
    throw std::runtime_error("it broke");
  });
  manager.post([&] {
    ran.push_back("2");
    manager.post([&] { ran.push_back("3"); });
  });
  EXPECT_THROW(manager.step(), std::runtime_error);
  EXPECT_LE(manager.nextWakeUp(), time.now());
  EXPECT_LE(manager.step(), time.now());
  EXPECT_EQ(ran, (Lines{"1", "2"}));
  manager.step();
  EXPECT_EQ(ran, (Lines{"1", "2", "3"}));
}

}  // namespace
