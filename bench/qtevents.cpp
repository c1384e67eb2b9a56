#include "bench/qtevents.h"

#include <QCoreApplication>

namespace Bench {

QtWatcher::QtWatcher(QtPin& pin, std::uint64_t& notified) : notified_(notified) {
  connect(&pin, &QtPin::changed, this, &QtWatcher::onValue, Qt::QueuedConnection);
}

void QtWatcher::onValue(unsigned value) {
  benchmark::DoNotOptimize(value);
  ++notified_;
}

QtMachine::QtMachine(QtLed& led, std::size_t pins, PinPool<QtPin>& pool, std::uint64_t& notified)
    : led_(led), notified_(notified) {
  for (std::size_t i = 0; i < pins; ++i) {
    pins_.push_back(pool.take());
    watchers_.push_back(std::make_unique<QtWatcher>(*pins_.back(), notified));
  }
  connect(&led, &QtLed::changed, this, &QtMachine::onSetting, Qt::QueuedConnection);
}

void QtMachine::onSetting() {
  if (pins_.empty()) {
    benchmark::DoNotOptimize(led_.setting().green);
    ++notified_;
  }
  for (const auto& pin : pins_) pin->write(0);
  for (std::size_t colour = 0; colour < pins_.size(); ++colour)
    if (lights(led_.setting(), colour)) pins_[colour]->write(1);
}

namespace {

class QtQueued {
 public:
  QtQueued(std::size_t leds, std::size_t pins) : pins_(pins) {
    static int count = 1;
    static char name[] = "pinlamp-bench";
    static char* arguments[] = {name, nullptr};
    static auto& application = *new QCoreApplication(count, arguments);
    static_cast<void>(application);
    PinPool<QtPin> pool(leds * pins);
    for (std::size_t i = 0; i < leds; ++i) {
      leds_.push_back(std::make_unique<QtLed>());
      machines_.push_back(std::make_unique<QtMachine>(*leds_.back(), pins, pool, notified_));
    }
  }
  void set(std::size_t led, const Led::LightSetting& setting) { leds_[led]->settingIs(setting); }
  // Events that are posted while events are sent wait for the next call: the first call notifies the
  // machines, the second the pins' watchers.
  void pass() {
    QCoreApplication::sendPostedEvents();
    if (pins_ != 0) QCoreApplication::sendPostedEvents();
  }
  std::uint64_t notified() const { return notified_; }

 private:
  const std::size_t pins_;
  std::uint64_t notified_ = 0;
  std::vector<std::unique_ptr<QtLed>> leds_;
  std::vector<std::unique_ptr<QtMachine>> machines_;
};

}  // namespace

void addQtEvents() { addEventContestant<QtQueued>("Qt queued"); }

}  // namespace Bench
