#include "platform/zel/exception.h"

namespace Zel {

Exception::~Exception() = default;
RangeException::~RangeException() = default;
NameInUseException::~NameInUseException() = default;
OperationNotSupportedException::~OperationNotSupportedException() = default;

void throwRangeException(const char* text) { throw RangeException(text); }
void throwNameInUseException(const String& text) { throw NameInUseException(text.stdString()); }
void throwOperationNotSupportedException(const String& text) {
  throw OperationNotSupportedException(text.stdString());
}

}  // namespace Zel
