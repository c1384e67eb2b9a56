// A day of 1,000 LEDs, with the real agent on a store in memory, and time set by hand: each toggles as the
// rule has it, also where wake-ups are late and settings change.
#include <cmath>
#include <queue>
#include <unordered_map>

#include "agent/agent.h"
#include "agent/factory.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/notify/activity.h"
#include "tests/torture/scene.h"

namespace Torture {

namespace {

using Statedb::Change;
using Zel::Value;

constexpr unsigned kDayLeds = 1000;
constexpr double kDay = 24 * 3600, kNever = Zel::Clock::kNever;

// The value of a pin, and how often it changed.
struct Pin {
  std::uint32_t value = 0;
  std::uint64_t changes = 0;
  bool operator==(const Pin&) const = default;
};

// The pin values that the agent publishes.
struct Published : Statedb::Subscriber {
  void onSnapshot(const Statedb::Records&) override {}
  void onChanges(const Statedb::Changes& changes) override {
    for (const Change& change : changes) {
      if (change.kind != Change::Kind::put || change.row.attribute != Zel::Name("value")) continue;
      Pin& pin = pins[change.row.path];
      const auto value = static_cast<std::uint32_t>(*change.row.value.as<std::int64_t>());
      if (std::exchange(pin.value, value) != value) ++pin.changes;
    }
  }
  std::unordered_map<Statedb::Path, Pin> pins;
};

// The rule: a flashing setting arms a timer that is not armed, a steady one is shown at once; a tick changes
// the phase, shows it, and comes again an interval from then; a tick of a steady setting is the last.
struct DayLed {
  double interval = 0, next = kNever;
  bool isGreen = false, isLit = false, isChanged = false;
  Pin pin{};

