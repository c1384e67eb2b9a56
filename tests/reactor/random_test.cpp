// Random operations on the configuration reactor, its input and its pins, and on a model of it. The LEDs stay
// dark: what a machine does with its pins is compared in tests/statemachine.
#include <map>

#include "reactor/configreactor.h"
#include "tests/statemachine/model.h"

namespace {

using Bench::Lines;
using Hardware::Gpio::GpioLedConfig;
using Hardware::Gpio::GpioLedSystemConfigDir;
using Hardware::Led::LedSystemConfigDir;
using Model::kColours;
using Pinlamp::ConfigReactor;
using Zel::Ptr;
using Text = std::string;

using Pin = std::pair<Text, int>;  // and a number that no other pin of that name has
using Output = std::array<std::vector<Pin>, kColours.size()>;

struct ReactorModel {
  struct Mapped {
    Text name;
    Ptr<GpioLedConfig> mapping;
    Ptr<Support::Watcher> watcher;
  };

  ReactorModel(Lines& records) : log(records) {}

  void mappingsAre(const Ptr<GpioLedSystemConfigDir>& dir) {
    if (std::exchange(mappings, dir) == dir) return;
    Model::watch(mappingsWatcher, dir, [this](const Text&, Zel::Name name) {
      if (const auto mapping = mappings->gpioLeds(name))
        mappingIs(mapping);
      else if (!name.empty())
        mappingDel(name.stdString());
    });
    if (dir) resynchronise();
  }
  void ledsAre(const Ptr<LedSystemConfigDir>& dir) {
    leds = dir;
    Model::watch(ledsWatcher, dir, [this](const Text&, Zel::Name name) { createDriver(name.stdString()); });
  }
  void mappingsReplaced() {
    if (mappingsWatcher->hasNotificationActive() && !mappingsWatcher->zelIsZombie()) resynchronise();
  }
  void resynchronise() {
    for (const auto& mapping : mappings->gpioLeds()) mappingIs(mapping);
    Lines gone;
    for (const auto& each : mapped)
      if (!mappings->gpioLeds(each->name)) gone.push_back(each->name);
    for (const auto& name : gone) mappingDel(name);
  }
  Mapped* find(const Text& name) const {
    const auto at = std::ranges::find_if(mapped, [&](const auto& each) { return each->name == name; });
    return at == mapped.end() ? nullptr : at->get();
  }
  void mappingIs(const Ptr<GpioLedConfig>& mapping) {
    const Text name = mapping->name().stdString();
    Mapped* there = find(name);
    if (there && there->mapping == mapping) return;
    if (!there) there = mapped.emplace_back(new Mapped{name, nullptr, nullptr}).get();
    there->mapping = mapping;
    Model::watch(there->watcher, mapping, [this, there](const Text& attribute, Zel::Name) {
      if (attribute == "ready") createLedConfig(*there->mapping);
    });
    if (!there->watcher->zelIsZombie()) createLedConfig(*mapping);
    retire(*there, zombie);
  }
  Ptr<GpioLedConfig> mappingDel(Text name) {
    const auto at = std::ranges::find(mapped, find(name), &std::unique_ptr<Mapped>::get);
    if (at == mapped.end()) return nullptr;
    const auto removed = std::move(*at);
    mapped.erase(at);
    retire(*removed, true);
    return removed->mapping;
  }
  void retire(Mapped& each, bool retired) {
    if (each.watcher->zelIsZombie() == retired) return;
    each.watcher->hasNotificationActiveIs(!retired);
    cleanUp(each.name);
    each.watcher->zelDoZombieReactors(retired);
  }
  void createLedConfig(const GpioLedConfig& mapping) {
    const Text name = mapping.name().stdString();
    record(246, "createLedConfig", "createLedConfig " + name);
    if (!mapping.ready()) return;
    Output& output = outputs[name];
    for (std::size_t colour = 0; colour < kColours.size(); ++colour)
      for (const Zel::Name& pinName : (mapping.*kColours[colour].names)()) {
        const Pin pin = pinIs(pinName.stdString());
        if (std::ranges::count(output[colour], pin) == 0) {
          std::erase_if(output[colour], [&](const Pin& other) { return other.first == pin.first; });
          output[colour].push_back(pin);
        }
        record(263 + 10 * static_cast<int>(colour), "createLedConfig",
               "created " + Text(kColours[colour].plain) + " pin '" + pin.first + "'", 6);
      }
    createDriver(name);
  }
  void createDriver(const Text& name) {
    record(225, "createDriver", "createDriver " + name);
    const auto mapping = mappings->gpioLeds(name);
    if (!mapping || !mapping->ready() || !outputs.contains(name) || !leds->leds(name)) {
      record(238, "createDriver", "Deleting Gpio Led SM for " + name);
      machines.erase(name);
    } else {
      record(234, "createDriver", "Creating Gpio Led SM for " + name);
      machineIs(name);
    }
  }
  void machineIs(const Text& name) {
    const auto led = leds->leds(name);
    const auto [machine, isNew] = machines.try_emplace(name, led);
    ASSERT_EQ(machine->second, led) << "this operation is not legal";
    if (!isNew) return;
    log.push_back("6 handleInitialized: handleInitialized for " + name);
    for (const Model::Colour& colour : kColours) {
      const Text operation = Text("handleCorvelGpio") + colour.text;
      log.push_back("9 " + operation + ": " + operation + " " + name);
    }
  }
  void cleanUp(const Text& name) {
    record(302, "handleGpioConfigCleanup", "handleGpioConfigCleanup " + name);
    if (const auto output = outputs.extract(name))
      for (const auto& ofColour : output.mapped())
        for (const Pin& pin : ofColour) pinDel(pin.first);
    createDriver(name);
  }
  Pin pinIs(const Text& name) {
    const auto [pin, isNew] = pins.try_emplace(name, ++lastPin);
    if (isNew) pinChanged(name);
    return *pin;
  }
  void pinDel(const Text& name) {
    if (pins.erase(name) != 0) pinChanged(name);
  }
  void pinChanged(const Text& name) {
    if (std::ranges::count(changedPins, name) == 0) changedPins.push_back(name);
  }
  bool isThere(const Pin& pin) const {
    const auto found = pins.find(pin.first);
    return found != pins.end() && *found == std::pair<const Text, int>(pin);
  }
  void zombieIs(bool retired) {
    if (zombie == retired) return;
    for (const auto& each : {mappingsWatcher, ledsWatcher})
      if (each) each->zelDoZombieReactors(retired);
    for (const auto& each : mapped) retire(*each, retired);
    zombie = retired;
  }
  void end() {
    zombieIs(true);
    mapped.clear(), mappingsWatcher = ledsWatcher = nullptr;
  }
  void record(int line, const Text& function, const Text& text, int level = 9) {
    log.push_back(std::to_string(level) + " Pinlamp:" + std::to_string(line) + " " + function + ": " + text);
  }

