// The notification contract, and those who try to break it.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "platform/model/hardwaregpio.h"
#include "platform/model/hardwareled.h"
#include "platform/zel/activity.h"

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

// Logs what it hears, then does what its test wants.
class Spy : public Zel::Reactor<Spy, LedConfig::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::Spy";
  Spy(const Ptr<const LedConfig>& led, std::string name, Lines& lines)
      : Reactor(led), name_(std::move(name)), lines_(lines) {}

  void onLightSetting() override { hear("lightSetting"); }
  void onTheme() override { hear("theme"); }
  void onMode(Name mode) override { hear("mode " + mode.stdString()); }
  void onMode() override { hear("modes"); }

  std::function<void()> crime;

 private:
  void hear(const std::string& what) {
    lines_.push_back(name_ + ": " + what);
    if (const auto act = std::exchange(crime, nullptr)) act();
  }
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

TEST_F(Notification, PilesUpAndComesLaterInTheOrderOfFirstMarking) {
  const auto a = spy("a");
  const auto b = spy("b");
  b->isRegisteredNotifieeIs(false);
  led->themeIs("blue");
  b->isRegisteredNotifieeIs(true);
  led->lightSettingIs(setting(1));
  led->lightSettingIs(setting(2));
  led->themeIs("red");
  EXPECT_EQ(lines, Lines{});
  EXPECT_EQ(step(), (Lines{"a: lightSetting", "a: theme", "b: lightSetting", "b: theme"}));
  EXPECT_EQ(step(), Lines{});
}

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

TEST_F(Notification, OneKeyIsAnnouncedByItselfAndTheWholeAsTheWhole) {
  const auto a = spy("a");
  led->modeIs("x", true);
  led->modeIs("y", true);
  led->modeIs("x", false);
  EXPECT_EQ(step(), (Lines{"a: mode x", "a: mode y"}));
  led->modeIs(Zel::NameSet{"z"});
  EXPECT_EQ(step(), Lines{"a: modes"});
  for (int i = 0; i < 100; ++i) led->modeIs("k" + std::to_string(i % 50), i < 50);
  EXPECT_EQ(step().size(), 50U);
}

// Each saboteur is the first of three to hear of a change, or acts before any of them; `heard` is what the
// others still hear.
TEST_F(Notification, Saboteurs) {
  Ptr<Spy> first;
  Ptr<Spy> second;
  Ptr<Spy> third;
  const Ptr<LedConfig> another = Zel::allocate<LedConfig>("Another");
  const Ptr<LedSystemConfigDir> dir = Zel::allocate<LedSystemConfigDir>("leds");
  const struct {
    const char* crime;
    std::function<void()> act;
    Lines heard;
  } cases[] = {
      {"removes itself", [&] { first = nullptr; }, {"2: lightSetting", "3: lightSetting"}},
      {"removes another", [&] { second = nullptr; }, {"3: lightSetting"}},
      {"removes all", [&] { first = second = third = nullptr; }, {}},
      {"retires another", [&] { second->zelDoZombieReactors(true); }, {"3: lightSetting"}},
      {"switches another off and on",
       [&] {
         second->hasNotificationActiveIs(false);
         second->hasNotificationActiveIs(true);
       },
       {"3: lightSetting"}},
      {"unregisters another", [&] { third->isRegisteredNotifieeIs(false); }, {"2: lightSetting"}},
      {"re-points another", [&] { second->notifierIs(another); }, {"3: lightSetting"}},
      {"points another at what it can't watch", [&] { second->notifierIs(dir); }, {"3: lightSetting"}},
      {"changes the entity again",
       [&] { led->lightSettingIs(setting(99)); },
       {"2: lightSetting", "3: lightSetting", "1: lightSetting"}},
      {"adds one",
       [&] {
         auto late = spy("late");
         led->themeIs("late");
         third = late;
       },
       {"2: lightSetting", "2: theme", "1: theme", "late: theme"}},
      {"drops the last pointers",
       [&] {
         first = second = third = nullptr;
         led = nullptr;
       },
       {}},
      {"takes the entity out of its collection", [&] { dir->ledsDel("Status"); }, {}},
  };
  for (const auto& [crime, act, heard] : cases) {
    led = dir->ledsIs(Name("Status"));
    first = spy("1");
    second = spy("2");
    third = spy("3");
    first->crime = act;
    led->lightSettingIs(setting(led->lightSetting().flashInterval + 1));
    Lines expected{"1: lightSetting"};
    expected.insert(expected.end(), heard.begin(), heard.end());
    EXPECT_EQ(step(), expected) << crime;
    first = second = third = nullptr;
    dir->ledsDelAll();
    step();
  }
}

TEST_F(Notification, ZombiesAreRevivedWithoutWhatTheyMissed) {
  const auto a = spy("a");
  led->themeIs("x");
  a->zelDoZombieReactors(true);
  led->lightSettingIs(setting(1));
  a->zelDoZombieReactors(false);
  EXPECT_EQ(step(), Lines{});
  led->lightSettingIs(setting(2));
  EXPECT_EQ(step(), Lines{"a: lightSetting"});
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
    const auto& row = static_cast<const Zel::Notifier*>(notifierBase())->fwkType().attribute(index);
    lines.push_back(row.name + std::string(key.empty() ? "" : " ") + key.stdString());
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
  const auto b = spy("b");
  a->crime = [] { throw std::runtime_error("it broke"); };
  led->lightSettingIs(setting(1));
  try {
    manager.step();
    FAIL();
  } catch (const Zel::HandlerFault& fault) {
    EXPECT_STREQ(fault.what(),
                 "agent 'Agent7', reactor Test::Spy of <Hardware::Led::LedConfig Status>: it broke");
  }
  lines.clear();
  EXPECT_EQ(step(), Lines{"b: lightSetting"}) << "what was not delivered stays pending";
}

}  // namespace
