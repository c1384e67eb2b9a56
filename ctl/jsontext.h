// Limits of the JSON that is read: deep nesting would overflow the stack of whatever copies or prints it.
//
//   if (const auto at = tooDeepAt(text, kInputDepth)) throw Refusal(tooDeep(kInputDepth));
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Ctl {

inline constexpr int kInputDepth = 64;     // of files and arguments; pinlampd accepts no more
inline constexpr int kMessageDepth = 128;  // of messages from the host, which wrap such values

// The offset of the first bracket that is nested deeper than `most`; nullopt if there is none. The text need
// not be valid JSON.
std::optional<std::size_t> tooDeepAt(std::string_view text, int most);
// "nested deeper than 64 levels".
std::string tooDeep(int most);

}  // namespace Ctl
