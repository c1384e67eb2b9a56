// Assertions: for bugs, never for input. They stop the process in release builds too.
#pragma once

#include <sstream>

#include "platform/zel/core/export.h"

namespace Zel {

// Fails as the C library's own assertions do: writes "PROGRAM: SOURCE:LINE: FUNCTION: Assertion `EXPRESSION'
// failed." to the standard error stream and aborts the process. The texts are printed as they are given;
// `detail`, where there is any, follows the expression.
[[noreturn]] ZEL_API void assertionFailed(const char* expression, const char* source, int line,
                                          const char* function, const char* detail = "");

}  // namespace Zel

// The source that a failed check names. A library with a name of its own for its sources defines it.
#ifndef ZEL_SOURCE
#define ZEL_SOURCE __FILE__
#endif

// Stops the process unless `condition` holds; the record names the condition, the source, the line and the
// function.
#define ZEL_ASSERT(condition)                        \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : ::Zel::assertionFailed(#condition, ZEL_SOURCE, __LINE__, __PRETTY_FUNCTION__))

// A precondition (`REQUIRES:` in the header): as ZEL_ASSERT, and prints `operands`, an output expression such
// as `"index " << index << " of " << size`.
#define ZEL_REQUIRE(condition, operands)                                                                    \
  do {                                                                                                      \
    if (__builtin_expect(!static_cast<bool>(condition), 0)) {                                               \
      std::ostringstream zelText;                                                                           \
      zelText << operands;                                                                                  \
      ::Zel::assertionFailed(#condition, ZEL_SOURCE, __LINE__, __PRETTY_FUNCTION__, zelText.str().c_str()); \
    }                                                                                                       \
  } while (false)
