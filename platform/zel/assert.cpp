#include "platform/zel/assert.h"

#include <cstdio>
#include <cstdlib>

namespace Zel {

void assertionFailed(const char* expression, const char* source, int line, const char* function,
                     const char* detail) {
  std::fprintf(stderr, "%s:%d: %s: Assertion \"%s\" failed.%s%s\n", source, line, function, expression,
               *detail ? " " : "", detail);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Zel
