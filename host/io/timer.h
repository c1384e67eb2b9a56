// A timer of the loop that calls a function.
//
//     Timer timer(loop, [this] { check(); });
//     timer.startIn(1000, 1000);   // once a second
//
// Activity thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "host/io/loop.h"

namespace Host {

class Timer {
 public:
  // `loop` must outlive it. `onExpiry` runs from the loop; it may start, stop and destroy the timer.
  Timer(Loop& loop, std::function<void()> onExpiry)
      : onExpiry_(std::make_shared<std::function<void()>>(std::move(onExpiry))), timer_(new uv_timer_t) {
    uv_timer_init(loop.uv(), timer_.get());
    timer_->data = this;
  }

  // Milliseconds; `every` 0: once. Replaces an earlier start.
  void startIn(std::uint64_t after, std::uint64_t every = 0) {
    uv_timer_start(
        timer_.get(),
        [](uv_timer_t* handle) {
          Loop::guard(handle->loop, [&] {
            const auto onExpiry = static_cast<Timer*>(handle->data)->onExpiry_;
            (*onExpiry)();
          });
        },
        after, every);
  }
  void stop() { uv_timer_stop(timer_.get()); }

 private:
  const std::shared_ptr<std::function<void()>> onExpiry_;
  const UvHandle<uv_timer_t> timer_;
};

}  // namespace Host
