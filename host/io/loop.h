// The event loop: libuv's, with a turn of the host after every round of events.
#pragma once

#include <uv.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

namespace Host {

// Closes a libuv handle, which frees it once libuv has let go of it. No callback of the handle but that one
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

// A process that has one ignores SIGPIPE: a client that went away is an error of the write, no more.
class Loop {
 public:
  // Does what is to be done now, and returns the time of the next wake-up as ActivityManager::nextWakeUp
  // does.
  using Turn = std::function<double()>;

  Loop();
  // REQUIRES: every handle on the loop but its own is closed, or will be by then.
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  uv_loop_t* uv() { return &loop_; }

  // Runs after every round of events, and at the time that it returned, never before that.
  void turnIs(Turn turn) { turn_ = std::move(turn); }
  // Until stop(). Throws what a callback or the turn threw.
  void run();
  // The same for one round that waits for nothing. Returns whether the loop goes on.
  bool runOnce();
  void stop();

  // Calls `function` from within a libuv callback: what it throws leaves run() instead of passing through C.
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
  const int alarm_;           // a timer of the kernel
  std::int64_t alarmAt_ = 0;  // monotonic nanoseconds; 0: never; negative: it has gone off
  UvHandle<uv_poll_t> onAlarm_;
  Turn turn_;
  std::exception_ptr error_;
  bool stopped_ = false;
};

}  // namespace Host
