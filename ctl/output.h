// How things are printed.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

// JSON on one line, with a blank after ':' and ','.
std::string oneLine(const Json& value);
// A text bare, anything else as JSON.
std::string bare(const Json& value);
// The time of day now, UTC, as trace records have it: 2026-11-21T10:00:00.123456.
std::string timeStamp();

// Rows of texts, printed with their columns aligned.
class Table {
 public:
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Ctl
