// From light settings and time to pin values.
#include "statemachine/gpioledstatemachine.h"

#include <cmath>
#include <cstdlib>
#include <new>

#include "tests/statemachine/bench.h"

namespace {
std::size_t allocations = 0;
}
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using Bench::Lines;
using Bench::setting;
using Pinlamp::GpioLedStateMachine;
using Zel::Ptr;

class StateMachine : public Bench::Test {
 protected:
  StateMachine() {
    pins->gpioYellowIs(pin("Y"));
    pins->gpioGreenIs(pin("G"));
    pins->gpioRedIs(pin("R"));
    pins->gpioOrangeIs(pin("O"));
  }
  Ptr<Bench::CorvelPinConfig> pin(const char* name, std::uint32_t value = 0) {
    const auto result = Zel::allocate<Bench::CorvelPinConfig>(name);
    result->valueIs(value);
    spy(result);
    return result;
  }
  void start(const Led::LightSetting& light) {
    led->lightSettingIs(light);
    machine = GpioLedStateMachine::GpioLedStateMachineIs(pins, led);
  }
  Lines set(const Led::LightSetting& light) {
    led->lightSettingIs(light);
    return stepTo(time.now());
  }

  Ptr<Bench::CorvelGpioLedSystemConfigDir> system =
      Zel::allocate<Bench::CorvelGpioLedSystemConfigDir>("ledSystem");
  Ptr<Hardware::Gpio::CorvelGpioLedConfig> pins = system->gpioLedsIs("Fan1");
  Ptr<Bench::LedConfig> led = Zel::allocate<Bench::LedConfig>("Fan1");
  Ptr<GpioLedStateMachine> machine;
};

TEST_F(StateMachine, ASteadySettingDarkensEveryColourAndThenLightsThoseThatAreSet) {
  start(setting("yellow green red orange"));
  EXPECT_EQ(takeWrites(), (Lines{"Y=1", "G=1", "R=1", "O=1"}));
  const struct {
    Led::LightSetting light;
    Lines writes;
  } cases[] = {
      {setting("orange red"), {"Y=0", "G=0", "R=0", "O=0", "R=1", "O=1"}},
      {setting("red"), {"R=0", "O=0", "R=1"}},
      {setting("yellow green"), {"R=0", "Y=1", "G=1"}},
      {setting("orange"), {"Y=0", "G=0", "O=1"}},
      {setting(""), {"O=0"}},
  };
  for (const auto& [light, expected] : cases) EXPECT_EQ(set(light), expected) << light;
}

TEST_F(StateMachine, FlashingWaitsOneIntervalAndThenTogglesAtIt) {
  start(setting("green"));
  EXPECT_EQ(takeWrites(), Lines{"G=1"});
  EXPECT_EQ(set(setting("red", 0.5)), Lines{});
  EXPECT_EQ(machine->wakeUp(), 10.5);
  EXPECT_EQ(stepTo(10.4), Lines{});
  EXPECT_EQ(stepTo(10.5), (Lines{"G=0", "R=1"}));
  EXPECT_EQ(stepTo(11.0), Lines{"R=0"});
  // A setting moves no wake-up; its colours and interval show at the next one.
  time.nowIs(11.2);
  EXPECT_EQ(set(setting("green yellow", 2.0)), Lines{});
  EXPECT_EQ(stepTo(11.5), (Lines{"Y=1", "G=1"}));
  // A late wake-up shifts those after it, and so does the time that writing takes.
  spies[0]->act = [this] { time.nowIs(14.25); };
  EXPECT_EQ(stepTo(14.0), (Lines{"Y=0", "G=0"}));
  EXPECT_EQ(machine->wakeUp(), 16.25);
}

