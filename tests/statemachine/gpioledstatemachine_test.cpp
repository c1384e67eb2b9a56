// The machine's refusals, what a hook on a pin may do, and memory. The rest is compared with a model in
// random_test.cpp.
#include "statemachine/gpioledstatemachine.h"

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

TEST_F(StateMachine, ThePhaseBeginsWhenThePinsWereWritten) {
  start(setting("red", 0.5));
  spies[2]->act = [this] { time.nowIs(14.25); };
  EXPECT_EQ(stepTo(14.0), Lines{"R=1"});
  EXPECT_EQ(stepTo(14.7), Lines{});
  EXPECT_EQ(stepTo(14.75), Lines{"R=0"});
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

TEST_F(StateMachine, WakeUpsAndSettingsAllocateNothing) {
  spies.clear();
  start(setting("red", 1.0));
  set(setting("green", 1.0));  // the first change finds that no reactor has an immediate hook
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
  EXPECT_DEATH(machine->handleClockTimeout(), "Assertion `hwLedConfig, with wake-up");
  manager.clockIs(nullptr);
  EXPECT_DEATH(start(setting("")), "Assertion `clock_' failed");
}

}  // namespace