  Lines& log;
  Text system = "ledSystem";
  Ptr<GpioLedSystemConfigDir> mappings;
  Ptr<LedSystemConfigDir> leds;
  Ptr<Support::Watcher> mappingsWatcher, ledsWatcher;
  std::vector<std::unique_ptr<Mapped>> mapped;  // in the order in which they came
  std::map<Text, Output> outputs;
  std::map<Text, int> pins;  // in their directory
  int lastPin = 0;
  Lines changedPins;  // that the directory's reactors were not notified of yet
  std::map<Text, Ptr<const Bench::LedConfig>> machines;
  bool zombie = false;
};

class ReactorRun : public Bench::Test {
 public:
  explicit ReactorRun(unsigned seed) : dice(seed) {
    Zel::traceLevelsIs("Pinlamp/6,9");
    for (int i = 0; i < 30; ++i) input();
    reactor = ConfigReactor::ConfigReactorIs(maps[0], ledDirs[0], pins);
    model.ledsAre(ledDirs[0]);
    model.mappingsAre(maps[0]);
    for (int i = 0; i < 400 && !HasFailure(); ++i)
      dice.chance(50) ? input() : dice.chance(60) ? pass() : dice.chance(70) ? call() : callRarely();
    if (!HasFailure()) end();
  }

 private:
  static constexpr std::array kNames{"A", "B", "C", "D"};

  void TestBody() override {}

  Text pinName() { return "p" + std::to_string(dice.below(7)); }
  Zel::NameSet pinNames() {
    Zel::NameSet names;
    for (unsigned i = dice.below(3); i > 0; --i) names.insert(pinName());
    return names;
  }
  Ptr<GpioLedConfig> newMapping(const Text& name) {
    const auto mapping = Zel::allocate<GpioLedConfig>(name);
    for (const auto& colour : kColours) ((*mapping).*colour.namesAre)(pinNames());
    mapping->readyIs(dice.chance(60));
    return mapping;
  }

