// Time, and the clock that wakes reactors.
//
//     struct Blinker : Reactor<Blinker, Clock::NotifieeConst> {
//       static constexpr const char* kTypeName = "Example::Blinker";
//       using Reactor::Reactor;
//       void onTime() override { timeMinIs(timeMin() + 0.5); }
//     };
//     const auto blinker = allocate<Blinker>(activityManager().clock());
//     blinker->timeMinIs(System::currentTime());
//
// Activity thread only.
#pragma once

#include <cstdint>

#include "platform/zel/core/export.h"
#include "platform/zel/notify/notifier.h"
#include "platform/zel/notify/timerwheel.h"
#include "platform/zel/object/type.h"

namespace Zel {

class ZEL_API System {
 public:
  // Monotonic seconds, with no meaning beyond their differences.
  static double currentTime();

  // Replaces the real time while it lives. For tests.
  class ZEL_API ManualTime {
   public:
    explicit ManualTime(double now = 0.0);
    ~ManualTime();
    ManualTime(const ManualTime&) = delete;
    ManualTime& operator=(const ManualTime&) = delete;
    double now() const { return now_; }
    void nowIs(double now) { now_ = now; }
    void advance(double seconds) { now_ += seconds; }

   private:
    friend class System;
    double now_;
    ManualTime* before_;
  };
};

// A notifier that wakes its reactors, each at its own time. Never earlier; expiries of one pass come in the
// order of their milliseconds, within one millisecond in the order of arming.
class ZEL_API Clock : public Typed<Clock, Notifier> {
 public:
  static constexpr double kNever = TimerWheel::kNever;

  class NotifieeConst;

  Clock();
  ~Clock() override;
  static const TypeNode& typeNode();

  // Wakes every reactor whose time is not later than `now`, each once: a time in the past that a handler sets
  // comes with the next call. Called by the activity manager.
  void advance(double now) const;
  // The earliest wake-up time; not later than that where a reactor was disarmed since. Positive infinity:
  // none.
  double nextWakeUp() const;
  // The wake-up times next to `time`, as TimerWheel::around.
  using Around = TimerWheel::Around;
  Around around(double time, double reach) const { return wheel_.around(time, reach); }

  std::uint64_t expiries() const { return expiries_; }
  // By how many seconds the latest of the wake-ups came after its time. Reset by reading where `reset`.
  double worstLateness(bool reset = false) const;

 private:
  void arm(NotifieeConst& notifiee) const;
  void disarm(NotifieeConst& notifiee) const;
  NotifieeConst& notifiee(TimerWheel::Timer timer) const;
  void lookAhead() const;
  void wake(NotifieeConst& notifiee, double now) const;

  mutable TimerWheel wheel_;
  mutable std::uint64_t expiries_ = 0;
  mutable double worstLateness_ = 0;
};

// The base of a clock's reactors. Owns one wake-up time.
class ZEL_API Clock::NotifieeConst : public NotifieeBase {
 public:
  explicit NotifieeConst(const Ptr<const Clock>& clock = nullptr) { notifierIs(clock); }

  const Clock* notifier() const { return static_cast<const Clock*>(notifierBase()); }

  // The absolute time, in seconds, at which onTime is to run; it replaces the one before. Positive infinity
  // is never, and so is a time that is not a number. A time that has passed comes with the next pass. It
  // stays readable after it came.
  //
  // A time that comes while the notifications are off is kept: onTime runs, once, in the next pass after they
  // were switched on. Unregistering, re-pointing and retiring drop it then; a time that has not come yet goes
  // along to the next clock.
  void timeMinIs(const double& time);
  double timeMin() const { return timeMin_; }
  // The same while it has not come yet; positive infinity from then on.
  double wakeUp() const { return armed_ ? timeMin_ : kNever; }

  // Runs once for each time that was set and has come, while the reactor's notifications are on.
  virtual void onTime() {}

  void hasNotificationActiveIs(bool active) override;
  void zelDoZombieReactors(bool zombie) override;

 protected:
  bool accepts(const PtrInterface& notifier) const override {
    return dynamic_cast<const Clock*>(&notifier) != nullptr;
  }
  void handleMark(AttributeIndex) override {}
  void handleKey(AttributeIndex, const Name&) override {}
  void immediate(AttributeIndex) override { declineImmediate(); }
  void join() override;
  void part() override;
  ~NotifieeConst() override { NotifieeConst::part(); }

 private:
  friend class Clock;

  // Whether the time came while the notifications were off.
  bool isHeld() const {
    return armed_ && timer_ == TimerWheel::kNone && isRegisteredNotifiee() && notifier();
  }

  double timeMin_ = kNever;
  TimerWheel::Timer timer_ = TimerWheel::kNone;
  bool armed_ = false;  // the time was not delivered yet
};

}  // namespace Zel
