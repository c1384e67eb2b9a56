#include "ctl/jsonwriter.h"

#include <algorithm>
#include <utility>

#include "ctl/output.h"

namespace Ctl {

namespace {

bool isPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
}

}  // namespace

void appendString(std::string& text, std::string_view value, bool isShown) {
  if (std::ranges::all_of(value, isPlain)) {
    text += '"';
    text += value;
    text += '"';
  } else {
    const nlohmann::json string(value);
    text += isShown ? jsonText(string) : string.dump();
  }
}

void JsonWriter::separate() {
  if (!std::exchange(isFirst_, false) && !isKeyed_) text_ += isShown_ ? ", " : ",";
  isKeyed_ = false;
}

void JsonWriter::key(std::string_view name) {
  separate();
  appendString(text_, name, isShown_);
  text_ += isShown_ ? ": " : ":";
  isKeyed_ = true;
}

void JsonWriter::string(std::string_view value) {
  separate();
  appendString(text_, value, isShown_);
}

void JsonWriter::token(std::string_view text) {
  separate();
  text_ += text;
}

void JsonWriter::open(char bracket) {
  separate();
  text_ += bracket;
  isFirst_ = true;
}

void JsonWriter::close(char bracket) {
  text_ += bracket;
  isFirst_ = false;
}

std::string JsonWriter::take() {
  isFirst_ = true;
  return std::exchange(text_, {});
}

bool JsonReader::parse_error(std::size_t, const std::string&, const nlohmann::json::exception& error) {
  if (const auto* syntax = dynamic_cast<const nlohmann::json::parse_error*>(&error)) throw *syntax;
  if (const auto* range = dynamic_cast<const nlohmann::json::out_of_range*>(&error)) throw *range;
  return false;
}

}  // namespace Ctl
