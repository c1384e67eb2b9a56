// Tracing of the agent: one facility, "Pinlamp".
#pragma once

#include <ostream>

#include "platform/zel/core/trace.h"

namespace Pinlamp {

// Out of line, so that a function that traces has no more of it than a check.
[[gnu::cold, gnu::noinline]] inline Zel::TraceHandle makeTraceHandle() {
  return Zel::TraceHandle("Pinlamp", false);
}

// The facility's handle: one, made on first use, and there until the library is unloaded.
[[gnu::always_inline]] inline const Zel::TraceHandle& traceHandle() {
  static const Zel::TraceHandle handle = makeTraceHandle();
  return handle;
}

// Writes one record where the level is on: `write` gets the stream, and does not run while it is off.
// `function` is the plain name of the function that traces.
template <class Write>
[[gnu::always_inline]] inline void trace(Zel::TraceFacility::FacilityLevel level, int line,
                                         const char* function, Write&& write) {
  Zel::traceRecord(traceHandle(), level, "Pinlamp", line, function, write);
}

}  // namespace Pinlamp
