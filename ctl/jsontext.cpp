#include "ctl/jsontext.h"

namespace Ctl {

namespace {

// The offset after the string that begins at `at`.
std::size_t afterString(std::string_view text, std::size_t at) {
  for (++at; at < text.size() && text[at] != '"'; ++at)
    if (text[at] == '\\') ++at;
  return at;
}

}  // namespace

std::optional<std::size_t> tooDeepAt(std::string_view text, int most) {
  int depth = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '"') at = afterString(text, at);
    if (c == ']' || c == '}') --depth;
    if ((c == '[' || c == '{') && ++depth > most) return at;
  }
  return std::nullopt;
}

std::string tooDeep(int most) { return "nested deeper than " + std::to_string(most) + " levels"; }

}  // namespace Ctl
