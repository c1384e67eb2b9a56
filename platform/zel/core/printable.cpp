#include "platform/zel/core/printable.h"

#include <cstdint>
#include <cstdio>

namespace Zel {

namespace {

struct Character {
  std::uint32_t code;
  std::size_t length;  // bytes; 0: no UTF-8
};

std::uint8_t byteAt(std::string_view text, std::size_t at) {
  return at < text.size() ? static_cast<std::uint8_t>(text[at]) : 0;
}

// The lowest code that is written in so many bytes.
constexpr std::uint32_t kLowest[] = {0, 0, 0x80, 0x800, 0x10000};

// The first character of a text that is not empty.
Character firstOf(std::string_view text) {
  const std::uint8_t lead = byteAt(text, 0);
  if (lead < 0x80) return {lead, 1};
  const std::size_t length = lead >= 0xf8 ? 0 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 0;
  if (length == 0) return {lead, 0};
  std::uint32_t code = lead & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const std::uint8_t next = byteAt(text, i);
    if ((next & 0xc0) != 0x80) return {lead, 0};
    code = code << 6 | (next & 0x3fU);
  }
  const bool valid = code >= kLowest[length] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
  return valid ? Character{code, length} : Character{lead, 0};
}

bool isControl(std::uint32_t code) { return code < 0x20 || (code >= 0x7f && code < 0xa0); }

// Line and paragraph separators, marks and overrides of direction.
bool misleads(std::uint32_t code) {
  return code == 0x61c || code == 0x200e || code == 0x200f || (code >= 0x2028 && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069);
}

void appendCode(std::string& out, const char* format, std::uint32_t code) {
  char text[12];
  std::snprintf(text, sizeof text, format, static_cast<unsigned>(code));
  out += text;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const auto [code, length] = firstOf(text);
    if (length == 0 || isControl(code))
      appendCode(out, "\\x%02X", code);
    else if (misleads(code))
      appendCode(out, "\\u%04X", code);
    else
      out += text.substr(0, length);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

}  // namespace Zel
