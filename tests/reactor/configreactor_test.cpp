// From the two configuration directories to pins and state machines.
#include "reactor/configreactor.h"

#include "tests/statemachine/bench.h"

namespace {

using Bench::Lines;
using Bench::setting;
using Hardware::Gpio::GpioLedConfig;
using Pinlamp::ConfigReactor;
using Pinlamp::GpioLedStateMachine;
using Zel::Ptr;

const std::string kCreated = "9 Pinlamp:234 createDriver: Creating Gpio Led SM for ";
const std::string kDeleted = "9 Pinlamp:238 createDriver: Deleting Gpio Led SM for ";
const std::string kDecides = "9 Pinlamp:225 createDriver: createDriver ";
const std::string kReads = "9 Pinlamp:246 createLedConfig: createLedConfig ";
const std::string kCleans = "9 Pinlamp:302 handleGpioConfigCleanup: handleGpioConfigCleanup ";
std::string made(int line, const std::string& colour, const std::string& pin) {
  return "6 Pinlamp:" + std::to_string(line) + " createLedConfig: created " + colour + " pin '" + pin + "'";
}

// Logs which pins come and go.
class DirSpy : public Zel::Reactor<DirSpy, Zel::Dir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::DirSpy";
  DirSpy(const Ptr<const Zel::Dir>& dir, Lines& log) : Reactor(dir), log_(log) {}
  void onEntry(Zel::Name pin) override {
    log_.push_back((notifier()->entityRef(pin) ? "+" : "-") + pin.stdString());
  }

 private:
  Lines& log_;
};

class Configuration : public Bench::Test {
 protected:
  // A mapping of one pin each colour: "X.y", "X.g", "X.r", "X.o".
  Ptr<GpioLedConfig> mapping(const std::string& name, bool ready = true) {
    auto result = Zel::allocate<GpioLedConfig>(name);
    result->gpioYellowNameIs(Zel::Name(name + ".y"), true);
    result->gpioGreenNameIs(Zel::Name(name + ".g"), false);
    result->gpioRedNameIs(Zel::Name(name + ".r"), true);
    result->gpioOrangeNameIs(Zel::Name(name + ".o"), true);
    result->readyIs(ready);
    return result;
  }
  Ptr<ConfigReactor> start() { return reactor = ConfigReactor::ConfigReactorIs(mappings, leds, pins); }
  Lines step() {
    manager.step();
    return std::exchange(pinLog, {});
  }
  Ptr<GpioLedStateMachine> machine(const char* name) { return reactor->gpioLedStateMachine().find(name); }
  std::string faultOfStep() {
    try {
      step();
    } catch (const Zel::HandlerFault& fault) {
      return fault.text();
    }
    return "none";
  }

  Ptr<Hardware::Gpio::GpioLedSystemConfigDir> mappings =
      Zel::allocate<Hardware::Gpio::GpioLedSystemConfigDir>("led");
  Ptr<Hardware::Led::LedSystemConfigDir> leds = Zel::allocate<Hardware::Led::LedSystemConfigDir>("config");
  Ptr<Zel::Dir> pins = Zel::allocate<Zel::Dir>("pins");
  Lines pinLog;
  Ptr<DirSpy> dirSpy = Zel::allocate<DirSpy>(pins, pinLog);
  Ptr<ConfigReactor> reactor;
};

