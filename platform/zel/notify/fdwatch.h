// Watching a file descriptor on the activity thread.
//
//     const int fd_ = openSensor();
//     Zel::FdWatch watch_{fd_, Zel::FdWatch::kReadable, [this](unsigned) { readSensor(); }};
//
// The handler runs at the start of a pass, before expiries and notifications, and again in every pass for as
// long as the descriptor is ready (level-triggered): one that reads nothing keeps the loop busy. It may end
// any watch, its own included, and start others. An exception that leaves it is a HandlerFault, with the name
// of the agent that made the watch.
//
// The owner keeps the descriptor open until the watch has ended: declare the watch after it. The host polls a
// duplicate, so closing the descriptor too early can't redirect the watch to another file, but the old file
// stays open until the watch ends. Several watches of one descriptor are independent. The host makes the file
// non-blocking.
//
// Without a host (a test that calls ActivityManager::step) nothing is polled, and readyIs() takes the host's
// place. A watch may outlive the activity manager and is silent from then on. Activity thread only.
#pragma once

#include <functional>
#include <memory>

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/notify/notifier.h"

namespace Zel {

class External;
class FdPoll;
class HostServices;

namespace detail {
class WatchHook : public ListHook {};  // all watches of an activity manager
class ReadyHook : public ListHook {};  // those whose handlers are to run
}  // namespace detail

class ZEL_API FdWatch : private detail::WatchHook, private detail::ReadyHook {
 public:
  enum Events : unsigned { kReadable = 1, kWritable = 2 };
  // `ready` holds the events that were asked for and have come. An error of the file counts as all of them,
  // so that reading or writing reports it.
  using Handler = std::function<void(unsigned ready)>;

  // Starts watching in the current activity manager. Throws std::system_error where the descriptor is not
  // open or can't be polled (a regular file). REQUIRES: fd >= 0, handler is callable.
  FdWatch(int fd, unsigned events, Handler handler);
  ~FdWatch();
  FdWatch(const FdWatch&) = delete;
  FdWatch& operator=(const FdWatch&) = delete;

  int fd() const { return fd_; }
  unsigned events() const { return events_; }
  // Waits for these events from now on; 0 pauses the watch. Drops what was ready and is no longer asked for.
  void eventsIs(unsigned events);

  // Marks the watch as ready for the next pass; events that were not asked for are ignored. For the host, and
  // for tests in its place.
  void readyIs(unsigned events);

 private:
  friend class External;

  static FdWatch& ofWatch(ListHook& hook) {
    return static_cast<FdWatch&>(static_cast<detail::WatchHook&>(hook));
  }
  static FdWatch& ofReady(ListHook& hook) {
    return static_cast<FdWatch&>(static_cast<detail::ReadyHook&>(hook));
  }
  void pollBy(HostServices* host);
  void detach();
  void run();

  const int fd_;
  unsigned events_;
  unsigned ready_ = 0;
  const Name agent_;
  const std::shared_ptr<const Handler> handler_;  // shared: it may end its own watch
  External* external_;                            // null once the activity manager is gone
  std::unique_ptr<FdPoll> poll_;                  // null without a host
};

}  // namespace Zel
