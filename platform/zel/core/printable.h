// Texts from outside, made safe to show.
//
//   std::cerr << "pinlampd: " << Zel::printable(text) << std::endl;
#pragma once

#include <string>
#include <string_view>

#include "platform/zel/core/export.h"

namespace Zel {

// The text with everything that a terminal or the reader of a log would act on instead of showing it written
// out: control characters (escape sequences begin with one) and bytes that are no UTF-8 as \xXX, characters
// that change the direction of what follows, or end a line, as \uXXXX. Everything else stays as it is, so the
// result is for people, not for reading back.
ZEL_API std::string printable(std::string_view text);

}  // namespace Zel
