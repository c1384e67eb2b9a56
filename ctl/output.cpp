#include "ctl/output.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <ostream>

#include "ctl/text.h"
#include "platform/zel/core/printable.h"

namespace Ctl {

namespace {

std::size_t bytesOf(unsigned char lead) { return lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4; }

// Payload bits of the lead byte, by length of the UTF-8 sequence less one.
constexpr unsigned kLeadBits[] = {0x7f, 0x1f, 0x0f, 0x07};

// A character as \uXXXX.
std::string escapedCode(std::string_view character) {
  unsigned code = static_cast<unsigned char>(character[0]) & kLeadBits[character.size() - 1];
  for (const char next : character.substr(1)) code = code << 6 | (static_cast<unsigned char>(next) & 0x3fU);
  char text[12];
  std::snprintf(text, sizeof text, "\\u%04x", code);
  return text;
}

bool isPlainAscii(char c) { return (c >= 0x20 && c < 0x7f) || c == '\n'; }

}  // namespace

std::string jsonText(const Json& value, int indent) {
  std::string text;
  const std::string dumped = value.dump(indent);
  text.reserve(dumped.size());
  for (std::string_view rest = dumped; !rest.empty();) {
    const auto ascii = std::ranges::find_if_not(rest, isPlainAscii);
    text.append(rest.begin(), ascii);
    rest.remove_prefix(static_cast<std::size_t>(ascii - rest.begin()));
    if (rest.empty()) break;
    const std::string_view character = rest.substr(0, bytesOf(static_cast<unsigned char>(rest[0])));
    if (Zel::printable(character) == character)
      text += character;
    else
      text += escapedCode(character);
    rest.remove_prefix(character.size());
  }
  return text;
}

void printJson(std::ostream& out, const Json& value) { out << jsonText(value, 2) << '\n'; }

std::string oneLine(const Json& value) {
  if (!value.is_structured() || value.empty()) return jsonText(value);
  std::vector<std::string> parts;
  for (const auto& [key, member] : value.items())
    parts.push_back((value.is_object() ? jsonText(key) + ": " : "") + oneLine(member));
  return value.is_object() ? "{" + joined(parts) + "}" : "[" + joined(parts) + "]";
}

std::string bare(const Json& value) {
  return value.is_string() ? Zel::printable(value.get<std::string>()) : oneLine(value);
}

std::string timeStamp() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char date[24];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S.", &parts);
  const auto micros = (duration_cast<microseconds>(now.time_since_epoch()) % 1s).count();
  const std::string digits = std::to_string(micros);
  return date + std::string(6 - digits.size(), '0') + digits;
}

void Table::add(std::vector<std::string> row) {
  for (std::string& cell : row) cell = Zel::printable(cell);
  rows_.push_back(std::move(row));
}

void Table::print(std::ostream& out) const {
  std::vector<std::size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columnsOf(row[i]));
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i)
      line += row[i] + std::string(widths[i] - columnsOf(row[i]) + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  }
}

}  // namespace Ctl
