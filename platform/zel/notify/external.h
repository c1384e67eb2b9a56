// The host's side of FdWatch and Inbox: what an activity manager takes from outside its thread, and the
// services of an event loop that it needs for that. Not installed: agents use fdwatch.h and inbox.h.
//
//     class Services : public Zel::HostServices { … };
//     Services services(loop);
//     activity.external().hostIs(&services);   // and hostIs(nullptr) before `services` ends
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/notify/fdwatch.h"

namespace Zel {

// A descriptor that a host polls; polling stops when it is destroyed. Owned by the watch.
class ZEL_API FdPoll {
 public:
  virtual ~FdPoll();
  // Polls for these events from now on; 0: none.
  virtual void eventsIs(unsigned events) = 0;
};

class ZEL_API HostServices {
 public:
  // Polls watch.fd() for watch.events(), and calls watch.readyIs() on the activity thread, never from within
  // step(). A step() must follow. Throws std::system_error.
  virtual std::unique_ptr<FdPoll> poll(FdWatch& watch) = 0;
  // Makes the loop call step() soon. Any thread; must neither post nor throw.
  virtual void wake() = 0;

 protected:
  ~HostServices() = default;
};

namespace detail {

class Mailbox;

// One inbox, as its senders and its queued tasks know it.
struct InboxState {
  InboxState(std::shared_ptr<Mailbox> theMailbox, const Name& theAgent)
      : mailbox(std::move(theMailbox)), agent(theAgent) {}

  const std::shared_ptr<Mailbox> mailbox;
  const Name agent;
  bool open = true;  // under the mailbox's mutex
};

// The tasks posted to one activity manager, in the order of posting. Shared with the senders, which may
// outlive the manager. Tasks are destroyed outside the lock, because their destructors may post.
class Mailbox {
 public:
  bool post(const std::shared_ptr<InboxState>& inbox, std::function<void()> task);
  // Drops the inbox's tasks.
  void close(InboxState& inbox);
  // Drops all tasks, and what is posted later.
  void shutDown();
  // Wakes the host at once where tasks wait.
  void hostIs(HostServices* host);
  // Activity thread only.
  bool waiting() const { return posted_.load(std::memory_order_relaxed) || !taken_.empty(); }
  void run();

 private:
  struct Task {
    std::shared_ptr<InboxState> inbox;
    std::function<void()> run;
  };

  void take();

  std::mutex mutex_;
  std::deque<Task> tasks_;  // under the mutex, as are the next two
  HostServices* host_ = nullptr;
  bool shutDown_ = false;
  std::atomic<bool> posted_{false};  // written under the mutex: tasks_ holds some
  std::deque<Task> taken_;           // activity thread only: to run in this pass, or left over by a fault
};

// Runs a handler that no reactor owns; an exception that leaves it becomes a HandlerFault.
void runFor(Name agent, const std::string& place, const std::function<void()>& handler);

}  // namespace detail

// The external part of an activity manager, which owns it. Activity thread only.
class ZEL_API External {
 public:
  External();
  ~External();
  External(const External&) = delete;
  External& operator=(const External&) = delete;

  // The host that polls and wakes from now on; null for none: then watches are silent and tasks wait for a
  // step(). Throws what HostServices::poll throws; there is no host then.
  void hostIs(HostServices* host);

  // Whether run() has something to do.
  bool waiting() const { return ready_.linked() || round_.linked() || mailbox_->waiting(); }
  // Runs the handlers of ready watches, then the tasks. Called once a pass. Throws HandlerFault; what has not
  // run then stays for the next call.
  void run();

 private:
  friend class FdWatch;
  friend class Inbox;

  void pollAllBy(HostServices* host);

  ListHook watches_;
  ListHook ready_;  // in the order in which they became ready
  ListHook round_;  // the part of it that this pass delivers
  HostServices* host_ = nullptr;
  const std::shared_ptr<detail::Mailbox> mailbox_;
};

}  // namespace Zel
