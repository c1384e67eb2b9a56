// The contestants of the light-setting event: the agent, two hand-written programs, and two signal libraries.
#include "bench/events.h"

#include <sigc++/sigc++.h>

#include <array>
#include <boost/signals2.hpp>
#include <memory>

#include "bench/appliance.h"

namespace Bench {

namespace {

// The agent as in production: the real reactor and state machines over the entities of its mounts.
class Agent {
 public:
  Agent(std::size_t leds, std::size_t pins) : pins_(pins), appliance_(pins == 0 ? 0 : leds) {
    for (std::size_t i = 0; i < leds; ++i) watch(i);
  }
  void set(std::size_t led, const Led::LightSetting& setting) { leds_[led]->lightSettingIs(setting); }
  void pass() { Zel::activityManager().step(); }
  std::uint64_t notified() const { return notified_; }

 private:
  using LedConfig = Hardware::Led::LedConfig;
  using PinConfig = Hardware::Gpio::CorvelPinConfig;

  class LedWatcher : public Zel::Reactor<LedWatcher, LedConfig::NotifieeConst> {
   public:
    static constexpr const char* kTypeName = "Bench::LedWatcher";
    LedWatcher(const Zel::Ptr<const LedConfig>& led, std::uint64_t& notified)
        : Reactor(led), notified_(notified) {}
    void onLightSetting() override {
      benchmark::DoNotOptimize(notifier()->lightSetting().green);
      ++notified_;
    }

   private:
    std::uint64_t& notified_;
  };

  class PinWatcher : public Zel::Reactor<PinWatcher, PinConfig::NotifieeConst> {
   public:
    static constexpr const char* kTypeName = "Bench::PinWatcher";
    PinWatcher(const Zel::Ptr<const PinConfig>& pin, std::uint64_t& notified)
        : Reactor(pin), notified_(notified) {}
    void onValue() override {
      benchmark::DoNotOptimize(notifier()->value());
      ++notified_;
    }

   private:
    std::uint64_t& notified_;
  };

  void watch(std::size_t number) {
    if (pins_ == 0) {
      leds_.push_back(ledDir_->ledsIs(ledName(number)).get());
      watchers_.push_back(Zel::allocate<LedWatcher>(Zel::Ptr<const LedConfig>(leds_.back()), notified_));
      return;
    }
    leds_.push_back(&appliance_.led(number));
    for (std::size_t colour = 0; colour < pins_; ++colour)
      for (const auto& pin : appliance_.pins(number, colour))
        watchers_.push_back(Zel::allocate<PinWatcher>(Zel::Ptr<const PinConfig>(pin), notified_));
  }

  const std::size_t pins_;
  std::uint64_t notified_ = 0;
  Zel::Ptr<Hardware::Led::LedSystemConfigDir> ledDir_ =
      Zel::allocate<Hardware::Led::LedSystemConfigDir>("config");
  Appliance appliance_;
  std::vector<LedConfig*> leds_;
  std::vector<Zel::Ptr<Zel::NotifieeBase>> watchers_;
};

// The floor: no notification; changes are counted where they happen.
class BareLoop {
 public:
  BareLoop(std::size_t leds, std::size_t pins) : pins_(pins) {
    PinPool<std::uint32_t> pool(leds * pins);
    for (std::size_t i = 0; i < leds; ++i) {
      leds_.push_back(std::make_unique<BareLed>());
      for (std::size_t colour = 0; colour < pins; ++colour) leds_.back()->pins[colour] = pool.take();
    }
  }
  void set(std::size_t number, const Led::LightSetting& setting) {
    BareLed& led = *leds_[number];
    if (led.setting == setting) return;
    led.setting = setting;
    if (pins_ == 0) ++notified_;
    for (std::size_t colour = 0; colour < pins_; ++colour) write(*led.pins[colour], 0);
    for (std::size_t colour = 0; colour < pins_; ++colour)
      if (lights(setting, colour)) write(*led.pins[colour], 1);
  }
  void pass() {}
  std::uint64_t notified() const { return notified_; }

 private:
  struct BareLed {
    Led::LightSetting setting;
    std::array<std::unique_ptr<std::uint32_t>, kPins> pins;
  };

  void write(std::uint32_t& pin, std::uint32_t value) {
    if (pin == value) return;
    pin = value;
    ++notified_;
  }

  const std::size_t pins_;
  std::vector<std::unique_ptr<BareLed>> leds_;
  std::uint64_t notified_ = 0;
};

// Written by hand for this job only: each LED and each pin embeds one subscription, and a notified
// subscription is linked into one queue until its turn comes.
class HandQueue {
 public:
  HandQueue(std::size_t leds, std::size_t pins) : pins_(pins) {
    PinPool<HandPin> pool(leds * pins);
    for (std::size_t i = 0; i < leds; ++i) {
      leds_.push_back(std::make_unique<HandLed>());
      leds_.back()->handler = pins == 0 ? &HandQueue::countLed : &HandQueue::showLed;
      for (std::size_t colour = 0; colour < pins; ++colour) {
        leds_.back()->pins[colour] = pool.take();
        leds_.back()->pins[colour]->handler = &HandQueue::countPin;
      }
    }
  }
  void set(std::size_t number, const Led::LightSetting& setting) {
    HandLed& led = *leds_[number];
    if (led.setting == setting) return;
    led.setting = setting;
    mark(led);
  }
  void pass() {
    while (Subscription* first = first_) {
      first_ = first->next;
      if (!first_) last_ = &first_;
      first->pending = false;
      first->handler(*this, *first);
    }
  }
  std::uint64_t notified() const { return notified_; }

