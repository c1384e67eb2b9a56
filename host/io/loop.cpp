#include "host/io/loop.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/clock.h"

namespace Host {

namespace {
constexpr double kLongestSleep = 86400;          // seconds; the next turn extends it
constexpr std::int64_t kSecond = 1'000'000'000;  // nanoseconds
}  // namespace

Loop::Loop() : alarm_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  ZEL_REQUIRE(alarm_ >= 0, "timerfd_create: error " << errno);
  std::signal(SIGPIPE, SIG_IGN);
  uv_loop_init(&loop_);
  loop_.data = this;
  check_.reset(new uv_check_t);
  uv_check_init(&loop_, check_.get());
  uv_check_start(check_.get(), [](uv_check_t* handle) {
    guard(handle->loop, [&] { static_cast<Loop*>(handle->loop->data)->turn(); });
  });
  onAlarm_.reset(new uv_poll_t);
  uv_poll_init(&loop_, onAlarm_.get(), alarm_);
  // Nothing to read: the turn that follows sets the timerfd again, which clears its expiration.
  uv_poll_start(onAlarm_.get(), UV_READABLE,
                [](uv_poll_t* handle, int, int) { static_cast<Loop*>(handle->loop->data)->alarmAt_ = -1; });
}

Loop::~Loop() {
  check_.reset();
  onAlarm_.reset();
  turn_ = nullptr;
  uv_run(&loop_, UV_RUN_DEFAULT);
  uv_loop_close(&loop_);
  ::close(alarm_);
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
  ++round_;
  if (turn_ && !stopped_ && !error_) wakeAt(turn_());
}

// A timerfd, because libuv's timers fire up to 2 ms late: they count whole milliseconds from a cached time. A
// timerfd has nanosecond resolution and no timer slack.
void Loop::wakeAt(double time) {
  std::int64_t at = 0;  // never
  if (time != Zel::Clock::kNever) {
    const double latest = Zel::System::currentTime() + kLongestSleep;
    at = std::max(static_cast<std::int64_t>(std::ceil(std::clamp(time, 0.0, latest) * 1e9)), std::int64_t{1});
  }
  if (at == alarmAt_) return;
  alarmAt_ = at;
  itimerspec alarm{};
  alarm.it_value.tv_sec = at / kSecond;
  alarm.it_value.tv_nsec = at % kSecond;
  ::timerfd_settime(alarm_, TFD_TIMER_ABSTIME, &alarm, nullptr);
}

}  // namespace Host
