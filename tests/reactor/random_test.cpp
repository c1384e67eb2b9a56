// Random operations on the configuration reactor, its input and its pins, and on a model of it.
#include <map>

#include "reactor/configreactor.h"
#include "tests/statemachine/model.h"

namespace {

using Bench::Lines;
using Hardware::Gpio::GpioLedConfig;
using Hardware::Gpio::GpioLedSystemConfigDir;
using Hardware::Led::LedSystemConfigDir;
using Pinlamp::ConfigReactor;
using Zel::Ptr;
using Text = std::string;

using Output = Hardware::Gpio::CorvelGpioLedConfig;

struct Colour {
  Text name;
  const Zel::NameSet& (GpioLedConfig::*get)() const;
  void (GpioLedConfig::*set)(const Zel::NameSet&);
  const Output::Pins& (Output::*pins)() const;
};
const std::array<Colour, 4> kColours{{
    {"yellow", &GpioLedConfig::gpioYellowName, &GpioLedConfig::gpioYellowNameIs, &Output::gpioYellow},
    {"green", &GpioLedConfig::gpioGreenName, &GpioLedConfig::gpioGreenNameIs, &Output::gpioGreen},
    {"red", &GpioLedConfig::gpioRedName, &GpioLedConfig::gpioRedNameIs, &Output::gpioRed},
    {"orange", &GpioLedConfig::gpioOrangeName, &GpioLedConfig::gpioOrangeNameIs, &Output::gpioOrange},
}};

struct ReactorModel {
  struct Mapped {
    Text name;
    Ptr<GpioLedConfig> mapping;
    Model::Watcher watcher;
  };

  ReactorModel(Model::Queue& its, Lines& records, const Zel::Entity* directory)
      : queue(its), log(records), pinDir(directory) {}

