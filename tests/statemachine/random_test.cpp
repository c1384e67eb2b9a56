// Random operations on a machine and on its model.
#include "tests/statemachine/model.h"

namespace {

using Pinlamp::GpioLedStateMachine;
using Zel::Ptr;

using Model::kColours;

class MachineRun : Bench::Test {
 public:
  explicit MachineRun(unsigned seed) : dice(seed) {
    Zel::traceLevelsIs("Pinlamp/*");
    for (int i = 0; i < 7; ++i) {  // the last has the name of the first
      pins.push_back(Zel::allocate<Bench::CorvelPinConfig>("p" + std::to_string(i % 6)));
      modelPins.push_back(std::make_shared<Model::Pin>(Model::Pin{"p" + std::to_string(i % 6)}));
    }
    for (int i = 0; i < 8; ++i) addPin(dice.below(7), dice.below(4));
    const bool bare = dice.chance(15);
    for (const auto& led : leds) led->lightSettingIs(setting(!bare));
    const auto led = dice.chance(90) ? leds[0] : nullptr;
    machine = GpioLedStateMachine::GpioLedStateMachineIs(bare ? nullptr : output, led);
    model = std::make_unique<Model::Machine>(expected, bare ? nullptr : modelOutput, led);
    for (int i = 0; i < 400 && !HasFailure(); ++i)
      dice.chance(55) ? perform() : dice.chance(50) ? performRarely() : pass();
    machine = nullptr, model = nullptr;
    time.advance(100.0);
    pass();
  }

 private:
  void TestBody() override {}

  // A flashing setting needs pins, a clock, and an LED to be read by the next wake-up.
  bool mayFlash() const { return !model || (model->output && model->clockReactor); }
  Led::LightSetting setting(bool mayFlash) {
    static const double kIntervals[] = {0.5, 1.0, 1e-4, 3.25, -1.0, std::nan(""), Model::kNever, -0.0, 40.0};
    return dice.setting(mayFlash && dice.chance(60) ? dice.among(kIntervals) : 0.0);
  }
  bool steady() const {
    return leds[0]->lightSetting().flashInterval == 0 && leds[1]->lightSetting().flashInterval == 0;
  }
  void addPin(unsigned pin, unsigned colour) {
    dice.note("add", pin, "to", colour);
    (*output.*kColours[colour].pinIs)(pins[pin]), modelOutput->add(colour, modelPins[pin]);
  }
  void perform() {
    const auto operation = dice.below(10), pin = dice.below(7), value = dice.below(3), colour = dice.below(4);
    if (operation == 0) {
      addPin(pin, colour);
    } else if (operation == 1) {
      dice.note("pin", pin, "=", value);
      pins[pin]->valueIs(value), modelPins[pin]->value = value;
    } else if (operation == 2) {
      dice.note("write", colour, value);
      (*machine.*kColours[colour].write)(output, value), model->write(colour, value, *modelOutput);
    } else if (operation < 5) {
      advance();
    } else {
      const auto& led = dice.among(leds);
      const auto light = setting(mayFlash());
      dice.note("setting", led->name(), light);
      led->lightSettingIs(light);
    }
  }
  // To the wake-up itself, to just before it, or anywhere.
  void advance() {
    const double wakeUp = model->clockReactor ? model->clockReactor->timeMin() : Model::kNever;
    const double places[] = {wakeUp, std::nextafter(wakeUp, 0.0), time.now() + 1e-4,
                             time.now() + dice.below(8) * 0.25, time.now() + 50.0};
    const double next = dice.among(places);
    if (!(next > time.now()) || next > 1e9) return;
    time.nowIs(next);
    dice.note("time", next);
    pass();
  }

  void performRarely() {
    const auto operation = dice.below(13);
    const bool on = dice.chance(70), other = dice.chance(50);
    dice.note("rarely", operation, on, other);
    const bool ticks = model->nextTick() < Model::kNever;  // and then reads the LED
    if (operation < 3 && (on || steady())) {
      const auto clock = !on ? nullptr : other ? otherClock : manager.clock();
      EXPECT_EQ(!on && other ? machine->clockDel() : clockOfModel(), clockOfModel());
      on || !other ? machine->clockIs(clock) : void();
      model->clockIs(clock);
    } else if (operation == 3 || operation == 4) {
      const auto led = on ? leds[other] : nullptr;
      EXPECT_EQ(!on && other ? machine->hwLedConfigDel() : model->led, model->led);
      on || !other ? machine->hwLedConfigIs(led) : void();
      model->ledIs(led);
      if (!led && ticks) machine->hwLedConfigIs(leds[other]), model->ledIs(leds[other]);
    } else if (operation == 5 || operation == 6) {
      machine->initializedIs(on), model->initialized = on;
    } else if (operation == 7) {
      machine->flashingStateIs(on), model->flashing = on;
    } else if (operation == 8) {
      machine->handleInitialized(), model->initialize();
    } else if (operation == 9) {
      machine->handleHwLedConfig(), model->applyLed();
    } else if (operation == 10) {
      const auto light = setting(mayFlash() && model->led);
      machine->handleLedSystemConfig("any", light), model->apply(light);
    } else if (operation == 11 && model->led && model->output && model->clockReactor) {
      machine->handleClockTimeout(), model->tick();
    } else if (operation == 12 && dice.chance(10)) {
      machine->zelDoZombieReactors(true), model->retire();
    }
  }
  Ptr<const Zel::Clock> clockOfModel() const {
    if (!model->clockReactor) return nullptr;
    return Ptr<const Zel::Clock>(model->clockReactor->notifier());
  }

  void pass() {
    dice.note("pass");
    manager.step();
    otherClock->advance(time.now());
    ASSERT_EQ(Model::joined(takeRecords()), Model::joined(std::exchange(expected, {}))) << dice.report();
    for (std::size_t i = 0; i < pins.size(); ++i)
      ASSERT_EQ(pins[i]->value(), modelPins[i]->value) << i << dice.report();
    if (!model) return;
    ASSERT_EQ(machine->flashingState(), model->flashing) << dice.report();
    ASSERT_EQ(machine->initialized(), model->initialized) << dice.report();
    ASSERT_EQ(machine->name().stdString(), model->name()) << dice.report();
    ASSERT_EQ(machine->hwLedConfig(), model->led) << dice.report();
    ASSERT_EQ(machine->clock(), clockOfModel()) << dice.report();
  }

  Model::Dice dice;
  Bench::Lines expected;
  Ptr<Bench::CorvelGpioLedSystemConfigDir> system =
      Zel::allocate<Bench::CorvelGpioLedSystemConfigDir>("ledSystem");
  Ptr<Hardware::Gpio::CorvelGpioLedConfig> output = system->gpioLedsIs("L");
  std::shared_ptr<Model::Output> modelOutput =
      std::make_shared<Model::Output>(Model::Output{"L", "ledSystem"});
  std::vector<Ptr<Bench::CorvelPinConfig>> pins;
  std::vector<std::shared_ptr<Model::Pin>> modelPins;
  const Ptr<Bench::LedConfig> leds[2] = {Zel::allocate<Bench::LedConfig>("A"),
                                         Zel::allocate<Bench::LedConfig>("B")};
  const Ptr<const Zel::Clock> otherClock = Zel::allocate<Zel::Clock>();
  Ptr<GpioLedStateMachine> machine;
  std::unique_ptr<Model::Machine> model;
};

TEST(StateMachineUnderRandomOperations, DoesWhatItsModelDoes) {
  for (unsigned seed = 1; seed <= 60 && !testing::Test::HasFailure(); ++seed) MachineRun{seed};
}

}  // namespace
