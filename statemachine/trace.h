// Tracing of the agent: one facility, "Pinlamp".
#pragma once

#include <ostream>

#include "platform/zel/trace.h"

namespace Pinlamp {

// The facility's handle; made when the library is loaded, so that using it takes no check.
inline const Zel::TraceHandle kTraceHandle("Pinlamp", false);

// Writes one record where the level is on: `write` gets the stream, and does not run while it is off.
// `function` is the plain name of the function that traces.
template <class Write>
[[gnu::always_inline]] inline void trace(Zel::TraceFacility::FacilityLevel level, int line,
                                         const char* function, Write&& write) {
  Zel::traceRecord(kTraceHandle, level, "Pinlamp", line, function, write);
}

}  // namespace Pinlamp
