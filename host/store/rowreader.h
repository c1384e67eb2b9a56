// Reads rows of a state file from the texts in its columns.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "platform/statedb/store/row.h"
#include "platform/zel/core/lastseen.h"

namespace Host {

// Memoizes what it has parsed: rows repeat paths, types and values, and parsing dominates the time to read a
// large file.
class RowReader {
 public:
  struct Texts {
    std::string_view path, attribute, type, value;
  };

  // Refusals name the file.
  explicit RowReader(std::string file) : file_(std::move(file)) {}

  // Throws ValueError if the path or a name exceeds the limits, and StoreError if the value is no JSON.
  Statedb::Row read(const Texts& texts);

 private:
  auto& lastValue(std::string_view text) {
    return values_[std::hash<std::string_view>()(text) % values_.size()];
  }

  const std::string file_;
  Zel::LastSeen<std::string, Statedb::Path> path_;
  Zel::LastSeen<std::string, Zel::Name> type_;
  std::array<Zel::LastSeen<std::string, Zel::Value>, 64> values_;  // direct-mapped by the hash
};

}  // namespace Host