  // Changes by other agents.
  void input() {
    const auto operation = dice.below(7);
    const Text name = dice.among(kNames), pin = pinName();
    const auto& colour = dice.among(kColours);
    const auto& dir = maps[dice.chance(15)];
    const auto& leds = ledDirs[dice.chance(15)];
    const auto* watched = dice.chance(50) ? model.find(name) : nullptr;  // it may have left the directory
    const auto mapping = watched ? watched->mapping : dir->gpioLeds(name);
    dice.note("input", operation, name, pin, colour.plain, dir->name(), leds->name(), watched != nullptr);
    if (operation == 0 && (!mapping || dice.chance(50))) {
      dir->gpioLedsIs(newMapping(name));
    } else if (operation == 1 && dice.chance(50)) {
      dir->gpioLedsDel(name);
    } else if (operation == 2 && mapping) {
      mapping->readyIs(!mapping->ready());
    } else if (operation == 3 && mapping) {
      ((*mapping).*colour.namesAre)(pinNames());
    } else if (operation == 4 && !(leds == model.leds && model.machines.contains(name))) {
      leds->ledsIs(name);  // never while the machine of another of that name is there
    } else if (operation == 5 && dice.chance(40)) {
      leds->ledsDel(name);
    } else if (operation == 6 && dice.chance(20)) {
      pins->entryDel(pin), model.pinDel(pin);
    }
  }

  void call() {
    const auto operation = dice.below(7);
    const Text name = dice.among(kNames);
    dice.note("call", operation, name);
    if (operation == 0) {
      reactor->createDriver(name), model.createDriver(name);
    } else if (operation == 1) {
      reactor->handleGpioConfigCleanup(name), model.cleanUp(name);
    } else if (operation == 2) {
      const auto there = maps[0]->gpioLeds(name), is = there && dice.chance(50) ? there : newMapping(name);
      const auto before = reactor->gpioLedConfig().find(name), after = reactor->gpioLedConfigIs(is);
      EXPECT_TRUE(!before || before == after) << dice.report();
      model.mappingIs(is);
    } else if (operation == 3) {
      const auto held = reactor->gpioLedConfig().find(name);
      EXPECT_EQ(reactor->gpioLedConfigDel(name), model.mappingDel(name)) << dice.report();
      EXPECT_TRUE(!held || (!held->owner() && !held->isRegisteredNotifiee())) << dice.report();
    } else if (operation == 4) {
      const auto machine = reactor->gpioLedStateMachine().find(name);
      EXPECT_EQ(reactor->gpioLedStateMachineDel(name), machine) << dice.report();
      model.machines.erase(name);
    } else if (const auto led = model.leds->leds(name); led && model.outputs.contains(name)) {
      const auto output = reactor->corvelLedSystemConfig()->gpioLeds(name);
      const auto machine = reactor->gpioLedStateMachineIs(output, led);
      EXPECT_EQ(machine, reactor->gpioLedStateMachine().find(name));
      const auto other = Zel::allocate<Bench::LedConfig>(name);
      EXPECT_THROW(reactor->gpioLedStateMachineIs(nullptr, led), Zel::NameInUseException);
      EXPECT_THROW(reactor->gpioLedStateMachineIs(output, other), Zel::NameInUseException);
      model.machineIs(name);
    }
  }
  void callRarely() {
    const auto operation = dice.below(6), other = dice.below(2);
    const bool on = dice.chance(60);
    dice.note("rarely", operation, other, on);
    if (operation == 0) {
      machinesDel();
      if (on) return;
      reactor->gpioLedConfigDelAll();
      while (!model.mapped.empty()) model.mappingDel(model.mapped.front()->name);
    } else if (operation == 1) {
      const auto& dir = *maps[other];
      std::vector<Ptr<GpioLedConfig>> mappings;
      for (const Text name : kNames)
        if (on)
          mappings.push_back(dir.gpioLeds(name) && dice.chance(60) ? dir.gpioLeds(name) : newMapping(name));
      if (dir.gpioLeds().empty() && mappings.empty()) return;
      maps[other]->gpioLedsIs(mappings);
      if (maps[other] == model.mappings) model.mappingsReplaced();
    } else if (operation == 2) {
      EXPECT_EQ(on ? reactor->gpioLedSystemConfigDirDel() : model.mappings, model.mappings);
      if (on) model.mappingsAre(nullptr);
      reactor->gpioLedSystemConfigDirIs(maps[other]), model.mappingsAre(maps[other]);
    } else if (operation == 3) {
      EXPECT_EQ(on ? reactor->hwLedConfigDirDel() : model.leds, model.leds);
      if (on) model.ledsAre(nullptr);
      reactor->hwLedConfigDirIs(ledDirs[other]), model.ledsAre(ledDirs[other]);
      machinesDel();  // those of the other directory's LEDs, before anything asks for them
    } else if (operation == 4) {
      replaceOutput(on, other ? "ledSystem" : "others");
    } else if (dice.chance(40)) {
      reactor->zelDoZombieReactors(on), model.zombieIs(on);
    }
  }
  void machinesDel() { reactor->gpioLedStateMachineDelAll(), model.machines.clear(); }
  void replaceOutput(bool del, const Text& name) {
    const auto before = reactor->corvelLedSystemConfig();
    before->parentIs(pins);
    EXPECT_EQ(del ? reactor->corvelLedSystemConfigDel() : before, before);
    const auto after = reactor->corvelLedSystemConfigIs(name);
    EXPECT_EQ(after == before, !del && name == model.system);
    EXPECT_EQ(before->parent() == nullptr, after != before);
    before->parentIs(nullptr);
    if (after == before) return;
    model.system = name, model.outputs.clear();
    machinesDel();  // they have pins of the old directory
  }

