// The framework's exceptions, for misuse and for input that does not fit. Each text is the whole message.
#pragma once

#include <stdexcept>

#include "platform/zel/core/export.h"
#include "platform/zel/core/string.h"

namespace Zel {

class ZEL_API Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~Exception() override;
};

// A value outside what an operation takes: a null pointer where one must be valid, an unknown type name.
class ZEL_API RangeException : public Exception {
 public:
  using Exception::Exception;
  ~RangeException() override;
};

// An instantiating setter met an object of that name with other construction values.
class ZEL_API NameInUseException : public Exception {
 public:
  using Exception::Exception;
  ~NameInUseException() override;
};

// The generic interface was asked for an operation that the attribute does not allow.
class ZEL_API OperationNotSupportedException : public Exception {
 public:
  using Exception::Exception;
  ~OperationNotSupportedException() override;
};

// A value that does not fit its attribute or parameter. The text gives what was found and what would be
// right; the caller adds the place (path, attribute).
class ZEL_API ValueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~ValueError() override;
};

[[noreturn]] ZEL_API void throwRangeException(const char* text);
[[noreturn]] ZEL_API void throwNameInUseException(const String& text);
[[noreturn]] ZEL_API void throwOperationNotSupportedException(const String& text);

// Passes on a pointer that must not be null. Throws RangeException "null ValidPtr".
template <class Pointer>
Pointer valid(Pointer pointer) {
  if (!pointer) throwRangeException("null ValidPtr");
  return pointer;
}

}  // namespace Zel
