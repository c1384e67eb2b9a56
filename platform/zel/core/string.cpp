#include "platform/zel/core/string.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>

#include "platform/zel/core/exception.h"

namespace Zel {

// The characters, and the NUL after them, follow the header in the same block.
struct String::Rep {
  std::atomic<std::uint32_t> references{1};
  std::size_t length = 0;

  char* text() { return reinterpret_cast<char*>(this + 1); }
  void newRef() { detail::addToWord(references, 1); }
  void deleteRef() {
    if (detail::addToWord(references, 0U - 1) != 0) return;
    this->~Rep();
    ::operator delete(this);
  }
};

String::Rep* String::newRep(std::size_t length) {
  auto* rep = new (::operator new(sizeof(Rep) + length + 1)) Rep;
  rep->length = length;
  rep->text()[length] = '\0';
  return rep;
}

String::String(std::string_view text) {
  if (text.empty()) return;
  rep_ = newRep(text.size());
  std::memcpy(rep_->text(), text.data(), text.size());
}
String::String(const char* text) : String(std::string_view(text)) {}
String::String(const char* text, std::size_t length) : String(std::string_view(text, length)) {}
String::String(const std::string& text) : String(std::string_view(text)) {}

String::String(const String& other) : rep_(other.rep_) {
  if (rep_) rep_->newRef();
}

String::~String() {
  if (rep_) rep_->deleteRef();
}

String& String::operator=(const String& other) { return *this = String(other); }
String& String::operator=(String&& other) noexcept {
  std::swap(rep_, other.rep_);
  return *this;
}
String& String::operator=(const std::string& text) { return *this = String(text); }

const char* String::charPtr() const { return rep_ ? rep_->text() : ""; }
std::size_t String::length() const { return rep_ ? rep_->length : 0; }

String String::join(std::string_view a, std::string_view b) {
  String result;
  if (a.empty() && b.empty()) return result;
  result.rep_ = newRep(a.size() + b.size());
  std::memcpy(result.rep_->text(), a.data(), a.size());
  std::memcpy(result.rep_->text() + a.size(), b.data(), b.size());
  return result;
}

std::ostream& operator<<(std::ostream& out, const String& text) { return out << text.view(); }

namespace {
std::string withoutNul(std::string_view text) {
  std::string result;
  for (const char c : text) result += c == '\0' ? std::string("\\x00") : std::string(1, c);
  return result;
}
}  // namespace

std::string excerpt(std::string_view text, std::size_t longest) {
  if (text.size() <= longest) return withoutNul(text);
  std::size_t end = longest;
  while (end > 0 && longest - end < 3 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) --end;
  return withoutNul(text.substr(0, end)) + "... (" + std::to_string(text.size()) + " bytes)";
}

String format(const char* text, ...) {
  std::va_list arguments;
  va_start(arguments, text);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, text, arguments);
  va_end(arguments);
  std::string result(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(result.data(), result.size() + 1, text, again);
  va_end(again);
  if (length < 0) throwRangeException("format: the C library refused the format text");
  return String(result);
}

}  // namespace Zel
