#include "statemachine/trace.h"

namespace Pinlamp {

const Zel::TraceHandle& traceHandle() {
  static const Zel::TraceHandle handle("Pinlamp", false);
  return handle;
}

}  // namespace Pinlamp
