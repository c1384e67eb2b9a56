// Interned names: the keys of entities and of collections.
//
// A Name is a number into one table of texts a process: four bytes, compared as an integer, hashed without
// touching the text. The table counts the copies of a name and drops its text with the last one, so names
// that come and go from outside cost nothing once they are gone. A name that a string literal made first is
// permanent, and copying it counts nothing.
// No name is longer than Name::kLongest: a longer text is refused before anything is interned.
// Names may be made, copied and read on any thread.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/zel/core/export.h"
#include "platform/zel/core/string.h"

namespace Zel {

class ZEL_API Name {
 public:
  static constexpr std::size_t kLongest = 255;  // bytes

  constexpr Name() = default;  // the empty name
  // Throw ValueError where the text is longer than kLongest. The first makes a permanent name, so it is for
  // literals.
  Name(const char* text);
  Name(const std::string& text) : Name(std::string_view(text)) {}
  Name(const String& text) : Name(text.view()) {}
  explicit Name(std::string_view text);
  Name(const Name& other) noexcept : id_(other.id_) { addUser(); }
  Name(Name&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  Name& operator=(const Name& other) noexcept {
    other.addUser();
    dropUser();
    id_ = other.id_;
    return *this;
  }
  Name& operator=(Name&& other) noexcept {
    std::swap(id_, other.id_);
    return *this;
  }
  constexpr ~Name() { dropUser(); }

  // A name as it is written in a path, where escaping makes it up to three times as long. Throws ValueError
  // where the name itself is longer than kLongest.
  static Name escaped(std::string_view text);
  // Throw alike, and add nothing.
  static void check(std::string_view text);
  static void checkEscaped(std::string_view text);
  // The name of a text that is in the table; nullopt where it is not.
  static std::optional<Name> existing(std::string_view text);
  // How many texts the table holds.
  static std::size_t count();

  // Valid as long as any copy of the name; ends in a NUL character.
  std::string_view view() const;
  const char* charPtr() const { return view().data(); }
  std::string stdString() const { return std::string(view()); }
  bool empty() const { return id_ == 0; }
  std::uint32_t id() const { return id_; }

  friend constexpr bool operator==(const Name& a, const Name& b) { return a.id_ == b.id_; }
  // By text, so that sorted output reads as one expects.
  friend std::strong_ordering operator<=>(const Name& a, const Name& b) { return a.view() <=> b.view(); }

 private:
  static constexpr std::uint32_t kCounted = 1U << 31;  // set in the id of a name that is not permanent

  constexpr void addUser() const noexcept {
    if ((id_ & kCounted) != 0) addUser(id_);
  }
  constexpr void dropUser() const noexcept {
    if ((id_ & kCounted) != 0) dropUser(id_);
  }
  Name(std::string_view text, std::uint32_t users);
  static std::uint32_t idAt(std::uint32_t position);
  static void addUser(std::uint32_t id) noexcept;
  static void dropUser(std::uint32_t id) noexcept;

  std::uint32_t id_ = 0;
};

ZEL_API std::ostream& operator<<(std::ostream& out, const Name& name);

}  // namespace Zel

template <>
struct std::hash<Zel::Name> {
  std::size_t operator()(const Zel::Name& name) const { return name.id() * std::size_t{0x9E3779B97F4A7C15}; }
};
