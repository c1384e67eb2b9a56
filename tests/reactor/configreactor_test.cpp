// The configuration reactor's refusals, and what a hook on a pin may do. The rest is compared with a model in
// random_test.cpp.
#include "reactor/configreactor.h"

#include "tests/statemachine/bench.h"

namespace {

using Bench::Lines;
using Bench::setting;
using Hardware::Gpio::GpioLedConfig;
using Pinlamp::ConfigReactor;
using Pinlamp::GpioLedStateMachine;
using Zel::Ptr;

class Configuration : public Bench::Test {
 protected:
  // A ready mapping of a green pin "X.g", a red one "X.r" and an orange one "X.o".
  Ptr<GpioLedConfig> mapping(const std::string& name) {
    auto result = Zel::allocate<GpioLedConfig>(name);
    result->gpioGreenNameIs(Zel::Name(name + ".g"), false);
    result->gpioRedNameIs(Zel::Name(name + ".r"), true);
    result->gpioOrangeNameIs(Zel::Name(name + ".o"), true);
    result->readyIs(true);
    return result;
  }
  Ptr<ConfigReactor> start() { return reactor = ConfigReactor::ConfigReactorIs(mappings, leds, pins); }
  Ptr<GpioLedStateMachine> machine(const char* name) { return reactor->gpioLedStateMachine().find(name); }
  std::string faultOfStep() {
    return Support::errorOf<Zel::HandlerFault>([this] { return manager.step(); });
  }

  Ptr<Hardware::Gpio::GpioLedSystemConfigDir> mappings =
      Zel::allocate<Hardware::Gpio::GpioLedSystemConfigDir>("led");
  Ptr<Hardware::Led::LedSystemConfigDir> leds = Zel::allocate<Hardware::Led::LedSystemConfigDir>("config");
  Ptr<Zel::Dir> pins = Zel::allocate<Zel::Dir>("pins");
  Ptr<ConfigReactor> reactor;
};

TEST_F(Configuration, AnLedThatIsSwappedInOneStepIsRefused) {
  mappings->gpioLedsIs(mapping("A"));
  const auto old = leds->ledsIs("A");
  start();
  const auto first = machine("A");
  const auto swapped = Zel::allocate<Hardware::Led::LedConfig>("A");
  leds->ledsIs(swapped);
  EXPECT_TRUE(old->zelIsGone() && !old->parent() && !swapped->zelIsGone());
  EXPECT_TRUE(faultOfStep().ends_with(
      "Reinstantiating the pointer interface where constructor parameter attribute _hwLedConfig has a "
      "different value of " +
      Zel::valueToStrepOfRawPtr(swapped.get()).stdString() + " than the current value of " +
      Zel::valueToStrepOfRawPtr(old.get()).stdString() + " not allowed"));
  EXPECT_EQ(machine("A"), first);
  leds->ledsDel("A");
  manager.step();
  leds->ledsIs(swapped);
  manager.step();
  EXPECT_TRUE(machine("A") && machine("A") != first);
  EXPECT_NE(Support::errorOf<Zel::NameInUseException>([&] {
              return reactor->gpioLedStateMachineIs(nullptr, swapped);
            }).find("attribute _corvelGpioLedConfig has a different value of null than"),
            std::string::npos);
}

TEST_F(Configuration, RefusesWhatIsNoMappingOrNoPin) {
  start();
  EXPECT_EQ(Support::errorOf<Zel::RangeException>([this] { return reactor->gpioLedConfigIs(nullptr); }),
            "null _gpioLedConfig parameter to mutator for Pinlamp::ConfigReactor::gpioLedConfig "
            "not allowed\"");
  pins->entryIs("A.g", "Zel::Dir");
  mappings->gpioLedsIs(mapping("A"));
  EXPECT_NE(faultOfStep().find(": null ValidPtr ("), std::string::npos);

  reactor = ConfigReactor::ConfigReactorIs(nullptr, leds, nullptr);
  reactor->corvelLedSystemConfig()->gpioLedsIs("B")->gpioRedIs(Zel::allocate<Bench::CorvelPinConfig>("B.r"));
  EXPECT_DEATH(reactor->handleGpioConfigCleanup("B"), "`gpioPinConfigDir_' failed");
}

TEST_F(Configuration, AHookOnAPinMayAskForTheLedWhoseMachineIsBeingMade) {
  const std::function<void()> asks[] = {
      [&] { reactor->createDriver("A"); },
      [&] {
        EXPECT_EQ(
            reactor->gpioLedStateMachineIs(reactor->corvelLedSystemConfig()->gpioLeds("A"), leds->leds("A")),
            nullptr);
      },
      [&] { reactor->gpioLedConfigIs(mappings->gpioLeds("A")); },
      [&] { mappings->gpioLedsIs(std::vector{mappings->gpioLeds("A")}); },
  };
  start();
  leds->ledsIs("A")->lightSettingIs(setting("red"));
  for (const auto& ask : asks) {
    spy(Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entryIs("A.r", "Hardware::Gpio::CorvelPinConfig")))
        ->act = [&] {
      if (!machine("A")) ask();
    };
    mappings->gpioLedsIs(mapping("A"));
    manager.step();
    EXPECT_EQ(takeWrites(), Lines{"A.r=1"});
    EXPECT_EQ(GpioLedStateMachine::typeNode().allocations().objects(), 1U);
    EXPECT_NE(machine("A"), nullptr);
    EXPECT_EQ(reactor->gpioLedConfig().size(), 1U);
    mappings->gpioLedsDel("A");
    manager.step();
  }
  spy(Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entryIs("A.r", "Hardware::Gpio::CorvelPinConfig")))
      ->act = [&] { reactor->handleGpioConfigCleanup("A"); };
  mappings->gpioLedsIs(mapping("A"));
  manager.step();
  EXPECT_EQ(machine("A"), nullptr) << "its pins went while it was made";
}

TEST_F(Configuration, AHookOnAPinMayDropTheMachine) {
  mappings->gpioLedsIs(mapping("A"));
  leds->ledsIs("A");
  start();
  spy(Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entityRef("A.r")))->act = [this] {
    reactor = nullptr;
  };
  leds->leds("A")->lightSettingIs(setting("red orange"));
  manager.step();
  EXPECT_EQ(takeWrites(), Lines{"A.r=1"});
  EXPECT_TRUE(pins->entries().empty());
}

}  // namespace
