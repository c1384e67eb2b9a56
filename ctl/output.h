// How things are printed.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

// JSON in which everything that Zel::printable would write out is escaped: also what JSON itself would leave
// as it is, DEL, the control characters above it, and marks that change the direction of what follows.
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
