// Output formats.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

// JSON with all characters escaped that Zel::printable escapes: more than JSON requires, namely DEL, C1
// control characters and bidirectional marks.
std::string jsonText(const Json& value, int indent = -1);
// Prints the same, indented, for --json.
void printJson(std::ostream& out, const Json& value);
// JSON on one line, with a space after ':' and ','.
std::string oneLine(const Json& value);
// A string without quotes, made printable; anything else as JSON.
std::string bare(const Json& value);
// The current time, UTC, in the format of trace records: 2026-11-21T10:00:00.123456.
std::string timeStamp();

// Aligned columns of cells, which are made printable.
class Table {
 public:
  void add(std::vector<std::string> row);
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Ctl
