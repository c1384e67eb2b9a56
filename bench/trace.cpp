// The cost of a trace record whose level is off.
#include "common/trace.h"

#include "bench/appliance.h"
#include "bench/measure.h"

namespace Bench {

namespace {

using Pin = Hardware::Gpio::CorvelPinConfig;

class Watcher : public Zel::Reactor<Watcher, Pin::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Bench::TraceWatcher";
  using Reactor::Reactor;
};

// Pins in random order, each with a watcher as in production.
class Pins {
 public:
  Pins() {
    for (std::size_t pin = 0; pin < kLeds; ++pin) pins_.push_back(Zel::allocate<Pin>(pinName(pin, 1)));
    for (const auto& pin : pins_) watchers_.push_back(Zel::allocate<Watcher>(Zel::Ptr<const Pin>(pin)));
    for (const std::uint32_t pin : shuffled(kLeds)) picked_.push_back(pins_[pin].get());
  }
  Pin* const* begin() const { return picked_.data(); }
  Pin* const* end() const { return picked_.data() + picked_.size(); }

 private:
  std::vector<Zel::Ptr<Pin>> pins_;
  std::vector<Zel::Ptr<Watcher>> watchers_;
  std::vector<Pin*> picked_;
};

const Pins& allPins() {
  static const Pins pins;
  return pins;
}

// A turn writes one pin as the state machine does, with or without its trace record. Nothing is delivered.
template <bool Traced>
void turns(benchmark::State& state) {
  const Pins& pins = allPins();
  Pin* const* next = pins.begin();
  Pin* const* const end = pins.end();
  for (auto _ : state) {
    Pin& pin = **next;
    const std::uint32_t oldValue = pin.value();
    pin.valueIs(oldValue ^ 1U);
    if constexpr (Traced)
      Pinlamp::trace(6, __LINE__, "turns", [&](std::ostream& out) {
        out << "Corvel Green Pin: " << pin.name() << "  OldValue: " << oldValue
            << " NewValue: " << pin.value();
      });
    if (++next == end) next = pins.begin();
  }
  perItem(state, static_cast<std::size_t>(state.iterations()));
}

}  // namespace

void addTrace() {
  addLoop("trace/with", &turns<true>);
  addLoop("trace/without", &turns<false>);
}

}  // namespace Bench
