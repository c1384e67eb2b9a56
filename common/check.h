// Checks of what must hold.
#pragma once

#include <source_location>

#include "platform/zel/core/assert.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/core/ptr.h"

namespace Pinlamp {

#ifdef __cpp_lib_source_location
using SourceLocation = std::source_location;
#else  // clang 14 cannot compile libstdc++'s
class SourceLocation {
 public:
  static constexpr SourceLocation current(int line = __builtin_LINE(),
                                          const char* function = __builtin_FUNCTION()) {
    return {line, function};
  }
  constexpr int line() const { return line_; }
  constexpr const char* function_name() const { return function_; }

 private:
  constexpr SourceLocation(int line, const char* function) : line_(line), function_(function) {}

  int line_;
  const char* function_;
};
#endif

// Stops the process unless `condition` holds; the record says `expression`, the source "Pinlamp", and the
// line and function of the caller.
template <class Condition>
inline void require(const Condition& condition, const char* expression,
                    const SourceLocation& at = SourceLocation::current()) {
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