TEST_F(StateMachine, ThePhaseIsKeptFromOneFlashingPeriodToTheNext) {
  start(setting("red", 1.0));
  EXPECT_EQ(stepTo(11.0), Lines{"R=1"});
  EXPECT_EQ(set(setting("green")), (Lines{"R=0", "G=1"}));
  EXPECT_EQ(stepTo(12.0), Lines{});  // the stopping wake-up toggles, and writes nothing
  EXPECT_FALSE(machine->flashingState());
  EXPECT_EQ(machine->wakeUp(), Zel::Clock::kNever);
  EXPECT_EQ(set(setting("red", 1.0)), Lines{});
  EXPECT_EQ(stepTo(13.0), (Lines{"G=0", "R=1"}));
  set(setting(""));
  set(setting("red", 1.0));  // flashing again before the wake-up: it is still the same period
  EXPECT_EQ(stepTo(14.0), Lines{});
  set(setting(""));
  stepTo(15.0);
  ASSERT_TRUE(machine->flashingState());
  set(setting("red", 1.0));
  EXPECT_EQ(stepTo(16.0), Lines{});  // begins with a dark phase
  EXPECT_EQ(stepTo(17.0), Lines{"R=1"});
}

TEST_F(StateMachine, AnIntervalThatIsNoNumberNeitherShowsNorWakes) {
  start(setting("red", std::nan("")));
  EXPECT_EQ(machine->wakeUp(), Zel::Clock::kNever);
  EXPECT_EQ(stepTo(1e6), Lines{});
}

TEST_F(StateMachine, TracesWhatItDoesToTheLetter) {
  Zel::traceLevelsIs("Pinlamp/6-9");
  start(setting("red", 0.5));
  const std::string config = "Config: <Hardware::Gpio::CorvelGpioLedSystemConfigDir ledSystem>";
  EXPECT_EQ(
      takeMessages(),
      (Lines{"6 handleInitialized: handleInitialized for Fan1", "7 handleHwLedConfig: handleHwLedConfig Fan1",
             "8 handleLedSystemConfig: handleLedSystemConfig Fan1 {red, flash 0.5 s}" + config}));
  stepTo(10.5);
  EXPECT_EQ(takeMessages(), (Lines{"8 handleClockTimeout: handleClockTimeout for Fan1",
                                   "8 handleClockTimeout: Led Fan1 is now 1",
                                   "9 handleCorvelGpioYellow: handleCorvelGpioYellow Fan1",
                                   "9 handleCorvelGpioGreen: handleCorvelGpioGreen Fan1",
                                   "9 handleCorvelGpioRed: handleCorvelGpioRed Fan1",
                                   "9 handleCorvelGpioOrange: handleCorvelGpioOrange Fan1",
                                   "9 handleCorvelGpioRed: handleCorvelGpioRed Fan1",
                                   "6 handleCorvelGpioRed: Corvel Red Pin: R  OldValue: 0 NewValue: 1"}));
  machine->handleInitialized();
  EXPECT_EQ(takeMessages(), Lines{"6 handleInitialized: handleInitialized for Fan1"});
}

TEST_F(StateMachine, AWriterChangesThePinsOfItsColourThatHaveAnotherValue) {
  start(setting(""));
  Zel::traceLevelsIs("Pinlamp/6");
  const auto other = Zel::allocate<Hardware::Gpio::CorvelGpioLedConfig>("Fan2");
  using Add = void (Hardware::Gpio::CorvelGpioLedConfig::*)(const Ptr<Bench::CorvelPinConfig>&);
  using Write = void (GpioLedStateMachine::*)(const Ptr<Hardware::Gpio::CorvelGpioLedConfig>&, Pinlamp::U32);
  using C = Hardware::Gpio::CorvelGpioLedConfig;
  using M = GpioLedStateMachine;
  const struct {
    const char* colour;
    Add add;
    Write write;
  } cases[] = {{"Yellow", &C::gpioYellowIs, &M::handleCorvelGpioYellow},
               {"Green", &C::gpioGreenIs, &M::handleCorvelGpioGreen},
               {"Red", &C::gpioRedIs, &M::handleCorvelGpioRed},
               {"Orange", &C::gpioOrangeIs, &M::handleCorvelGpioOrange}};
  for (const auto& [colour, add, write] : cases) {
    (*machine.*write)(other, 7);  // no pins yet
    (*other.*add)(pin("a", 3));
    (*other.*add)(pin("b", 4000000000U));
    takeWrites();
    (*machine.*write)(other, 3);
    (*machine.*write)(other, 3);
    EXPECT_EQ(takeWrites(), Lines{"b=3"});
    const std::string prefix = std::string("6 handleCorvelGpio") + colour + ": Corvel " + colour;
    EXPECT_EQ(takeMessages(), Lines{prefix + " Pin: b  OldValue: 4000000000 NewValue: 3"});
  }
}

