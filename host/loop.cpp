#include "host/loop.h"

#include <algorithm>
#include <cmath>
#include <csignal>

#include "platform/zel/clock.h"

namespace Host {

namespace {
constexpr double kLongestSleep = 86400;  // seconds; the turn says anew how long it is
}

Loop::Loop() {
  std::signal(SIGPIPE, SIG_IGN);
  uv_loop_init(&loop_);
  loop_.data = this;
  check_.reset(new uv_check_t);
  uv_check_init(&loop_, check_.get());
  uv_check_start(check_.get(), [](uv_check_t* handle) {
    guard(handle->loop, [&] { static_cast<Loop*>(handle->loop->data)->turn(); });
  });
  timer_.reset(new uv_timer_t);
  uv_timer_init(&loop_, timer_.get());
}

Loop::~Loop() {
  check_.reset();
  timer_.reset();
  turn_ = nullptr;
  uv_run(&loop_, UV_RUN_DEFAULT);
  uv_loop_close(&loop_);
}

void Loop::run() {
  wakeAt(0);
  while (!stopped_ && !error_) uv_run(&loop_, UV_RUN_DEFAULT);
  rethrow();
}

bool Loop::runOnce() {
  uv_run(&loop_, UV_RUN_NOWAIT);
  rethrow();
  return !stopped_;
}

void Loop::stop() {
  stopped_ = true;
  uv_stop(&loop_);
}

void Loop::failed(std::exception_ptr error) {
  if (!error_) error_ = std::move(error);
  uv_stop(&loop_);
}

void Loop::rethrow() {
  if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
}

void Loop::turn() {
  if (turn_ && !stopped_ && !error_) wakeAt(turn_());
}

// libuv counts whole milliseconds from a time of its own that lags behind: both are made up for, so that the
// timer does not fire before the time has come.
void Loop::wakeAt(double time) {
  if (time == Zel::Clock::kNever) {
    uv_timer_stop(timer_.get());
    return;
  }
  const double delay = std::clamp(time - Zel::System::currentTime(), 0.0, kLongestSleep);
  uv_update_time(&loop_);
  const double due = std::ceil(static_cast<double>(uv_hrtime()) / 1e6 + delay * 1e3);
  const auto milliseconds = delay > 0 ? static_cast<std::uint64_t>(due) - uv_now(&loop_) : 0;
  const auto fire = [](uv_timer_t* handle) {
    guard(handle->loop, [&] { static_cast<Loop*>(handle->loop->data)->turn(); });
  };
  uv_timer_start(timer_.get(), fire, milliseconds, 0);
}

}  // namespace Host
