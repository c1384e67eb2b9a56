// Checks of what must hold.
#pragma once

#include <source_location>

#include "platform/zel/assert.h"
#include "platform/zel/exception.h"
#include "platform/zel/ptr.h"

namespace Pinlamp {

// Stops the process unless `condition` holds; the record says `expression`, the source "Pinlamp", and the
// line and function of the caller.
template <class Condition>
inline void require(const Condition& condition, const char* expression,
                    const std::source_location& at = std::source_location::current()) {
  if (!condition) [[unlikely]]
    Zel::assertionFailed(expression, "Pinlamp", static_cast<int>(at.line()), at.function_name());
}

// Passes on a pointer that must not be null. Throws RangeException "null ValidPtr".
template <class T>
Zel::Ptr<T> valid(Zel::Ptr<T> pointer) {
  if (!pointer) Zel::throwRangeException("null ValidPtr");
  return pointer;
}

}  // namespace Pinlamp
