// How often this process reached its state database again after it had lost it, for `status`.
#pragma once

#include <cstdint>

namespace Host {

// Activity thread only.
class Reconnects {
 public:
  static std::uint64_t count() { return count_; }
  static void add() { ++count_; }

 private:
  static inline std::uint64_t count_ = 0;
};

}  // namespace Host
