#include "ctl/progress.h"

#include <unistd.h>

#include <iostream>

namespace Ctl {

Progress::Progress(std::ostream& err)
    : err_(err), isTerminal_(err.rdbuf() == std::cerr.rdbuf() && ::isatty(STDERR_FILENO) != 0) {}

void Progress::show(const std::string& text) {
  if (!isTerminal_ || Clock::now() < next_) return;
  next_ = Clock::now() + kBetween;
  isShown_ = true;
  err_ << '\r' << text << "   " << std::flush;
}

void Progress::clear() {
  if (isShown_) err_ << "\r\x1b[K" << std::flush;
  isShown_ = false;
}

}  // namespace Ctl
