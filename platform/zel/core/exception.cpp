#include "platform/zel/core/exception.h"

namespace Zel {

Exception::~Exception() = default;
RangeException::~RangeException() = default;
NameInUseException::~NameInUseException() = default;
OperationNotSupportedException::~OperationNotSupportedException() = default;
ValueError::~ValueError() = default;

void throwRangeException(const char* text) { throw RangeException(text); }
void throwNameInUseException(const String& text) { throw NameInUseException(text.stdString()); }
void throwOperationNotSupportedException(const String& text) {
  throw OperationNotSupportedException(text.stdString());
}

}  // namespace Zel
