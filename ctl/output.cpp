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
  const auto now = system_clock::now().time_since_epoch();
  const std::time_t seconds = duration_cast<std::chrono::seconds>(now).count();
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char date[32];
  char text[48];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text, sizeof text, "%s.%06ld", date,
                static_cast<long>((duration_cast<microseconds>(now) % 1s).count()));
  return text;
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
