// Logs events that clients can cause at will.
//
//     SparseLog log([](const std::string& text) { std::cerr << text << std::endl; });
//     log.add("a client was refused");
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "platform/zel/notify/clock.h"

namespace Host {

// Passes on one text in kInterval, which includes the number of those dropped since the one before.
class SparseLog {
 public:
  static constexpr double kInterval = 10;  // seconds

  explicit SparseLog(std::function<void(const std::string&)> log) : log_(std::move(log)) {}

  void add(const std::string& text) {
    const double now = Zel::System::currentTime();
    if (now < next_) return static_cast<void>(++dropped_);
    next_ = now + kInterval;
    const auto dropped = std::exchange(dropped_, 0);
    log_(dropped == 0 ? text : text + " (and " + std::to_string(dropped) + " such events before)");
  }

 private:
  const std::function<void(const std::string&)> log_;
  double next_ = -Zel::Clock::kNever;
  std::size_t dropped_ = 0;
};

}  // namespace Host
