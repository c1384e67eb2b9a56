// Why the host does not start.
#pragma once

#include <stdexcept>

namespace Host {

// One line that says what, where, why, and what would be right.
class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Host
