// Notification beyond what its model checks (notifymodel_test.cpp): silence, hooks, raw reactors, faults, and
// the activity manager itself.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <optional>

#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/zel/notify/activity.h"

namespace {

using Hardware::Gpio::GpioLedSystemConfigDir;
using Hardware::Led::LedConfig;
using Hardware::Led::LedSystemConfigDir;
using Zel::Name;
using Zel::Ptr;

using Lines = std::vector<std::string>;

Led::LightSetting setting(double interval) {
  Led::LightSetting result;
  result.flashInterval = interval;
  return result;
}

// Logs what it is notified of; throws at a change of the mode.
class Spy : public Zel::Reactor<Spy, LedConfig::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::Spy";
  Spy(const Ptr<const LedConfig>& led, std::string name, Lines& lines)
      : Reactor(led), name_(std::move(name)), lines_(lines) {}

  void onLightSetting() override { lines_.push_back(name_ + ": lightSetting"); }
  void onCurrentMode() override { throw std::runtime_error("it broke"); }

 private:
  const std::string name_;
  Lines& lines_;
};

class Notification : public testing::Test {
 protected:
  Ptr<Spy> spy(const std::string& name) { return Zel::allocate<Spy>(led, name, lines); }
  Lines step() {
    manager.step();
    return std::exchange(lines, {});
  }

  Zel::System::ManualTime time{1.0};
  Zel::ActivityManager manager;
  Lines lines;
  Ptr<LedConfig> led = Zel::allocate<LedConfig>("Status");
};

TEST_F(Notification, AValueThatIsThereAlreadyIsSilent) {
  const auto a = spy("a");
  led->lightSettingIs(led->lightSetting());
  led->modeIs(Zel::NameSet{});
  EXPECT_FALSE(led->modeDel("none"));
  led->lightSettingIs(setting(std::nan("")));
  EXPECT_EQ(step(), Lines{"a: lightSetting"});
  led->lightSettingIs(setting(std::nan("")));
  EXPECT_EQ(step(), Lines{});
}

struct Restless : Zel::Reactor<Restless, LedConfig::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Restless";
  explicit Restless(LedConfig& watched) : Reactor(Ptr<const LedConfig>(&watched)), led(watched) {}
  void onLightSetting() override { led.lightSettingIs(setting(++count)); }
  LedConfig& led;
  int count = 0;
};

TEST_F(Notification, AHandlerThatChangesItsOwnEntityForeverDoesNotHoldUpThePass) {
  const auto restless = Zel::allocate<Restless>(*led);
  led->lightSettingIs(setting(-1));
  EXPECT_LE(manager.step(), time.now()) << "work is left";
  EXPECT_GT(restless->count, 1);
  restless->zelDoZombieReactors(true);
  EXPECT_EQ(manager.step(), Zel::Clock::kNever);
}

// The hook runs inside the mutation: for a plain attribute, and for a collection only where it changed as a
// whole.
class Hooked : public Zel::Reactor<Hooked, GpioLedSystemConfigDir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::Hooked";
  Hooked(const Ptr<const GpioLedSystemConfigDir>& dir, Lines& lines) : Reactor(dir), lines_(lines) {}
  void onGpioLeds(Name name) override { lines_.push_back("key " + name.stdString()); }
  void onGpioLedszelImmediate() override {
    lines_.push_back("immediate " + std::to_string(notifier()->gpioLeds().size()));
  }
  void onGpioLeds() override { lines_.push_back("whole"); }

 private:
  Lines& lines_;
};

TEST_F(Notification, TheImmediateHookAnnouncesTheWholeAndNoKey) {
  const auto dir = Zel::allocate<GpioLedSystemConfigDir>("map");
  const auto hooked = Zel::allocate<Hooked>(dir, lines);
  dir->gpioLedsIs(Name("a"));
  EXPECT_EQ(lines, Lines{});
  EXPECT_EQ(step(), Lines{"key a"});
  dir->gpioLedsIs(
      {Zel::allocate<Hardware::Gpio::GpioLedConfig>("b"), Zel::allocate<Hardware::Gpio::GpioLedConfig>("c")});
  EXPECT_EQ(std::exchange(lines, {}), Lines{"immediate 2"});
  dir->gpioLedsDelAll();
  EXPECT_EQ(std::exchange(lines, {}), Lines{"immediate 0"});
  EXPECT_EQ(step(), Lines{"whole"});
  dir->gpioLedsDelAll();
  EXPECT_EQ(lines, Lines{}) << "what is empty already does not change";
}