  void pass() {
    dice.note("pass");
    manager.step();
    ASSERT_EQ(Model::joined(takeRecords()), Model::joined(std::exchange(expected, {}))) << dice.report();
    ASSERT_EQ(pins->entries().size(), model.pins.size()) << dice.report();
    ASSERT_EQ(model.changedPins, Lines{}) << dice.report();
    if (!reactor) return;
    ASSERT_EQ(reactor->zelIsZombie(), model.zombie) << dice.report();
    for (const char* name : kNames) compareLed(name);
  }
  void compareLed(const Text& name) {
    const auto mapped = reactor->gpioLedConfig().find(name);
    const auto* itsMapped = model.find(name);
    ASSERT_EQ(mapped ? mapped->notifier() : nullptr, itsMapped ? itsMapped->mapping.get() : nullptr)
        << dice.report();
    if (mapped) {
      ASSERT_EQ(mapped->hasNotificationActive(), itsMapped->watcher->hasNotificationActive())
          << dice.report();
      ASSERT_EQ(mapped->zelIsZombie(), itsMapped->watcher->zelIsZombie()) << dice.report();
    }
    const auto machine = reactor->gpioLedStateMachine().find(name);
    const auto itsMachine = model.machines.find(name);
    ASSERT_EQ(machine != nullptr, itsMachine != model.machines.end()) << dice.report();
    if (machine) {
      ASSERT_EQ(machine->hwLedConfig(), itsMachine->second) << dice.report();
    }
    const auto output = reactor->corvelLedSystemConfig()->gpioLeds(name);
    ASSERT_EQ(output != nullptr, model.outputs.contains(name)) << dice.report();
    for (std::size_t colour = 0; output && colour < kColours.size(); ++colour) {
      std::vector<std::pair<Text, bool>> found, expectedPins;  // and whether it is the one in the directory
      for (const auto& pin : ((*output).*kColours[colour].pins)())
        found.emplace_back(pin->name().stdString(), pins->entityRef(pin->name()) == pin);
      for (const Pin& pin : model.outputs[name][colour])
        expectedPins.emplace_back(pin.first, model.isThere(pin));
      ASSERT_EQ(found, expectedPins) << dice.report();
    }
  }

  void end() {
    const auto held = reactor->gpioLedConfig().find("A");
    const auto output = reactor->corvelLedSystemConfig();
    output->parentIs(pins);
    reactor = nullptr;
    model.end();
    EXPECT_TRUE((!held || !held->owner()) && !output->parent());
    pass();
    for (int i = 0; i < 30; ++i) input();
    pass();
    EXPECT_EQ(Pinlamp::GpioLedStateMachine::typeNode().allocations().objects(), 0U);
    EXPECT_EQ(ConfigReactor::typeNode().allocations().objects(), 0U);
  }

  Model::Dice dice;
  Lines expected;
  const Ptr<Zel::Dir> pins = Zel::allocate<Zel::Dir>("pins");
  const Ptr<GpioLedSystemConfigDir> maps[2] = {Zel::allocate<GpioLedSystemConfigDir>("m0"),
                                               Zel::allocate<GpioLedSystemConfigDir>("m1")};
  const Ptr<LedSystemConfigDir> ledDirs[2] = {Zel::allocate<LedSystemConfigDir>("l0"),
                                              Zel::allocate<LedSystemConfigDir>("l1")};
  ReactorModel model{expected};
  const Ptr<Support::Watcher> spy = Zel::allocate<Support::Watcher>(pins, [this](const Text&, Zel::Name pin) {
    EXPECT_EQ(model.changedPins.empty() ? "none" : model.changedPins[0], pin.stdString()) << dice.report();
    std::erase(model.changedPins, pin.stdString());
  });
  Ptr<ConfigReactor> reactor;
};

TEST(ConfigurationUnderRandomOperations, DoesWhatItsModelDoes) {
  for (unsigned seed = 1; seed <= 100 && !testing::Test::HasFailure(); ++seed) ReactorRun{seed};
}

}  // namespace
