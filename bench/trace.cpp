// What a trace record costs while its level is off.
#include "statemachine/trace.h"

#include "bench/measure.h"

namespace Bench {

namespace {

// One turn is work of the size of a pin write: the loop is the same with the record and without.
template <bool Traced>
void turns(benchmark::State& state) {
  static std::vector<std::uint32_t> values(kLeds * kPins);
  std::size_t next = 0;
  for (auto _ : state) {
    std::uint32_t& value = values[next];
    value ^= 1U;
    if constexpr (Traced) Pinlamp::trace(6, __LINE__, "turns", "Corvel Green Pin: ", value, " of ", next);
    if (++next == values.size()) next = 0;
    benchmark::ClobberMemory();
  }
  perItem(state, static_cast<std::size_t>(state.iterations()));
}

}  // namespace

void addTrace() {
  addLoop("trace/with", &turns<true>);
  addLoop("trace/without", &turns<false>);
}

}  // namespace Bench