TEST_F(Configuration, AReadyMappingGetsItsPinsAndWithItsLedAMachine) {
  Zel::traceLevelsIs("Pinlamp/6,9");
  mappings->gpioLedsIs(mapping("A", false));
  start();
  EXPECT_EQ(takeRecords(), Lines{kReads + "A"});
  EXPECT_EQ(step(), Lines{});
  EXPECT_TRUE(reactor->corvelLedSystemConfig()->gpioLeds().empty());

  const Lines making{kReads + "A",
                     made(263, "yellow", "A.y"),
                     made(273, "green", "A.g"),
                     made(283, "red", "A.r"),
                     made(293, "orange", "A.o"),
                     kDecides + "A"};
  const auto with = [](Lines lines, const std::string& last) {
    lines.push_back(last);
    return lines;
  };
  mappings->gpioLeds("A")->readyIs(true);
  EXPECT_EQ(step(), (Lines{"+A.y", "+A.g", "+A.r", "+A.o"}));
  EXPECT_EQ(takeRecords(), with(making, kDeleted + "A"));
  leds->ledsIs("A")->lightSettingIs(setting("red"));
  step();
  EXPECT_EQ(records[0], kDecides + "A");
  EXPECT_EQ(records[1], kCreated + "A");
  const auto red = Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entityRef("A.r"));
  EXPECT_EQ(red->value(), 1U);

  const auto first = machine("A");
  takeRecords();
  mappings->gpioLeds("A")->readyIs(false);
  step();
  EXPECT_EQ(takeRecords(), Lines{kReads + "A"});
  EXPECT_EQ(machine("A"), first);
  mappings->gpioLeds("A")->gpioRedNameDel("A.r");
  mappings->gpioLeds("A")->readyIs(true);
  step();
  EXPECT_EQ(takeRecords(), (Lines{kReads + "A", made(263, "yellow", "A.y"), made(273, "green", "A.g"),
                                  made(293, "orange", "A.o"), kDecides + "A", kCreated + "A"}));
  EXPECT_EQ(machine("A"), first);
  EXPECT_EQ(reactor->corvelLedSystemConfig()->gpioLeds("A")->gpioRed().size(), 1U);

  leds->ledsDel("A");
  step();
  EXPECT_EQ(takeRecords(), (Lines{kDecides + "A", kDeleted + "A"}));
  EXPECT_EQ(machine("A"), nullptr);
  EXPECT_EQ(red->value(), 1U);
  mappings->gpioLeds("A")->readyIs(false);
  leds->ledsIs("A");
  step();
  EXPECT_EQ(machine("A"), nullptr) << "the mapping is not ready any more";
}

TEST_F(Configuration, ARemovedMappingTakesItsPinsAndMachineWithIt) {
  for (const char* name : {"A", "B"}) {
    mappings->gpioLedsIs(mapping(name, *name == 'A'));
    leds->ledsIs(name);
  }
  start();
  step();
  Zel::traceLevelsIs("Pinlamp/9");
  for (const std::string name : {"A", "B"}) {  // B was never ready
    mappings->gpioLedsDel(name);
    EXPECT_EQ(step(), name == "A" ? (Lines{"-A.y", "-A.g", "-A.r", "-A.o"}) : Lines{});
    EXPECT_EQ(takeRecords(), (Lines{kCleans + name, kDecides + name, kDeleted + name}));
  }
  EXPECT_TRUE(reactor->gpioLedConfig().empty() && reactor->gpioLedStateMachine().empty());
  EXPECT_TRUE(reactor->corvelLedSystemConfig()->gpioLeds().empty());
  EXPECT_EQ(reactor->gpioLedConfigDel("A"), nullptr);
}

TEST_F(Configuration, AReplacedMappingKeepsItsReactorAndOldPins) {
  mappings->gpioLedsIs(mapping("A"));
  leds->ledsIs("A");
  start();
  const auto old = reactor->gpioLedConfig().find("A");
  const auto kept = machine("A");
  const auto other = Zel::allocate<GpioLedConfig>("A");
  other->gpioRedNameIs("new", true);
  other->readyIs(true);
  step();
  mappings->gpioLedsIs(other);
  EXPECT_EQ(step(), Lines{"+new"});
  EXPECT_EQ(reactor->gpioLedConfig().find("A"), old);
  EXPECT_EQ(old->notifier(), other.get());
  EXPECT_EQ(machine("A"), kept);
  EXPECT_EQ(reactor->gpioLedConfigIs(other), old);
}

