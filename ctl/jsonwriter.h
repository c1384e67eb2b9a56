// JSON text that is written as another is read, without a tree between. Files and answers of many entities
// are read so: a tree takes several allocations for each value.
//
//   struct Reader : JsonReader { … };             // calls a JsonWriter for what it keeps
//   reader.read(text);
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl {

// Appends a string with its quotes. Bytes that output escapes are escaped where `isShown`: see jsonText().
void appendString(std::string& text, std::string_view value, bool isShown);

class JsonWriter {
 public:
  // `isShown`: for people, on one line with spaces after ':' and ','.
  explicit JsonWriter(bool isShown) : isShown_(isShown) {}

  void key(std::string_view name);
  void string(std::string_view value);
  // A number, or a literal.
  void token(std::string_view text);
  void open(char bracket);
  void close(char bracket);

  // Returns what was written, and begins with nothing.
  std::string take();

 private:
  void separate();

  const bool isShown_;
  bool isFirst_ = true;   // in the innermost array or object
  bool isKeyed_ = false;  // after a key
  std::string text_;
};

// The events of a text. Overriders return true to go on.
class JsonReader : public nlohmann::json_sax<nlohmann::json> {
 public:
  // A number or a literal, as its text; `type`: "number", "boolean" or "null".
  virtual bool token(const std::string& text, const char* type) = 0;

  bool null() final { return token("null", "null"); }
  bool boolean(bool value) final { return token(value ? "true" : "false", "boolean"); }
  bool number_integer(std::int64_t value) final { return token(std::to_string(value), "number"); }
  bool number_unsigned(std::uint64_t value) final { return token(std::to_string(value), "number"); }
  bool number_float(double, const std::string& text) final { return token(text, "number"); }
  bool binary(nlohmann::json::binary_t&) final { return false; }
  // Throws the parser's own exception.
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& error) final;
};

}  // namespace Ctl