 private:
  struct Subscription {
    Subscription* next = nullptr;
    void (*handler)(HandQueue&, Subscription&) = nullptr;
    bool pending = false;
  };
  struct HandPin : Subscription {
    std::uint32_t value = 0;
  };
  struct HandLed : Subscription {
    Led::LightSetting setting;
    std::array<std::unique_ptr<HandPin>, kPins> pins;
  };

  void mark(Subscription& subscription) {
    if (subscription.pending) return;
    subscription.pending = true;
    subscription.next = nullptr;
    *last_ = &subscription;
    last_ = &subscription.next;
  }
  void write(HandPin& pin, std::uint32_t value) {
    if (pin.value == value) return;
    pin.value = value;
    mark(pin);
  }
  static void showLed(HandQueue& self, Subscription& subscription) {
    auto& led = static_cast<HandLed&>(subscription);
    for (const auto& pin : led.pins) self.write(*pin, 0);
    for (std::size_t colour = 0; colour < kPins; ++colour)
      if (lights(led.setting, colour)) self.write(*led.pins[colour], 1);
  }
  static void countLed(HandQueue& self, Subscription& subscription) {
    benchmark::DoNotOptimize(static_cast<HandLed&>(subscription).setting.green);
    ++self.notified_;
  }
  static void countPin(HandQueue& self, Subscription& subscription) {
    benchmark::DoNotOptimize(static_cast<HandPin&>(subscription).value);
    ++self.notified_;
  }

  const std::size_t pins_;
  std::vector<std::unique_ptr<HandLed>> leds_;
  Subscription* first_ = nullptr;
  Subscription** last_ = &first_;
  std::uint64_t notified_ = 0;
};

struct Sigc {
  template <class... Args>
  using Signal = sigc::signal<void(Args...)>;
  template <class... Args>
  static void emit(Signal<Args...>& signal, Args... args) {
    signal.emit(args...);
  }
  template <class S, class T, class... Args>
  static void connect(S& signal, T& object, void (T::*handler)(Args...)) {
    signal.connect(sigc::mem_fun(object, handler));
  }
  using Base = sigc::trackable;
};

struct Signals2 {
  template <class... Args>
  using Signal = boost::signals2::signal<void(Args...)>;
  template <class... Args>
  static void emit(Signal<Args...>& signal, Args... args) {
    signal(args...);
  }
  template <class S, class T, class... Args>
  static void connect(S& signal, T& object, void (T::*handler)(Args...)) {
    signal.connect([&object, handler](Args... args) { (object.*handler)(args...); });
  }
  struct Base {};
};

// LEDs, machines, pins and watchers, connected by the signals of a library that calls its slots immediately.
template <class Library>
class Immediate {
 public:
  Immediate(std::size_t leds, std::size_t pins) {
    PinPool<SignalPin> pool(leds * pins);
    for (std::size_t i = 0; i < leds; ++i) {
      leds_.push_back(std::make_unique<SignalLed>());
      machines_.push_back(std::make_unique<Machine>(*this, *leds_.back(), pins, pool));
    }
  }
  void set(std::size_t number, const Led::LightSetting& setting) {
    SignalLed& led = *leds_[number];
    if (led.setting == setting) return;
    led.setting = setting;
    Library::emit(led.changed);
  }
  void pass() {}
  std::uint64_t notified() const { return notified_; }

 private:
  struct SignalLed {
    Led::LightSetting setting;
    typename Library::template Signal<> changed;
  };
  struct SignalPin {
    std::uint32_t value = 0;
    typename Library::template Signal<std::uint32_t> changed;

    void write(std::uint32_t next) {
      if (value == next) return;
      value = next;
      Library::emit(changed, next);
    }
  };
  struct Watcher : Library::Base {
    Watcher(Immediate& w, SignalPin& pin) : world(w) {
      Library::connect(pin.changed, *this, &Watcher::onValue);
    }
    void onValue(std::uint32_t value) {
      benchmark::DoNotOptimize(value);
      ++world.notified_;
    }
    Immediate& world;
  };
  struct Machine : Library::Base {
    Machine(Immediate& w, SignalLed& theLed, std::size_t pinCount, PinPool<SignalPin>& pool)
        : world(w), led(theLed) {
      for (std::size_t i = 0; i < pinCount; ++i) {
        pins.push_back(pool.take());
        watchers.push_back(std::make_unique<Watcher>(world, *pins.back()));
      }
      Library::connect(led.changed, *this, &Machine::onSetting);
    }
    void onSetting() {
      if (pins.empty()) {
        benchmark::DoNotOptimize(led.setting.green);
        ++world.notified_;
      }
      for (const auto& pin : pins) pin->write(0);
      for (std::size_t colour = 0; colour < pins.size(); ++colour)
        if (lights(led.setting, colour)) pins[colour]->write(1);
    }
    Immediate& world;
    SignalLed& led;
    std::vector<std::unique_ptr<SignalPin>> pins;
    std::vector<std::unique_ptr<Watcher>> watchers;
  };

  std::vector<std::unique_ptr<SignalLed>> leds_;
  std::vector<std::unique_ptr<Machine>> machines_;
  std::uint64_t notified_ = 0;
};

}  // namespace

void addEvents() {
  addEventContestant<Agent>("pinlamp");
  addEventContestant<BareLoop>("loop over pins");
  addEventContestant<HandQueue>("hand-written queue");
  addEventContestant<Immediate<Sigc>>("libsigc++");
  addEventContestant<Immediate<Signals2>>("Boost.Signals2");
}

}  // namespace Bench
