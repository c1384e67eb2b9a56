// How far a command has come, on a terminal.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string>

namespace Ctl {

// Writes one line over the last, once a command takes longer than kQuiet, and erases it at its end. Writes
// nothing unless `err` is the standard error of this process and that is a terminal.
class Progress {
 public:
  explicit Progress(std::ostream& err);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(const std::string& text);
  void clear();

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kQuiet{300}, kBetween{50};

  std::ostream& err_;
  const bool isTerminal_;
  bool isShown_ = false;
  Clock::time_point next_ = Clock::now() + kQuiet;
};

}  // namespace Ctl
