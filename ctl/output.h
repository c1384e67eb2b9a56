// How things are printed.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

// JSON in which every control character is escaped, DEL and those above it included, which JSON itself would
// leave as they are.
std::string jsonText(const Json& value, int indent = -1);
// The same over several lines, for --json.
void printJson(std::ostream& out, const Json& value);
// JSON on one line, with a blank after ':' and ','.
std::string oneLine(const Json& value);
// A text bare and printable, anything else as JSON.
std::string bare(const Json& value);
// The time of day now, UTC, as trace records have it: 2026-11-21T10:00:00.123456.
std::string timeStamp();

// Rows of texts, made printable, and printed with their columns aligned.
class Table {
 public:
  void add(std::vector<std::string> row);
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Ctl
