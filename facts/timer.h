// Timers of the activity thread, and the one slow poll that all sources share.
#pragma once

#include <functional>
#include <set>

#include "platform/zel/notify/activity.h"

namespace Facts {

// Calls a function at a time. The owner holds it; it is silent once the last pointer is gone.
class Timer : public Zel::Reactor<Timer, Zel::Clock::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Facts::Timer";
  explicit Timer(std::function<void()> then)
      : Reactor(Zel::activityManager().clock()), then_(std::move(then)) {}
  void onTime() override { then_(); }

 private:
  const std::function<void()> then_;
};

// Wakes the process every `interval` seconds while any client wants it, and never otherwise.
class Poll {
 public:
  class Client {
   public:
    virtual void onPoll() = 0;

   protected:
    ~Client() = default;
  };

  explicit Poll(double interval);
  Poll(const Poll&) = delete;
  Poll& operator=(const Poll&) = delete;

  // A client withdraws before it ends. It may do so in onPoll.
  void wantedIs(Client& client, bool wanted);

 private:
  void run();

  const double interval_;
  std::set<Client*> clients_;
  const Zel::Ptr<Timer> timer_;
};

}  // namespace Facts
