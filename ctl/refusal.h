// How commands fail.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Ctl {

// A command can't do as told. The text says what, where, why and what would be right: one line, or one line
// for each thing that is wrong. Ends the program with status 1.
class Refusal : public std::runtime_error {
 public:
  // The texts may quote what came from anywhere: it is made printable.
  explicit Refusal(const std::string& line);
  explicit Refusal(const std::vector<std::string>& lines);
};

// A command line that makes no sense, whatever the host knows. Ends the program with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Ctl
