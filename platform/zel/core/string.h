// Immutable, counted character strings. Copying one shares the characters.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/zel/core/export.h"
#include "platform/zel/core/ptr.h"

namespace Zel {

// The characters' reference count is atomic where enableThreadSafePointers is on. May hold NUL characters.
class ZEL_API String {
 public:
  String() = default;
  String(const char* text);
  String(const char* text, std::size_t length);
  String(const std::string& text);
  explicit String(std::string_view text);
  String(const String& other);
  String(String&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  ~String();
  String& operator=(const String& other);
  String& operator=(String&& other) noexcept;
  String& operator=(const std::string& text);

  // Ends in a NUL character; valid as long as a String shares the characters.
  const char* charPtr() const;
  std::size_t length() const;
  bool empty() const { return length() == 0; }
  std::string_view view() const { return {charPtr(), length()}; }
  std::string stdString() const { return std::string(view()); }

  friend String operator+(const String& a, const String& b) { return join(a.view(), b.view()); }
  friend String operator+(const char* a, const String& b) { return join(a, b.view()); }
  friend String operator+(const String& a, const char* b) { return join(a.view(), b); }
  friend bool operator==(const String& a, const String& b) { return a.view() == b.view(); }
  friend std::strong_ordering operator<=>(const String& a, const String& b) { return a.view() <=> b.view(); }

 private:
  struct Rep;
  static String join(std::string_view a, std::string_view b);
  static Rep* newRep(std::size_t length);

  Rep* rep_ = nullptr;  // null: the empty string
};

ZEL_API std::ostream& operator<<(std::ostream& out, const String& text);

// A text from outside, for quoting in a message: whole up to `longest` bytes, else its beginning and its
// length. UTF-8 characters stay whole; NUL, which would end the message, becomes \x00.
ZEL_API std::string excerpt(std::string_view text, std::size_t longest = 255);

// As printf. Throws std::bad_alloc, and RangeException where the C library refuses the format.
[[gnu::format(printf, 1, 2)]] ZEL_API String format(const char* text, ...);

}  // namespace Zel

template <>
struct std::hash<Zel::String> {
  std::size_t operator()(const Zel::String& text) const { return std::hash<std::string_view>()(text.view()); }
};
