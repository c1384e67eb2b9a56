#include "facts/sink.h"

namespace Facts {

Zel::Name factName(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string name;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = byte > ' ' && byte < 0x7f;
    const std::string part =
        plain ? std::string(1, c) : std::string{'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    if (name.size() + part.size() > Zel::Name::kLongest) break;
    name += part;
  }
  return Zel::Name(name);
}

}  // namespace Facts