struct Impatient : Zel::Reactor<Impatient, LedConfig::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Impatient";
  Impatient(const Ptr<const LedConfig>& watched, Ptr<Impatient>& other) : Reactor(watched), victim(other) {}
  void onLightSettingzelImmediate() override {
    ++heard;
    victim = nullptr;
  }
  Ptr<Impatient>& victim;
  int heard = 0;
};

TEST_F(Notification, ImmediateHooksMayDetachOneAnother) {
  Ptr<Impatient> a;
  Ptr<Impatient> b;
  a = Zel::allocate<Impatient>(led, b);
  b = Zel::allocate<Impatient>(led, a);
  led->lightSettingIs(setting(1));
  ASSERT_TRUE(a);
  EXPECT_FALSE(b);
  EXPECT_EQ(a->heard, 1);
}

struct Raw : Zel::Reactor<Raw, Zel::RawNotifiee> {
  static constexpr const char* kTypeName = "Test::Raw";
  Raw(const Ptr<const Zel::PtrInterface>& watched, Lines& log) : lines(log) { notifierIs(watched); }
  void onRawAttribute(Zel::AttributeIndex index, Name key) override {
    const auto& attribute = static_cast<const Zel::Notifier*>(notifierBase())->fwkType().attribute(index);
    lines.push_back(attribute.name + std::string(key.empty() ? "" : " ") + key.stdString());
  }
  Lines& lines;
};

TEST_F(Notification, ARawReactorHearsEveryAttributeByItsIndex) {
  const auto onLed = Zel::allocate<Raw>(led, lines);
  const auto dir = Zel::allocate<Zel::Dir>("dir");
  const auto onDir = Zel::allocate<Raw>(dir, lines);
  led->modeIs("m", true);
  led->currentModeIs("m");
  dir->entryIs("e", "Zel::Dir");
  EXPECT_EQ(step(), (Lines{"currentMode", "mode m", "entries e"}));
}

TEST_F(Notification, AFaultNamesTheAgentTheReactorAndTheText) {
  const Zel::ActivityManager::AgentScope scope("Agent7");
  const auto a = spy("a");
  led->currentModeIs("m");
  try {
    manager.step();
    FAIL();
  } catch (const Zel::HandlerFault& fault) {
    EXPECT_STREQ(fault.what(),
                 "agent 'Agent7', reactor Test::Spy of <Hardware::Led::LedConfig Status>: it broke");
  }
}

TEST(ActivityManager, TheLatestThatIsLeftIsTheCurrentOne) {
  std::array<std::optional<Zel::ActivityManager>, 4> managers;
  for (auto& manager : managers) manager.emplace();
  const auto led = Zel::allocate<LedConfig>("Status");
  Lines lines;
  const auto spy = Zel::allocate<Spy>(led, "spy", lines);
  led->lightSettingIs(setting(1));
  for (const auto& [destroyed, current] : {std::pair{1, 3}, {3, 2}, {2, 0}}) {
    managers[static_cast<std::size_t>(destroyed)].reset();
    EXPECT_EQ(&Zel::ActivityManager::current(), &*managers[static_cast<std::size_t>(current)]);
  }
  led->currentModeIs("m");
  EXPECT_THROW(managers[0]->step(), Zel::HandlerFault);
  EXPECT_EQ(lines, Lines{}) << "what was pending went with its manager";
}

struct End : Zel::PassEnd {
  void onPassEnd() override {
    ++ran;
    if (then) then();
  }
  int ran = 0;
  std::function<void()> then;
};

TEST_F(Notification, EndsOfPassMayAddAndRemoveOneAnother) {
  End a;
  End b;
  End c;
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

TEST_F(Notification, PostedTasksRunAPassEachInTheirOrder) {
  Lines ran;
  manager.post([&] {
    ran.push_back("1");
    manager.post([&] { ran.push_back("3"); });
    throw std::runtime_error("it broke");
  });
  manager.post([&] { ran.push_back("2"); });
  EXPECT_THROW(manager.step(), std::runtime_error);
  EXPECT_LE(manager.nextWakeUp(), time.now());
  manager.step();
  EXPECT_EQ(ran, (Lines{"1", "2", "3"}));
}

}  // namespace
