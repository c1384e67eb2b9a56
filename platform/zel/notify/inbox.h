// Tasks from other threads for the activity thread.
//
//     Zel::Inbox inbox_;
//     std::jthread reader_{[this, sender = inbox_.sender()](std::stop_token stop) {
//       while (!stop.stop_requested()) sender.post([this, t = slowRead()] { temperatureIs(t); });
//     }};
//
// post() is the only operation of the framework that other threads may call. It wakes the loop; the task runs
// on the activity thread in the next pass, before expiries and notifications. Tasks of one activity manager
// run in the order in which they were posted; a task that a task posts runs a pass later. An exception that
// leaves a task is a HandlerFault, with the name of the agent that made the inbox; the tasks after it stay
// queued.
//
// The inbox belongs to the object that its tasks work on. Its destructor drops the tasks that have not run,
// so no task outlives its object; what is posted later is dropped as well, and post() returns false. The
// queue has no limit: a thread that can outrun the loop waits for its own last task before it posts more.
//
// A task carries plain data. Counted pointers, entities and reactors stay on the activity thread: their
// reference counts are not atomic. Without a host (a test that calls ActivityManager::step) tasks run in the
// next step().
#pragma once

#include <functional>
#include <memory>

#include "platform/zel/core/export.h"

namespace Zel {

namespace detail {
struct InboxState;
}

// Activity thread only, its senders excepted.
class ZEL_API Inbox {
 public:
  // Posts to one inbox. Copy it into the thread; it may outlive the inbox, the activity manager and the host,
  // though not the agent's library. Any thread.
  class ZEL_API Sender {
   public:
    // Returns false, and destroys the task on the calling thread, where the inbox or its activity manager is
    // gone. REQUIRES: task is callable.
    bool post(std::function<void()> task) const;

   private:
    friend class Inbox;
    explicit Sender(std::shared_ptr<detail::InboxState> state) : state_(std::move(state)) {}
    std::shared_ptr<detail::InboxState> state_;
  };

  // An inbox of the current activity manager.
  Inbox();
  // Drops the tasks that have not run. A task may end its own inbox.
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  Sender sender() const { return Sender(state_); }

 private:
  const std::shared_ptr<detail::InboxState> state_;
};

}  // namespace Zel
