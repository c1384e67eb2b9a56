#include "ctl/output.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <ostream>

#include "ctl/text.h"
#include "platform/zel/core/printable.h"

namespace Ctl {

std::string jsonText(const Json& value, int indent) {
  std::string text;
  const std::string dumped = value.dump(indent);
  for (std::size_t at = 0; at < dumped.size(); ++at) {
    const auto byte = static_cast<unsigned char>(dumped[at]);
    const auto next = static_cast<unsigned char>(at + 1 < dumped.size() ? dumped[at + 1] : 0);
    const bool above = byte == 0xc2 && next >= 0x80 && next < 0xa0;
    if (byte != 0x7f && !above) {
      text += dumped[at];
      continue;
    }
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(above ? next : byte));
    text += escape;
    at += above ? 1 : 0;
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
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i)
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  }
}

}  // namespace Ctl
