// Counts the rows that could not be applied or published, and logs them. Internal to the entity manager.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "platform/statedb/store/schema.h"

namespace Statedb {

class Refusals {
 public:
  void logIs(std::function<void(const std::string& text)> log) { log_ = std::move(log); }
  void log(const std::string& text) const {
    if (log_) log_(text);
  }

  void add(const Row& row, const std::string& why) {
    ++count_;
    log(placeText(row) + ": " + why);
  }
  std::uint64_t count() const { return count_; }

 private:
  std::function<void(const std::string& text)> log_;
  std::uint64_t count_ = 0;
};

}  // namespace Statedb
