// What an LED's machine does, told a second time in plain structures, for tests that perform random
// operations on both and compare.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <memory>
#include <random>
#include <sstream>

#include "platform/zel/notify/clock.h"
#include "tests/statemachine/bench.h"

namespace Model {

using Bench::LedConfig;
using Bench::Lines;
using Bench::Ptr;
using Led::LightSetting;
constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr std::array kColours{"Yellow", "Green", "Red", "Orange"};

struct Pin {
  std::string name;
  std::uint32_t value = 0;
};

// An LED's pins by colour, each colour's in the order in which they came.
struct Output {
  std::string name, system;
  std::array<std::vector<std::shared_ptr<Pin>>, 4> pins;

  void add(std::size_t colour, const std::shared_ptr<Pin>& pin) {
    if (std::ranges::count(pins[colour], pin) != 0) return;
    std::erase_if(pins[colour], [&](const auto& other) { return other->name == pin->name; });
    pins[colour].push_back(pin);
  }
};

struct Queue;

// A reactor: what it watches, whether it is notified, and what is marked on it.
struct Watcher {
  Watcher(Queue& its, std::function<void()> onChange, std::function<void(std::string)> onKeyChange = {});
  ~Watcher();
  void watch(const Ptr<const Zel::Notifier>& notifier) { drop(), watched = notifier; }
  void activeIs(bool notified) { active = notified, notified ? void() : drop(); }
  void zombieIs(bool retired) { zombie = retired, retired ? drop() : void(); }
  bool hears() const { return active && !zombie && watched && !watched->zelIsGone(); }
  void drop();

  Queue& queue;
  std::function<void()> on;
  std::function<void(std::string)> onKey;
  Ptr<const Zel::Notifier> watched;
  bool active = true, zombie = false, marked = false;
  Lines keys;
};

// The reactors, and those among them that are pending, in the order in which they became it.
struct Queue {
  // `key` is empty where a plain attribute changed; `handled` where its handler does something.
  void changed(const Zel::Notifier* notifier, const std::string& key = "", bool handled = true) {
    for (Watcher* each : all) {
      if (each->watched.get() != notifier || !each->active || each->zombie) continue;
      if (key.empty())
        each->marked |= handled;
      else if (std::ranges::count(each->keys, key) == 0)
        each->keys.push_back(key);
      if (std::ranges::count(pending, each) == 0) pending.push_back(each);
    }
  }
  void deliver() {
    while (!pending.empty()) {
      Watcher& next = *pending.front();
      if (!next.hears()) {
        next.drop();
        continue;
      }
      pending.pop_front();
      const Lines keys = std::exchange(next.keys, {});
      if (std::exchange(next.marked, false) && next.on) next.on();
      for (const auto& key : keys)
        if (next.onKey) next.onKey(key);
    }
  }

  std::vector<Watcher*> all;
  std::deque<Watcher*> pending;
};

inline Watcher::Watcher(Queue& its, std::function<void()> onChange,
                        std::function<void(std::string)> onKeyChange)
    : queue(its), on(std::move(onChange)), onKey(std::move(onKeyChange)) {
  queue.all.push_back(this);
}
inline Watcher::~Watcher() { drop(), std::erase(queue.all, this); }
inline void Watcher::drop() { std::erase(queue.pending, this), marked = false, keys.clear(); }

struct Machine {
  Machine(Queue& its, Lines& records, const std::shared_ptr<Output>& pins,
          const Ptr<const LedConfig>& watched)
      : queue(its), log(records), output(pins) {
    ledIs(watched);
    initialize();
  }

