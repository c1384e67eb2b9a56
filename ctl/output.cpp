#include "ctl/output.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <ostream>

#include "ctl/text.h"

namespace Ctl {

std::string oneLine(const Json& value) {
  if (!value.is_structured() || value.empty()) return value.dump();
  std::vector<std::string> parts;
  for (const auto& [key, member] : value.items())
    parts.push_back((value.is_object() ? Json(key).dump() + ": " : "") + oneLine(member));
  return value.is_object() ? "{" + joined(parts) + "}" : "[" + joined(parts) + "]";
}

std::string bare(const Json& value) { return value.is_string() ? value.get<std::string>() : oneLine(value); }

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