  void mappingsAre(const Ptr<GpioLedSystemConfigDir>& dir) {
    if (std::exchange(mappings, dir) == dir) return;
    if (!dir) return mappingsWatcher.reset();
    if (!mappingsWatcher)
      mappingsWatcher = std::make_unique<Model::Watcher>(queue, nullptr, [this](const Text& name) {
        if (const auto mapping = mappings->gpioLeds(name))
          mappingIs(mapping);
        else
          mappingDel(name);
      });
    mappingsWatcher->watch(dir);
    resynchronise();
  }
  void ledsAre(const Ptr<LedSystemConfigDir>& dir) {
    if (std::exchange(leds, dir) == dir) return;
    if (!dir) return ledsWatcher.reset();
    if (!ledsWatcher)
      ledsWatcher =
          std::make_unique<Model::Watcher>(queue, nullptr, [this](const Text& name) { createDriver(name); });
    ledsWatcher->watch(dir);
  }
  void mappingsReplaced() {
    queue.changed(mappings.get(), "", false);
    if (mappingsWatcher->hears()) resynchronise();
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
    if (Mapped* there = find(name)) {
      if (std::exchange(there->mapping, mapping) == mapping) return;
      there->watcher.watch(mapping);
      if (!there->watcher.zombie) createLedConfig(*mapping);
      return retire(*there, zombie);
    }
    std::unique_ptr<Mapped> made(new Mapped{name, mapping, Model::Watcher(queue, nullptr)});
    made->watcher.on = [this, &it = *made] { createLedConfig(*it.mapping); };
    made->watcher.watch(mapping);
    createLedConfig(*mapping);
    mapped.push_back(std::move(made));
    retire(*mapped.back(), zombie);
  }
  Ptr<GpioLedConfig> mappingDel(const Text& name) {
    const auto at = std::ranges::find(mapped, find(name), &std::unique_ptr<Mapped>::get);
    if (at == mapped.end()) return nullptr;
    const auto removed = std::move(*at);
    mapped.erase(at);
    retire(*removed, true);
    return removed->mapping;
  }
  void retire(Mapped& each, bool retired) {
    if (each.watcher.zombie == retired) return;
    each.watcher.activeIs(!retired);
    cleanUp(each.name);
    each.watcher.zombieIs(retired);
  }
  void createLedConfig(const GpioLedConfig& mapping) {
    const Text name = mapping.name().stdString();
    say(9, 246, "createLedConfig", "createLedConfig " + name);
    if (!mapping.ready()) return;
    auto& output = outputs[name];
    if (!output) output = std::make_shared<Model::Output>(name, system);
    for (std::size_t colour = 0; colour < 4; ++colour)
      for (const Zel::Name pinName : (mapping.*kColours[colour].get)()) {
        auto& pin = pins[pinName.stdString()];
        if (!pin) {
          pin = std::make_shared<Model::Pin>(pinName.stdString());
          queue.changed(pinDir, pin->name);
        }
        output->add(colour, pin);
        say(6, 263 + 10 * static_cast<int>(colour), "createLedConfig",
            "created " + kColours[colour].name + " pin '" + pin->name + "'");
      }
    createDriver(name);
  }
  void createDriver(const Text& name) {
    say(9, 225, "createDriver", "createDriver " + name);
    const auto mapping = mappings->gpioLeds(name);
    if (!mapping || !mapping->ready() || !outputs.contains(name) || !leds->leds(name)) {
      say(9, 238, "createDriver", "Deleting Gpio Led SM for " + name);
      machines.erase(name);
    } else {
      say(9, 234, "createDriver", "Creating Gpio Led SM for " + name);
      machineIs(name);
    }
  }
  void machineIs(const Text& name) {
    auto& machine = machines[name];
    const auto led = leds->leds(name);
    if (!machine) machine = std::make_unique<Model::Machine>(queue, log, outputs[name], led);
    ASSERT_TRUE(machine->output == outputs[name] && machine->led == led) << "this operation is not legal";
  }
  void cleanUp(const Text& name) {
    say(9, 302, "handleGpioConfigCleanup", "handleGpioConfigCleanup " + name);
    if (outputs.contains(name))
      for (const auto& ofColour : outputs[name]->pins)
        for (const auto& pin : ofColour) pinDel(pin->name);
    outputs.erase(name);
    createDriver(name);
  }
  void pinDel(const Text name) {
    if (pins.erase(name) != 0) queue.changed(pinDir, name);
  }
  void activeIs(bool on) {
    if (std::exchange(active, on) == on) return;
    for (auto* each : {mappingsWatcher.get(), ledsWatcher.get()})
      if (each) each->activeIs(on);
    for (const auto& [name, machine] : machines) machine->activeIs(on);
    for (const auto& each : mapped) each->watcher.activeIs(on);
  }
  void zombieIs(bool retired) {
    if (zombie == retired) return;
    for (auto* each : {mappingsWatcher.get(), ledsWatcher.get()})
      if (each) each->zombieIs(retired);
    for (const auto& each : mapped) retire(*each, retired);
    zombie = retired;
  }
  void end() {
    zombieIs(true);
    machines.clear(), mapped.clear(), mappingsWatcher.reset(), ledsWatcher.reset();
  }
  // What is due comes in the order of time; LEDs never have the same times.
  void advance(double now) {
    std::vector<Model::Machine*> due;
    for (const auto& [name, machine] : machines)
      if (machine->isDue(now)) due.push_back(machine.get());
    std::ranges::sort(due, {}, &Model::Machine::wakeUp);
    for (auto* machine : due) machine->advance(Zel::activityManager().clock().get(), now);
  }
  void say(int level, int line, const Text& function, const Text& text) {
    log.push_back(std::to_string(level) + " Pinlamp:" + std::to_string(line) + " " + function + ": " + text);
  }

  Model::Queue& queue;
  Lines& log;
  const Zel::Entity* pinDir;
  Text system = "ledSystem";
  Ptr<GpioLedSystemConfigDir> mappings;
  Ptr<LedSystemConfigDir> leds;
  std::unique_ptr<Model::Watcher> mappingsWatcher, ledsWatcher;
  std::vector<std::unique_ptr<Mapped>> mapped;  // in the order in which they came
  std::map<Text, std::shared_ptr<Model::Output>> outputs;
  std::map<Text, std::shared_ptr<Model::Pin>> pins;  // in their directory
  std::map<Text, std::unique_ptr<Model::Machine>> machines;
  bool active = true, zombie = false;
};

// Logs which pins come and go.
class PinDirSpy : public Zel::Reactor<PinDirSpy, Zel::Dir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::PinDirSpy";
  PinDirSpy(const Ptr<const Zel::Dir>& dir, Lines& log) : Reactor(dir), log_(log) {}
  void onEntry(Zel::Name pin) override {
    log_.push_back((notifier()->entityRef(pin) ? "+" : "-") + pin.stdString());
  }

