#include "host/refusals.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "host/io/log.h"

namespace Host {

namespace {

constexpr std::chrono::milliseconds kLongestPause{10'000};

}  // namespace

bool Refusals::waits(const std::string& reason) {
  if (!manager_.isThere()) return false;
  if (std::exchange(reason_, reason) != reason)
    log(Priority::error, reason + " (the start is tried again, every 10 s in the end)");
  manager_.statusIs("The start is refused, and tried again: " + reason);
  std::this_thread::sleep_for(pause_);
  pause_ = std::min(2 * pause_, kLongestPause);
  return true;
}

}  // namespace Host