  void ledIs(const Ptr<const LedConfig>& watched) {
    watch(ledReactor, watched, [this] { applyLed(); });
    led = watched;
  }
  void clockIs(const Ptr<const Zel::Clock>& clock) {
    if (!clockReactor || !clock) disarm();
    watch(clockReactor, clock, {});
  }
  void initialize() {
    say(6, "handleInitialized", "handleInitialized for " + name());
    if (initialized) return;
    flashing = false;
    clockIs(Zel::activityManager().clock());
    disarm();
    initialized = true;
    applyLed();
  }
  void applyLed() {
    if (!initialized) return;
    say(7, "handleHwLedConfig", "handleHwLedConfig " + name());
    if (led) apply(led->lightSetting());
  }
  void apply(const LightSetting& setting) {
    if (!initialized) return;
    std::ostringstream text;
    text << "handleLedSystemConfig " << (output ? output->name : "") << ' ' << setting << "Config: <"
         << (output ? "Hardware::Gpio::CorvelGpioLedSystemConfigDir " + output->system : "null") << '>';
    say(8, "handleLedSystemConfig", text.str());
    if (setting.flashInterval != 0.0)
      isArmed() ? void() : armIn(setting.flashInterval);
    else if (output)
      show(setting, true);
  }
  void tick() {
    if (!initialized) return;
    say(8, "handleClockTimeout", "handleClockTimeout for " + name());
    flashing = !flashing;
    const LightSetting setting = led->lightSetting();
    if (setting.flashInterval == 0.0) return disarm();
    say(8, "handleClockTimeout", "Led " + name() + " is now " + (flashing ? "1" : "0"));
    show(setting, flashing);
    armIn(setting.flashInterval);
  }
  void write(std::size_t colour, std::uint32_t value, Output& pins) {
    const std::string text = kColours[colour], operation = "handleCorvelGpio" + text;
    say(9, operation, operation + " " + pins.name);
    for (const auto& pin : pins.pins[colour]) {
      const auto old = std::exchange(pin->value, value);
      if (old != value)
        say(6, operation,
            "Corvel " + text + " Pin: " + pin->name + "  OldValue: " + std::to_string(old) +
                " NewValue: " + std::to_string(value));
    }
  }
  // One pass of a clock.
  void advance(const Zel::Notifier* clock, double now) {
    if (!isDue(now) || clockReactor->watched.get() != clock) return;
    expiring = false;
    if (clockReactor->hears()) tick();
  }
  void activeIs(bool on) {
    if (std::exchange(active, on) == on) return;
    for (auto* each : {ledReactor.get(), clockReactor.get()})
      if (each) each->activeIs(on);
  }
  void zombieIs(bool retired) {
    if (std::exchange(zombie, retired) == retired) return;
    for (auto* each : {ledReactor.get(), clockReactor.get()})
      if (each) each->zombieIs(retired);
  }
  std::string name() const { return led ? led->name().stdString() : ""; }
  bool isArmed() const { return wakeUp <= std::numeric_limits<double>::max(); }
  bool isDue(double now) const { return expiring && wakeUp <= now; }
  // Whether a wake-up would come that is not delivered, though it could be later.
  bool misses(double now) const { return isDue(now) && !clockReactor->active && !clockReactor->zombie; }

  Queue& queue;
  Lines& log;
  std::shared_ptr<Output> output;
  Ptr<const LedConfig> led;
  std::unique_ptr<Watcher> ledReactor, clockReactor;
  bool flashing = false, initialized = false, active = true, zombie = false;
  double wakeUp = kNever;
  bool expiring = false;  // the wake-up is still to come

 private:
  void watch(std::unique_ptr<Watcher>& slot, const Ptr<const Zel::Notifier>& notifier,
             const std::function<void()>& on) {
    if (!notifier) return slot.reset();
    if (!slot) slot = std::make_unique<Watcher>(queue, on);
    if (slot->watched != notifier) slot->watch(notifier);
  }
  void say(int level, const std::string& function, const std::string& text) {
    log.push_back(std::to_string(level) + " " + function + ": " + text);
  }
  void show(const LightSetting& setting, bool lit) {
    for (std::size_t colour = 0; colour < 4; ++colour) write(colour, 0, *output);
    const std::array set{setting.yellow, setting.green, setting.red, setting.orange};
    for (std::size_t colour = 0; colour < 4; ++colour)
      if (lit && set[colour]) write(colour, 1, *output);
  }
  void disarm() { wakeUp = kNever, expiring = false; }
  void armIn(double interval) {
    wakeUp = Zel::System::currentTime() + interval;
    if (std::isnan(wakeUp)) wakeUp = kNever;
    expiring = wakeUp < kNever;
  }
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
    for (bool* colour : {&result.orange, &result.green, &result.red, &result.yellow}) *colour = chance(40);
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
  for (const auto& record : records) {
    const auto source = record.find(" Pinlamp:"), function = record.find(' ', source + 1);
    const auto name = record.substr(function + 1, record.find(':', function) - function - 1);
    const bool whole = source == record.npos || kNumbered.find(" " + name + " ") != kNumbered.npos;
    text += (whole ? record : record.substr(0, source) + record.substr(function)) + "\n";
  }
  return text;
}

}  // namespace Model