 private:
  Lines& log_;
};

class ReactorRun : public Bench::Test {
 public:
  explicit ReactorRun(unsigned seed) : dice(seed) {
    Zel::traceLevelsIs("Pinlamp/*");
    modelSpy.watch(pins);
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

  Zel::NameSet pinNames() {
    Zel::NameSet names;
    for (unsigned i = dice.below(3); i > 0; --i) names.insert("p" + std::to_string(dice.below(7)));
    return names;
  }
  Ptr<GpioLedConfig> newMapping(const Text& name) {
    const auto mapping = Zel::allocate<GpioLedConfig>(name);
    for (const auto& colour : kColours) ((*mapping).*colour.set)(pinNames());
    mapping->readyIs(dice.chance(60));
    return mapping;
  }

  // What other agents do.
  void input() {
    const auto operation = dice.below(8), colour = dice.below(4);
    const Text name = dice.among(kNames), pin = "p" + std::to_string(dice.below(7));
    const auto& dir = maps[dice.chance(15)];
    const auto& leds = ledDirs[dice.chance(15)];
    const auto led = leds->leds(name);
    const auto* watched = dice.chance(50) ? model.find(name) : nullptr;  // it may have left the directory
    const auto mapping = watched ? watched->mapping : dir->gpioLeds(name);
    dice.note("input", operation, name, pin, colour, dir->name(), leds->name(), watched != nullptr);
    if (operation == 0 && (!mapping || dice.chance(50))) {
      dir->gpioLedsIs(newMapping(name));
      queue.changed(dir.get(), name);
    } else if (operation == 1 && dice.chance(50) && dir->gpioLedsDel(name)) {
      queue.changed(dir.get(), name);
    } else if (operation == 2 && mapping) {
      mapping->readyIs(!mapping->ready());
      queue.changed(mapping.get());
    } else if (operation == 3 && mapping) {
      const auto names = pinNames();
      if (((*mapping).*kColours[colour].get)() == names) return;
      ((*mapping).*kColours[colour].set)(names);
      queue.changed(mapping.get(), "", false);
    } else if (operation == 4 && !(leds == model.leds && model.machines.contains(name))) {
      if (!led) queue.changed(leds.get(), name);  // never while the machine of another of that name is there
      lightSettingIs(*leds->ledsIs(name), name);
    } else if (operation == 5 && dice.chance(40) && leds->ledsDel(name)) {
      queue.changed(leds.get(), name);
    } else if (operation == 6 && led) {
      lightSettingIs(*led, name);
    } else if (operation == 7 && model.pins.contains(pin)) {
      if (dice.chance(20)) return static_cast<void>(pins->entryDel(pin)), model.pinDel(pin);
      Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pins->entityRef(pin))->valueIs(colour);
      model.pins[pin]->value = colour;
    }
  }
  // Every LED has its own fractions of a quarter of a second, so no two wake up at once.
  void lightSettingIs(Bench::LedConfig& led, const Text& name) {
    const auto light =
        dice.setting(dice.chance(40) ? dice.below(4) * 0.25 + (name[0] - 'A' + 1) * 0.03 : 0.0);
    if (led.lightSetting() == light) return;
    led.lightSettingIs(light);
    queue.changed(&led);
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
    const auto operation = dice.below(9), other = dice.below(2);
    const bool on = dice.chance(60);
    dice.note("rarely", operation, other, on);
    if (operation == 0) {
      reactor->gpioLedStateMachineDelAll(), model.machines.clear();
      if (on) return;
      reactor->gpioLedConfigDelAll();
      while (!model.mapped.empty()) model.mappingDel(Text(model.mapped.front()->name));
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
      // The machines of the other directory's LEDs, which are others, go before anything asks for them.
      reactor->gpioLedStateMachineDelAll(), model.machines.clear();
    } else if (operation == 4) {
      replaceOutput(on, other ? "ledSystem" : "others");
    } else if (operation < 8) {
      reactor->hasNotificationActiveIs(on), model.activeIs(on);
    } else if (dice.chance(40)) {
      reactor->zelDoZombieReactors(on), model.zombieIs(on);
    }
  }
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
    reactor->gpioLedStateMachineDelAll(), model.machines.clear();  // they have pins of the old directory
  }

  void pass() {
    if (dice.chance(50)) time.advance(dice.below(5) * 0.25);
    dice.note("pass", time.now());
    for (const auto& [name, machine] : model.machines)
      if (machine->misses(time.now())) reactor->hasNotificationActiveIs(true), model.activeIs(true);
    manager.step();
    model.advance(time.now());
    queue.deliver();
    ASSERT_EQ(Model::joined(takeRecords()), Model::joined(std::exchange(expected, {}))) << dice.report();
    std::map<Text, std::uint32_t> values, valuesOfModel;
    for (const auto& pin : pins->entries())
      values[pin->name().stdString()] = Zel::dynamicPtrCast<Bench::CorvelPinConfig>(pin)->value();
    for (const auto& [name, pin] : model.pins) valuesOfModel[name] = pin->value;
    ASSERT_EQ(values, valuesOfModel) << dice.report();
    if (!reactor) return;
    for (const char* name : kNames) ASSERT_EQ(state(name), stateOfModel(name)) << dice.report();
  }
  // What there is of one LED.
  Text state(const Text& name) const {
    std::ostringstream text;
    text << reactor->hasNotificationActive() << reactor->zelIsZombie();
    if (const auto mapped = reactor->gpioLedConfig().find(name))
      text << " mapped " << mapped->notifier() << mapped->hasNotificationActive() << mapped->zelIsZombie();
    if (const auto machine = reactor->gpioLedStateMachine().find(name))
      text << " driven " << machine->hwLedConfig().get() << machine->hasNotificationActive()
           << machine->flashingState();
    const auto output = reactor->corvelLedSystemConfig()->gpioLeds(name);
    for (std::size_t colour = 0; output && colour < 4; ++colour)
      for (const auto& pin : ((*output).*kColours[colour].pins)())
        text << ' ' << colour << pin->name() << '=' << pin->value();
    return text.str() + (output ? " configured" : "");
  }
  Text stateOfModel(const Text& name) const {
    std::ostringstream text;
    text << model.active << model.zombie;
    if (const auto* mapped = model.find(name))
      text << " mapped " << mapped->mapping.get() << mapped->watcher.active << mapped->watcher.zombie;
    if (const auto machine = model.machines.find(name); machine != model.machines.end())
      text << " driven " << machine->second->led.get() << machine->second->active
           << machine->second->flashing;
    const auto output = model.outputs.find(name);
    for (std::size_t colour = 0; output != model.outputs.end() && colour < 4; ++colour)
      for (const auto& pin : output->second->pins[colour])
        text << ' ' << colour << pin->name << '=' << pin->value;
    return text.str() + (output != model.outputs.end() ? " configured" : "");
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
  Model::Queue queue;
  Lines expected;
  const Ptr<Zel::Dir> pins = Zel::allocate<Zel::Dir>("pins");
  const Ptr<PinDirSpy> spy = Zel::allocate<PinDirSpy>(pins, records);
  Model::Watcher modelSpy{queue, nullptr, [this](const Text& pin) {
                            expected.push_back((model.pins.contains(pin) ? "+" : "-") + pin);
                          }};
  const Ptr<GpioLedSystemConfigDir> maps[2] = {Zel::allocate<GpioLedSystemConfigDir>("m0"),
                                               Zel::allocate<GpioLedSystemConfigDir>("m1")};
  const Ptr<LedSystemConfigDir> ledDirs[2] = {Zel::allocate<LedSystemConfigDir>("l0"),
                                              Zel::allocate<LedSystemConfigDir>("l1")};
  ReactorModel model{queue, expected, pins.get()};
  Ptr<ConfigReactor> reactor;
};

TEST(ConfigurationUnderRandomOperations, DoesWhatItsModelDoes) {
  for (unsigned seed = 1; seed <= 100 && !testing::Test::HasFailure(); ++seed) ReactorRun{seed};
}

}  // namespace
