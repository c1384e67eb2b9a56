// libuv's event loop, with a turn of the host after every round of events.
#pragma once

#include <uv.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

namespace Host {

// Deleter: closes a libuv handle, and frees it in libuv's close callback. No other callback of the handle
// runs afterwards.
struct CloseHandle {
  template <class T>
  void operator()(T* handle) const {
    uv_close(reinterpret_cast<uv_handle_t*>(handle),
             [](uv_handle_t* closed) { delete reinterpret_cast<T*>(closed); });
  }
};
template <class T>
using UvHandle = std::unique_ptr<T, CloseHandle>;

// Ignores SIGPIPE for the whole process, so that a write to a closed connection fails with EPIPE instead.
class Loop {
 public:
  // Does the pending work, and returns the time of the next wake-up as ActivityManager::nextWakeUp does.
  using Turn = std::function<double()>;

  Loop();
  // REQUIRES: every handle on the loop but its own is closed or closing.
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  uv_loop_t* uv() { return &loop_; }

  // `turn` runs after every round of events. The loop wakes for it at the time that it returned, never early.
  void turnIs(Turn turn) { turn_ = std::move(turn); }
  // Runs until stop(). Rethrows what a callback or the turn throws.
  void run();
  // Counts the rounds of events.
  std::uint64_t round() const { return round_; }

  // Runs one round without waiting. Returns false after stop().
  bool runOnce();
  void stop();

  // Runs the body of a libuv callback. run() rethrows its exceptions: they can't unwind through C.
  template <class Function>
  static void guard(uv_loop_t* loop, Function&& function) {
    auto& self = *static_cast<Loop*>(loop->data);
    try {
      function();
    } catch (...) {
      self.failed(std::current_exception());
    }
  }

 private:
  void failed(std::exception_ptr error);
  void rethrow();
  void turn();
  void wakeAt(double time);

  uv_loop_t loop_{};
  UvHandle<uv_check_t> check_;
  const int alarm_;           // timerfd
  std::int64_t alarmAt_ = 0;  // monotonic nanoseconds; 0: never; negative: expired
  UvHandle<uv_poll_t> onAlarm_;
  Turn turn_;
  std::exception_ptr error_;
  std::uint64_t round_ = 1;
  bool stopped_ = false;
};

}  // namespace Host