TEST_F(Configuration, AWholesaleReplacementAddsBeforeItRemoves) {
  mappings->gpioLedsIs(mapping("A"));
  start();
  Zel::traceLevelsIs("Pinlamp/9");
  mappings->gpioLedsIs(std::vector{mapping("B"), mapping("C", false)});
  EXPECT_EQ(takeRecords(), (Lines{kReads + "B", kDecides + "B", kDeleted + "B", kReads + "C", kCleans + "A",
                                  kDecides + "A", kDeleted + "A"}));
  const auto others = Zel::allocate<Hardware::Gpio::GpioLedSystemConfigDir>("others");
  others->gpioLedsIs(mapping("D", false));
  reactor->gpioLedSystemConfigDirIs(others);
  EXPECT_EQ(takeRecords()[0], kReads + "D");
  EXPECT_EQ(reactor->gpioLedConfig().size(), 1U);
  reactor->zelDoZombieReactors(true);
  takeRecords();
  reactor->gpioLedSystemConfigDirIs(mappings);
  EXPECT_EQ(takeRecords()[0], kReads + "B") << "a retired reactor follows what it is pointed at as well";
  EXPECT_EQ(reactor->gpioLedConfig().size(), 2U);
  EXPECT_EQ(reactor->gpioLedSystemConfigDirDel(), mappings);
  EXPECT_EQ(reactor->gpioLedConfig().size(), 2U);
}

TEST_F(Configuration, LedsThatShareAPinShareItsEntity) {
  for (const char* name : {"A", "B"}) {
    const auto led = mapping(name);
    led->gpioGreenNameIs("shared", true);
    led->gpioRedNameIs("shared", true);
    mappings->gpioLedsIs(led);
  }
  start();
  EXPECT_EQ(pins->entries().size(), 9U);
  mappings->gpioLedsDel("A");
  step();
  EXPECT_EQ(pins->entityRef("shared"), nullptr);
  EXPECT_EQ(reactor->corvelLedSystemConfig()->gpioLeds("B")->gpioRed().size(), 2U);
}

TEST_F(Configuration, AnLedThatIsSwappedInOneStepIsRefused) {
  mappings->gpioLedsIs(mapping("A"));
  const auto old = leds->ledsIs("A");
  start();
  const auto first = machine("A");
  const auto swapped = Zel::allocate<Hardware::Led::LedConfig>("A");
  leds->ledsIs(swapped);
  const std::string texts[] = {Zel::valueToStrepOfRawPtr(swapped.get()).stdString(),
                               Zel::valueToStrepOfRawPtr(old.get()).stdString()};
  EXPECT_EQ(faultOfStep(),
            "Reinstantiating the pointer interface where constructor parameter attribute _hwLedConfig has a "
            "different "
            "value of " +
                texts[0] + " than the current value of " + texts[1] + " not allowed");
  EXPECT_EQ(machine("A"), first);
  leds->ledsDel("A");
  step();
  leds->ledsIs(swapped);
  step();
  EXPECT_NE(machine("A"), nullptr);
  EXPECT_NE(machine("A"), first);
  EXPECT_THROW(
      try { reactor->gpioLedStateMachineIs(nullptr, swapped); } catch (const Zel::NameInUseException& error) {
        EXPECT_NE(std::string(error.what())
                      .find("attribute _corvelGpioLedConfig has a different value of null than"),
                  std::string::npos);
        throw;
      },
      Zel::NameInUseException);
}

TEST_F(Configuration, RefusesWhatIsNoMappingOrNoPin) {
  start();
  try {
    reactor->gpioLedConfigIs(nullptr);
    ADD_FAILURE();
  } catch (const Zel::RangeException& error) {
    EXPECT_STREQ(error.what(),
                 "null _gpioLedConfig parameter to mutator for Pinlamp::ConfigReactor::gpioLedConfig "
                 "not allowed\"");
  }
  pins->entryIs("A.g", "Zel::Dir");
  mappings->gpioLedsIs(mapping("A"));
  EXPECT_EQ(faultOfStep(), "null ValidPtr");

  reactor = ConfigReactor::ConfigReactorIs(nullptr, leds, nullptr);
  reactor->corvelLedSystemConfig()->gpioLedsIs("B")->gpioRedIs(Zel::allocate<Bench::CorvelPinConfig>("B.r"));
  EXPECT_DEATH(reactor->handleGpioConfigCleanup("B"), "`gpioPinConfigDir_' failed");
}

