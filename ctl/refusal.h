// The errors of commands.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Ctl {

// A command failed. The message says what, where, why and what would be right, one line for each error. Exit
// status 1.
class Refusal : public std::runtime_error {
 public:
  // Makes the lines printable, as they may quote input.
  explicit Refusal(const std::string& line);
  explicit Refusal(const std::vector<std::string>& lines);
};

// The command line is invalid, whatever the host's state. Exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Ctl
