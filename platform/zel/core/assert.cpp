#include "platform/zel/core/assert.h"

#undef NDEBUG  // else the C library does not declare what its own assertions end in
#include <cassert>
#include <string>

namespace Zel {

void assertionFailed(const char* expression, const char* source, int line, const char* function,
                     const char* detail) {
  std::string text = expression;
  if (*detail) text.append(", with ").append(detail);
  __assert_fail(text.c_str(), source, static_cast<unsigned>(line), function);
}

}  // namespace Zel