TEST_F(StateMachine, NothingIsAppliedWithoutAnLedOrBeforeStartUp) {
  machine = GpioLedStateMachine::GpioLedStateMachineIs(pins, nullptr);
  EXPECT_TRUE(machine->initialized() && machine->clock() && machine->name().empty());
  led->lightSettingIs(setting("red"));
  machine->hwLedConfigIs(led);
  machine->hwLedConfigIs(led);
  EXPECT_EQ(stepTo(11.0), Lines{});
  EXPECT_EQ(set(setting("green")), Lines{"G=1"});
  machine->initializedIs(false);
  EXPECT_EQ(set(setting("red")), Lines{});
  machine->handleClockTimeout();
  EXPECT_FALSE(machine->flashingState());
  machine->initializedIs(true);
  EXPECT_EQ(machine->hwLedConfigDel(), led);
  EXPECT_EQ(machine->hwLedConfigDel(), nullptr);
  EXPECT_EQ(set(setting("yellow")), Lines{});
}

TEST_F(StateMachine, GoesAwayQuietlyAlsoWhileItWrites) {
  start(setting("red", 1.0));
  machine = nullptr;
  EXPECT_EQ(stepTo(20.0), Lines{});
  EXPECT_EQ(manager.nextWakeUp(), Zel::Clock::kNever);
  start(setting("green"));
  takeWrites();
  spies[1]->act = [this] { machine = nullptr; };
  EXPECT_EQ(set(setting("red")), (Lines{"G=0", "R=1"}));
  EXPECT_EQ(set(setting("")), Lines{});
  EXPECT_EQ(GpioLedStateMachine::typeNode().allocations().objects(), 0U);
}

TEST_F(StateMachine, ListensToTheClockAndTheLedAsItIsTold) {
  start(setting("red", 1.0));
  const auto otherClock = Zel::allocate<Zel::Clock>();
  machine->clockIs(otherClock);
  EXPECT_EQ(stepTo(11.0), Lines{});
  otherClock->advance(11.0);
  EXPECT_EQ(takeWrites(), Lines{"R=1"});
  machine->hasNotificationActiveIs(false);
  otherClock->advance(12.0);
  EXPECT_EQ(set(setting("green")), Lines{});
  machine->hasNotificationActiveIs(true);
  EXPECT_EQ(set(setting("green", 3.0)), Lines{});
  EXPECT_EQ(machine->clockDel(), otherClock);
  EXPECT_EQ(machine->clockDel(), nullptr);
  machine->clockIs(manager.clock());
  machine->zelDoZombieReactors(true);
  EXPECT_EQ(set(setting("yellow")), Lines{});
}

TEST_F(StateMachine, WakeUpsAndSettingsAllocateNothing) {
  spies.clear();
  start(setting("red", 1.0));
  set(setting("green", 1.0));  // the first change finds out that nobody wants it within the mutation
  const std::size_t before = allocations;
  for (int second = 11; second < 20; ++second) {
    time.nowIs(second);
    manager.step();
    led->lightSettingIs(setting(second % 3 == 0 ? "green" : "orange", second % 4 == 0 ? 0.0 : 1.0));
    manager.step();
  }
  EXPECT_EQ(allocations, before);
}

using StateMachineDeathTest = StateMachine;

TEST_F(StateMachineDeathTest, StopsWithoutPinsToFlashOrAClockToFlashBy) {
  pins = nullptr;
  start(setting("red"));
  EXPECT_EQ(set(setting("red", 1.0)), Lines{});
  EXPECT_DEATH(stepTo(11.0), "Pinlamp:[0-9]+: .*write.*Assertion `led' failed");
  machine->clockIs(nullptr);
  EXPECT_DEATH(machine->handleLedSystemConfig("Fan1", setting("red", 1.0)),
               "Pinlamp:[0-9]+: .*Assertion `clock_' failed");
  machine->hwLedConfigDel();
  EXPECT_DEATH(machine->handleClockTimeout(), "Assertion `hwLedConfig_' failed");
  manager.clockIs(nullptr);
  EXPECT_DEATH(start(setting("")), "Assertion `clock_' failed");
}

}  // namespace
