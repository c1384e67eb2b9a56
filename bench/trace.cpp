// What a trace record costs while its level is off.
#include "statemachine/trace.h"

#include "bench/appliance.h"
#include "bench/measure.h"

namespace Bench {

namespace {

// One turn writes a pin that was picked at random: the loop is the same with the record and without.
template <bool Traced>
void turns(benchmark::State& state) {
  static std::vector<Zel::Ptr<Hardware::Gpio::CorvelPinConfig>> pins = [] {
    std::vector<Zel::Ptr<Hardware::Gpio::CorvelPinConfig>> made;
    for (const std::uint32_t pin : shuffled(kLeds))
      made.push_back(Zel::allocate<Hardware::Gpio::CorvelPinConfig>(pinName(pin, 1)));
    return made;
  }();
  std::size_t next = 0;
  for (auto _ : state) {
    auto& pin = *pins[next];
    const std::uint32_t oldValue = pin.value();
    pin.valueIs(oldValue ^ 1U);
    if constexpr (Traced)
      Pinlamp::trace(6, __LINE__, "turns", "Corvel Green Pin: ", pin.name(), "  OldValue: ", oldValue,
                     " NewValue: ", pin.value());
    if (++next == pins.size()) next = 0;
  }
  perItem(state, static_cast<std::size_t>(state.iterations()));
}

}  // namespace

void addTrace() {
  addLoop("trace/with", &turns<true>);
  addLoop("trace/without", &turns<false>);
}

}  // namespace Bench
