// The activity manager: the loop that delivers notifications and clock expiries, as an object that can be
// stepped.
//
//     ActivityManager manager;  // the process's current one while it lives
//     manager.post([] { start(); });
//     for (double next = manager.step(); running; next = manager.step())
//       poll(descriptors, next - System::currentTime());
//
// The host waits on its file descriptors around step(); nothing here blocks. Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/zel/core/exception.h"
#include "platform/zel/core/export.h"
#include "platform/zel/notify/clock.h"
#include "platform/zel/notify/notifier.h"

namespace Zel {

class External;

// Code of an agent threw: a handler, or a step of the agent's start. The exception itself is nested in this
// one, whose text names the agent, the place, the exception's own text, and what was suspected (suspectIs).
class ZEL_API HandlerFault : public Exception {
 public:
  HandlerFault(Name agent, std::string place, std::string text, const std::string& suspected = {});
  ~HandlerFault() override;
  Name agent() const { return agent_; }  // empty where no agent was running
  // "reactor TYPE of OBJECT", or the step: "doInit".
  const std::string& place() const { return place_; }
  const std::string& text() const { return text_; }  // the exception's own

 private:
  Name agent_;
  std::string place_;
  std::string text_;
};

// Something that runs once at the end of every pass, after the notifications: publishing, mostly.
class ZEL_API PassEnd {
 public:
  virtual void onPassEnd() = 0;

 protected:
  PassEnd() = default;
  virtual ~PassEnd();
};

class ZEL_API ActivityManager {
 public:
  // Becomes the process's current activity manager until it is destroyed, when the latest of those that there
  // are becomes it. What is pending is dropped with it.
  ActivityManager();
  ~ActivityManager();
  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;

  // The clock of this loop. Null only after clockIs(null).
  const Ptr<const Clock>& clock() const { return clock_; }
  void clockIs(const Ptr<const Clock>& clock) { clock_ = clock; }

  // One pass: what came from outside (fdwatch.h, inbox.h) and what was posted, then the expiries that are
  // due, then the notifications until none is left (what still changes after a bounded number of rounds waits
  // for the next pass), then the ends of pass. Returns nextWakeUp(). Throws HandlerFault, and whatever a task
  // or an end of pass throws; what was not delivered or run then stays pending. REQUIRES: not called from a
  // handler, a task or an end of pass.
  double step();
  // The time (seconds, as System::currentTime) at which step() has work again: not later than now where work
  // is waiting, positive infinity where there is none.
  double nextWakeUp() const;

  // Runs `task` in the next pass. Tasks run in the order of posting; one that a task posts runs a pass later.
  void post(std::function<void()> task);
  // Adds an end of pass, and removes it; one that is there already, or not there, is ignored. Ends may add
  // and remove any.
  void passEndIs(PassEnd& end);
  void passEndDel(PassEnd& end);

  // Records a likely cause for a fault of the running code; its HandlerFault quotes it. Dropped at the next
  // delivery.
  void suspectIs(std::string text) { suspect_ = {passes_, deliveries_, std::move(text)}; }
  std::string suspect() const;

  // For the host: where it offers its loop's services.
  External& external() { return *external_; }

  std::uint64_t passes() const { return passes_; }
  std::uint64_t deliveries() const { return deliveries_; }  // reactors that were delivered to

  // The process's current activity manager; one is made where there was none.
  static ActivityManager& current() { return current_ ? *current_ : makeCurrent(); }

  // The running agent; faults of reactors made now name it. Empty where none runs.
  static Name currentAgent() { return currentAgent_; }

  // Sets the running agent for its lifetime.
  class AgentScope {
   public:
    explicit AgentScope(Name agent) : before_(std::exchange(currentAgent_, agent)) {}
    ~AgentScope() { currentAgent_ = before_; }
    AgentScope(const AgentScope&) = delete;
    AgentScope& operator=(const AgentScope&) = delete;

   private:
    Name before_;
  };

 private:
  friend class NotifieeBase;

  static ActivityManager& makeCurrent();
  void enqueue(NotifieeBase& notifiee) { static_cast<PendingHook&>(notifiee).joinEndOf(pending_); }
  void runPosted();
  void runEnds();
  unsigned lookAhead();
  void deliverRound();

  static constinit ActivityManager* current_;
  static constinit Name currentAgent_;

  ActivityManager* before_;
  const std::unique_ptr<External> external_;
  Ptr<const Clock> clock_;
  ListHook pending_;  // in the order in which they first became pending
  ListHook round_;    // the part of it that is being delivered
  std::deque<std::function<void()>> posted_;
  std::vector<PassEnd*> ends_;  // null where one was removed
  bool stepping_ = false;
  std::uint64_t passes_ = 0;
  std::uint64_t deliveries_ = 0;
  struct {
    std::uint64_t pass = 0;
    std::uint64_t delivery = 0;
    std::string text;
  } suspect_;
};

inline ActivityManager& activityManager() { return ActivityManager::current(); }

// Turn the exception that is being handled into a HandlerFault.
[[noreturn]] ZEL_API void agentFailed(Name agent, const std::string& place);
[[noreturn]] ZEL_API void handlerFailed(const NotifieeBase& notifiee, const Notifier* watched);

// Calls `handler` on behalf of `notifiee`; what it throws becomes a HandlerFault. For deliveries.
template <class Handler>
void runHandler(const NotifieeBase& notifiee, const Notifier* watched, Handler&& handler) {
  const ActivityManager::AgentScope scope(notifiee.agent());
  try {
    handler();
  } catch (...) {
    handlerFailed(notifiee, watched);
  }
}

// The same for a step of an agent's start; `place` is its name.
template <class Step>
auto runForAgent(Name agent, const std::string& place, Step&& step) {
  const ActivityManager::AgentScope scope(agent);
  try {
    return step();
  } catch (...) {
    agentFailed(agent, place);
  }
}

}  // namespace Zel
