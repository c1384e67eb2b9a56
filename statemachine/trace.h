// Tracing of the agent: one facility, "Pinlamp".
#pragma once

#include <ostream>

#include "platform/zel/trace.h"

namespace Pinlamp {

// The facility's handle; made when the library is loaded, so that using it takes no check.
inline const Zel::TraceHandle kTraceHandle("Pinlamp", false);
inline const Zel::TraceHandle& traceHandle() { return kTraceHandle; }

// Writes one record, made of `parts`, where the level is on. While it is off nothing is formatted; so pass
// parts that cost nothing to name. `function` is the plain name of the function that traces.
template <class... Parts>
inline void trace(Zel::TraceFacility::FacilityLevel level, int line, const char* function,
                  const Parts&... parts) {
  const Zel::TraceHandle& handle = traceHandle();
  if (!handle.facility().enabled(level)) [[likely]]
    return;
  Zel::traceRecord(handle, level, "Pinlamp", line, function,
                   [&](std::ostream& out) { (out << ... << parts); });
}

}  // namespace Pinlamp