  void show(bool lit) {
    if (std::exchange(pin.value, lit ? 1U : 0U) != (lit ? 1U : 0U)) ++pin.changes;
  }
  void tick(double time) {
    isLit = !isLit;
    next = interval == 0 ? kNever : time + interval;
    if (interval != 0) show(isLit && isGreen);
  }
  // Returns whether that armed its timer.
  bool apply(double time) {
    isChanged = false;
    if (interval == 0) show(isGreen);
    if (interval == 0 || next != kNever) return false;
    next = time + interval;
    return true;
  }
};

class DayRun {
 public:
  explicit DayRun(Round& round) : round_(round), leds_(kDayLeds) {
    Statedb::Changes changes{
        Change::put("hardware/gpio/config/led", "Hardware::Gpio::GpioLedSystemConfigDir", "", {}),
        Change::put("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "", {})};
    for (unsigned led = 0; led < kDayLeds; ++led) {
      const std::string mapping = "hardware/gpio/config/led/gpioLeds/" + std::to_string(led);
      changes.push_back(Change::put(mapping, "Hardware::Gpio::GpioLedConfig", "gpioGreenName",
                                    Value::List{std::to_string(led)}));
      changes.push_back(Change::put(mapping, "Hardware::Gpio::GpioLedConfig", "ready", true));
    }
    store_.write(changes, Statedb::Durability::stored);
    agent_->entityManagerIs(database_);
    agent_->doInit();
    for (unsigned led = 0; led < kDayLeds; ++led) set(led);
    for (int i = 0; i < 5; ++i) activity_.step(), store_.flush();
    store_.subscribe(Statedb::Path("hardware/corvel/gpio/config"), published_);
    for (unsigned led = 0; led < kDayLeds; ++led)
      if (leds_[led].apply(begin_)) arm(led);
    for (DayLed& led : leds_) led.pin.changes = 0;
    compareValues();
  }
  ~DayRun() {
    store_.unsubscribe(published_);
    database_->stop();
  }

  void operator()() {
    double nextSetting = begin_, nextHour = begin_ + 3600;
    while (time_.now() < begin_ + kDay) {
      const double wakeUp = activity_.nextWakeUp(), expected = armed();
      if (wakeUp > expected)
        throw Failure("the agent wakes at " + std::to_string(wakeUp) + ", a tick is due at " +
                      std::to_string(expected));
      time_.nowIs(std::max(time_.now(), std::min(expected, nextSetting) + lateness()));
      if (time_.now() >= nextSetting) {
        nextSetting = time_.now() + round_.random.within(0, 30);
        set(static_cast<unsigned>(round_.random.below(kDayLeds)));
      }
      pass();
      if (time_.now() < nextHour) continue;
      nextHour += 3600;
      compare();
    }
    ++round_.count("simulated days");
  }

 private:
  double lateness() {
    return round_.random.chance(90) ? 0 : round_.random.within(0, round_.random.chance(1) ? 60 : 0.1);
  }

  void set(unsigned led) {
    DayLed& model = leds_[led];
    model.isGreen = round_.random.chance(90), model.isChanged = true;
    model.interval = round_.random.chance(5)   ? 0
                     : round_.random.chance(1) ? round_.random.within(0.05, 1)
                                               : std::exp(round_.random.within(std::log(4), std::log(2000)));
    changed_.push_back(led);
    store_.write({Change::put("hardware/led/config/leds/" + std::to_string(led), "Hardware::Led::LedConfig",
                              "lightSetting",
                              Value::Fields{{"green", model.isGreen}, {"flashInterval", model.interval}})},
                 Statedb::Durability::stored);
    store_.flush();
    ++round_.count("settings");
  }

  void arm(unsigned led) {
    if (leds_[led].next < kNever) queue_.emplace(leds_[led].next, led);
  }
  // When the next tick is due.
  double armed() {
    while (!queue_.empty() && leds_[queue_.top().second].next != queue_.top().first) queue_.pop();
    return queue_.empty() ? kNever : queue_.top().first;
  }

  void pass() {
    const double now = time_.now();
    std::vector<unsigned> due;
    for (; armed() <= now; queue_.pop()) due.push_back(queue_.top().second);
    for (const unsigned led : due) leds_[led].tick(now), ++round_.count("ticks");
    for (const unsigned led : due) arm(led);
    for (const unsigned led : changed_)
      if (leds_[led].isChanged && leds_[led].apply(now)) arm(led);
    changed_.clear();
    activity_.step();
    store_.flush();
  }

  Pin found(unsigned led) const {
    const auto pin =
        published_.pins.find(Statedb::Path("hardware/corvel/gpio/config/" + std::to_string(led)));
    return pin == published_.pins.end() ? Pin() : pin->second;
  }
  void compare() {
    for (unsigned led = 0; led < kDayLeds; ++led)
      if (const Pin pin = found(led); !(pin == leds_[led].pin))
        throw Failure("after " + std::to_string(time_.now() - begin_) + " s the pin of LED " +
                      std::to_string(led) + " (interval " + std::to_string(leds_[led].interval) +
                      ") changed " + std::to_string(pin.changes) + " times and shows " +
                      std::to_string(pin.value) + ", by the rule " + std::to_string(leds_[led].pin.changes) +
                      " times, to " + std::to_string(leds_[led].pin.value));
    ++round_.count("comparisons of all LEDs");
  }
  // Before the first pass: the subscriber's snapshot is not counted.
  void compareValues() {
    for (unsigned led = 0; led < kDayLeds; ++led) {
      const auto rows = store_.read(Statedb::Path("hardware/corvel/gpio/config/" + std::to_string(led)));
      if (rows.size() != 1) throw Failure("LED " + std::to_string(led) + " has no pin");
      published_.pins[rows[0]->path] = {leds_[led].pin.value, 0};
    }
  }

  Round& round_;
  const double begin_ = 1000;
  Zel::System::ManualTime time_{begin_};
  Zel::ActivityManager activity_;
  Statedb::MemoryStore store_;
  Zel::Ptr<Statedb::EntityManager> database_ = Zel::allocate<Statedb::EntityManager>(store_);
  Zel::Ptr<Pinlamp::Agent> agent_ = Pinlamp::agentFactory("agent");
  Published published_;
  std::vector<DayLed> leds_;
  std::vector<unsigned> changed_{};
  std::priority_queue<std::pair<double, unsigned>, std::vector<std::pair<double, unsigned>>, std::greater<>>
      queue_{};
};

}  // namespace

void dayRound(Round& round) {
  DayRun run(round);
  run();
}

}  // namespace Torture
