// Errors that keep the host from starting.
#pragma once

#include <stdexcept>

namespace Host {

// The message is one line: what, where, why, and what would be right.
class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Host