TEST_F(Configuration, TheOutputDirectoryIsReplacedByName) {
  const auto first = start()->corvelLedSystemConfig();
  EXPECT_EQ(first->name(), Zel::Name("ledSystem"));
  first->parentIs(pins);
  EXPECT_EQ(reactor->corvelLedSystemConfigIs("ledSystem"), first);
  EXPECT_NE(reactor->corvelLedSystemConfigIs("other"), first);
  EXPECT_EQ(first->parent(), nullptr);
  EXPECT_EQ(reactor->corvelLedSystemConfigDel()->name(), Zel::Name("other"));
  EXPECT_EQ(reactor->corvelLedSystemConfigDel(), nullptr);
}

TEST_F(Configuration, HearsNothingWhileItsNotificationsAreOff) {
  mappings->gpioLedsIs(mapping("A"));
  mappings->gpioLedsIs(mapping("B", false));
  leds->ledsIs("A");
  start()->hasNotificationActiveIs(false);
  spy(Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entityRef("A.r")));
  step();
  leds->leds("A")->lightSettingIs(setting("red"));
  mappings->gpioLeds("B")->readyIs(true);
  mappings->gpioLedsIs(mapping("C"));
  EXPECT_EQ(step(), Lines{});
  EXPECT_EQ(takeWrites(), Lines{});
  leds->ledsDel("A");
  EXPECT_EQ(step(), Lines{});
  reactor->hasNotificationActiveIs(true);
  mappings->gpioLedsIs(mapping("D"));
  EXPECT_EQ(step()[0], "+D.y");
  reactor->zelDoZombieReactors(true);
  reactor->gpioLedConfigIs(mapping("E"));  // is retired at once
  EXPECT_TRUE(pins->entries().empty());
}

TEST_F(Configuration, LeavesNothingBehind) {
  for (const char* name : {"A", "B", "C"}) {
    mappings->gpioLedsIs(mapping(name, *name != 'B'));
    leds->ledsIs(name)->lightSettingIs(setting("red", 1.0));
  }
  start();
  const auto held = reactor->gpioLedConfig().find("A");
  reactor = nullptr;
  EXPECT_TRUE(pins->entries().empty());
  EXPECT_EQ(manager.nextWakeUp() < Zel::Clock::kNever, true) << "the pins that left are still to be told";
  step();
  EXPECT_EQ(manager.nextWakeUp(), Zel::Clock::kNever);
  mappings->gpioLeds("A")->readyIs(false);
  mappings->gpioLeds("A")->readyIs(true);
  EXPECT_EQ(step(), Lines{});
  EXPECT_EQ(GpioLedStateMachine::typeNode().allocations().objects(), 0U);
  EXPECT_EQ(ConfigReactor::typeNode().allocations().objects(), 0U);
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
    step();
    EXPECT_EQ(takeWrites(), Lines{"A.r=1"});
    EXPECT_EQ(GpioLedStateMachine::typeNode().allocations().objects(), 1U);
    EXPECT_NE(machine("A"), nullptr);
    EXPECT_EQ(reactor->gpioLedConfig().size(), 1U);
    mappings->gpioLedsDel("A");
    step();
  }
  spy(Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entryIs("A.r", "Hardware::Gpio::CorvelPinConfig")))
      ->act = [&] { reactor->handleGpioConfigCleanup("A"); };
  mappings->gpioLedsIs(mapping("A"));
  step();
  EXPECT_EQ(machine("A"), nullptr) << "its pins went while it was made";
}

TEST_F(Configuration, AMachineMayBeDroppedByWhoHearsOfItsPins) {
  mappings->gpioLedsIs(mapping("A"));
  leds->ledsIs("A");
  start();
  spy(Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entityRef("A.r")))->act = [this] {
    reactor = nullptr;
  };
  leds->leds("A")->lightSettingIs(setting("red orange"));
  step();
  EXPECT_EQ(takeWrites(), Lines{"A.r=1"});
  EXPECT_TRUE(pins->entries().empty());
}

}  // namespace
