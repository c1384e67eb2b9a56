// A second implementation of an LED's machine, in plain structures, for tests that perform random
// operations on both and compare. The model's reactors are real ones: each stands right behind the one that
// it mirrors, so both are notified of the same changes in the same order. Notification and the clock have
// models of their own, in tests/platform.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <sstream>

#include "platform/model/gpioledconfig.h"
#include "platform/zel/notify/clock.h"
#include "statemachine/gpioledstatemachine.h"
#include "tests/statemachine/bench.h"

namespace Model {

using Bench::LedConfig;
using Bench::Lines;
using Bench::Ptr;
using Hardware::Gpio::CorvelGpioLedConfig;
using Hardware::Gpio::GpioLedConfig;
using Led::LightSetting;
using Pinlamp::GpioLedStateMachine;
constexpr double kNever = std::numeric_limits<double>::infinity();

// The colours, in the order in which machine and reactor process them.
struct Colour {
  const char *text, *plain;
  bool LightSetting::*lit;
  const Zel::NameSet& (GpioLedConfig::*names)() const;
  void (GpioLedConfig::*namesAre)(const Zel::NameSet&);
  const CorvelGpioLedConfig::Pins& (CorvelGpioLedConfig::*pins)() const;
  void (CorvelGpioLedConfig::*pinIs)(const Ptr<Bench::CorvelPinConfig>&);
  void (GpioLedStateMachine::*write)(const Ptr<CorvelGpioLedConfig>&, Pinlamp::U32);
};
#define LED_PIN_COLOUR(plain, Text, ...)       \
  Colour{#Text,                                \
         #plain,                               \
         &LightSetting::plain,                 \
         &GpioLedConfig::gpio##Text##Name,     \
         &GpioLedConfig::gpio##Text##NameIs,   \
         &CorvelGpioLedConfig::gpio##Text,     \
         &CorvelGpioLedConfig::gpio##Text##Is, \
         &GpioLedStateMachine::handleCorvelGpio##Text},
inline constexpr std::array kColours{LED_PIN_COLOURS(LED_PIN_COLOUR)};
#undef LED_PIN_COLOUR

struct Pin {
  std::string name;
  std::uint32_t value = 0;
};

// An LED's pins by colour, each colour's in the order in which they came.
struct Output {
  std::string name, system;
  std::array<std::vector<std::shared_ptr<Pin>>, kColours.size()> pins{};

  void add(std::size_t colour, const std::shared_ptr<Pin>& pin) {
    if (std::ranges::count(pins[colour], pin) != 0) return;
    std::erase_if(pins[colour], [&](const auto& other) { return other->name == pin->name; });
    pins[colour].push_back(pin);
  }
};

// Points a reactor at another notifier, as the agent does: one that is there is kept.
template <class Reactor, class Notifier, class Call>
void watch(Ptr<Reactor>& slot, const Ptr<Notifier>& notifier, const Call& call) {
  if (!notifier)
    slot = nullptr;
  else if (!slot)
    slot = Zel::allocate<Reactor>(notifier, call);
  else
    slot->notifierIs(notifier);
}

struct Machine {
  Machine(Lines& records, const std::shared_ptr<Output>& pins, const Ptr<const LedConfig>& watched)
      : log(records), output(pins) {
    ledIs(watched);
    initialize();
  }

  void ledIs(const Ptr<const LedConfig>& watched) {
    watch(ledReactor, watched, [this](const std::string&, Zel::Name) { applyLed(); });
    led = watched;
  }
  void clockIs(const Ptr<const Zel::Clock>& clock) {
    watch(clockReactor, clock, [this] { tick(); });
  }
  void initialize() {
    record(6, "handleInitialized", "handleInitialized for " + name());
    if (initialized) return;
    flashing = false;
    clockIs(Zel::activityManager().clock());
    clockReactor->timeMinIs(kNever);
    initialized = true;
    applyLed();
  }
  void applyLed() {
    if (!initialized) return;
    record(7, "handleHwLedConfig", "handleHwLedConfig " + name());
    if (led) apply(led->lightSetting());
  }
  void apply(const LightSetting& setting) {
    if (!initialized) return;
    std::ostringstream text;
    text << "handleLedSystemConfig " << (output ? output->name : "") << ' ' << setting << "Config: <"
         << (output ? "Hardware::Gpio::CorvelGpioLedSystemConfigDir " + output->system : "null") << '>';
    record(8, "handleLedSystemConfig", text.str());
    if (setting.flashInterval != 0.0)
      clockReactor->timeMin() < kNever ? void() : armIn(setting.flashInterval);
    else if (output)
      show(setting, true);
  }
  void tick() {
    if (!initialized) return;
    record(8, "handleClockTimeout", "handleClockTimeout for " + name());
    flashing = !flashing;
    const LightSetting setting = led->lightSetting();
    if (setting.flashInterval == 0.0) return clockReactor->timeMinIs(kNever);
    record(8, "handleClockTimeout", "Led " + name() + " is now " + (flashing ? "1" : "0"));
    show(setting, flashing);
    armIn(setting.flashInterval);
  }
  void write(std::size_t colour, std::uint32_t value, Output& pins) {
    const std::string text = kColours[colour].text, operation = "handleCorvelGpio" + text;
    record(9, operation, operation + " " + pins.name);
    for (const auto& pin : pins.pins[colour]) {
      const auto old = std::exchange(pin->value, value);
      if (old != value)
        record(6, operation,
               "Corvel " + text + " Pin: " + pin->name + "  OldValue: " + std::to_string(old) +
                   " NewValue: " + std::to_string(value));
    }
  }
  void retire() {
    if (std::exchange(retired, true)) return;
    if (ledReactor) ledReactor->zelDoZombieReactors(true);
    if (clockReactor) clockReactor->zelDoZombieReactors(true);
  }
  std::string name() const { return led ? led->name().stdString() : ""; }
  // When it will tick.
  double nextTick() const {
    return clockReactor && !clockReactor->zelIsZombie() ? clockReactor->wakeUp() : kNever;
  }

  Lines& log;
  std::shared_ptr<Output> output;
  Ptr<const LedConfig> led;
  Ptr<Support::Watcher> ledReactor;
  Ptr<Support::Waker> clockReactor;
  bool flashing = false, initialized = false, retired = false;

 private:
  void record(int level, const std::string& function, const std::string& text) {
    log.push_back(std::to_string(level) + " " + function + ": " + text);
  }
  void show(const LightSetting& setting, bool lit) {
    for (std::size_t colour = 0; colour < kColours.size(); ++colour) write(colour, 0, *output);
    for (std::size_t colour = 0; colour < kColours.size(); ++colour)
      if (lit && setting.*kColours[colour].lit) write(colour, 1, *output);
  }
  void armIn(double interval) { clockReactor->timeMinIs(Zel::System::currentTime() + interval); }
};

// A random number generator with the operations of the run so far, for the message of a mismatch.
struct Dice {
  explicit Dice(unsigned value) : seed(value), random(value) {}
  unsigned below(unsigned n) { return static_cast<unsigned>(random() % n); }
  bool chance(unsigned percent) { return below(100) < percent; }
  template <class T>
  const auto& among(const T& members) {
    return members[below(static_cast<unsigned>(std::size(members)))];
  }
  LightSetting setting(double interval) {
    LightSetting result;
    for (const Colour& colour : kColours) result.*colour.lit = chance(40);
    result.flashInterval = interval;
    return result;
  }
  template <class... Parts>
  void note(const Parts&... parts) {
    std::ostringstream text;
    ((text << parts << ' '), ...);
    operations.push_back(text.str());
  }
  // The last operations are mostly enough; the seed gives all.
  std::string report() const {
    std::string text = "seed " + std::to_string(seed) + ", operation " + std::to_string(operations.size());
    for (std::size_t i = operations.size() - std::min<std::size_t>(operations.size(), 40);
         i < operations.size(); ++i)
      text += "\n  " + std::to_string(i + 1) + " " + operations[i];
    return text + "\n";
  }

  unsigned seed;
  std::mt19937 random;
  Lines operations;
};

// Records as one text, without source and line but where the line is part of the record.
inline std::string joined(const Lines& records) {
  constexpr std::string_view kNumbered = " createDriver createLedConfig handleGpioConfigCleanup ";
  std::string text;
  for (const auto& line : records) {
    const auto source = line.find(" Pinlamp:"), function = line.find(' ', source + 1);
    const auto name = line.substr(function + 1, line.find(':', function) - function - 1);
    const bool whole = source == line.npos || kNumbered.find(" " + name + " ") != kNumbered.npos;
    text += (whole ? line : line.substr(0, source) + line.substr(function)) + "\n";
  }
  return text;
}

}  // namespace Model
