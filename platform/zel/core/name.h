// Interned names: the keys of entities and of collections.
//
// A Name is a number into one table of texts a process: four bytes, copied and compared as an integer, hashed
// without touching the text. A text that was interned once stays in the table for the life of the process, so
// code that looks up a text from outside (a socket, a command line) uses Name::existing, which adds nothing.
// No name is longer than Name::kLongest: a longer text is refused before anything is interned.
// Names may be made and read on any thread.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "platform/zel/core/export.h"
#include "platform/zel/core/string.h"

namespace Zel {

class ZEL_API Name {
 public:
  static constexpr std::size_t kLongest = 255;  // bytes

  constexpr Name() = default;  // the empty name
  // Throw ValueError where the text is longer than kLongest.
  Name(const char* text) : Name(std::string_view(text)) {}
  Name(const std::string& text) : Name(std::string_view(text)) {}
  Name(const String& text) : Name(text.view()) {}
  explicit Name(std::string_view text);

  // A name as it is written in a path, where escaping makes it up to three times as long. Throws ValueError
  // where the name itself is longer than kLongest.
  static Name escaped(std::string_view text);
  // Throw alike, and add nothing.
  static void check(std::string_view text);
  static void checkEscaped(std::string_view text);
  // The name of a text that is in the table; nullopt where the text was never interned.
  static std::optional<Name> existing(std::string_view text);
  // How many texts the table holds.
  static std::size_t count();

  // Valid for the life of the process; ends in a NUL character.
  std::string_view view() const;
  const char* charPtr() const { return view().data(); }
  std::string stdString() const { return std::string(view()); }
  bool empty() const { return id_ == 0; }
  std::uint32_t id() const { return id_; }

  friend constexpr bool operator==(Name a, Name b) { return a.id_ == b.id_; }
  // By text, so that sorted output reads as one expects.
  friend std::strong_ordering operator<=>(Name a, Name b) { return a.view() <=> b.view(); }

 private:
  std::uint32_t id_ = 0;
};

ZEL_API std::ostream& operator<<(std::ostream& out, Name name);

}  // namespace Zel

template <>
struct std::hash<Zel::Name> {
  std::size_t operator()(Zel::Name name) const { return name.id() * std::size_t{0x9E3779B97F4A7C15}; }
};
