// Time, and the clock that wakes reactors.
#pragma once

#include <array>
#include <cstdint>
#include <limits>

#include "platform/zel/export.h"
#include "platform/zel/notifier.h"
#include "platform/zel/type.h"

namespace Zel {

class ZEL_API System {
 public:
  // Monotonic seconds, with no meaning beyond their differences.
  static double currentTime();

  // Stands in for the real time while it lives. Tests drive the clock by it.
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

// A notifier that wakes its reactors, each at its own time.
//
// Wake-up times stand in a wheel of one-millisecond slots, so arming, re-arming and disarming cost the same
// however many reactors there are. A reactor is never woken before its time. Expiries of one pass come in the
// order of their slots; within one slot in the order of arming.
class ZEL_API Clock : public Typed<Clock, Notifier> {
 public:
  static constexpr double kNever = std::numeric_limits<double>::infinity();

  class NotifieeConst;

  Clock();
  ~Clock() override;
  static const TypeNode& typeNode();

  // Wakes every reactor whose time is not later than `now`, once, also where its handler sets a time that has
  // passed already (that one comes with the next call). Called by the activity manager.
  void advance(double now) const;
  // The earliest wake-up time; not later than that where a reactor was disarmed since. Positive infinity:
  // none.
  double nextWakeUp() const;

  std::uint64_t expiries() const { return expiries_; }
  // By how many seconds the latest of the wake-ups came after its time. Reset by reading where `reset`.
  double worstLateness(bool reset = false) const;

 private:
  static constexpr std::int64_t kFine = 1024;   // slots of a millisecond
  static constexpr std::int64_t kCoarse = 256;  // slots of kFine milliseconds

  struct Slot {
    ListHook members;
    double earliest = kNever;
  };
  // Slots in a ring, and which of them may have members.
  template <std::size_t N>
  struct Wheel {
    std::array<Slot, N> slots;
    std::array<std::uint64_t, N / 64> used{};

    Slot& slot(std::int64_t position) { return slots[static_cast<std::size_t>(position) % N]; }
    void use(std::int64_t position);
    void unuse(std::int64_t position);
    // How far after `position` the next slot in use is, itself included; N where there is none.
    std::int64_t distance(std::int64_t position) const;
    // The earliest time in the first slot after `position` that has members.
    double earliest(std::int64_t position);
  };

  static std::int64_t tick(double time);
  void arm(NotifieeConst& notifiee) const;
  void collect(double now) const;
  void cascade() const;
  void rearm(Slot& slot) const;
  void wake(NotifieeConst& notifiee, double now) const;

  mutable std::int64_t now_;  // ticks before this one have been collected
  mutable Wheel<kFine> fine_;
  mutable Wheel<kCoarse> coarse_;
  mutable Slot far_;
  mutable ListHook due_;  // collected and not yet woken
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
  void timeMinIs(const double& time);
  double timeMin() const { return timeMin_; }

  // Runs once for each time that was set and has come, while the reactor's notifications are on.
  virtual void onTime() {}

 protected:
  bool accepts(const PtrInterface& notifier) const override {
    return dynamic_cast<const Clock*>(&notifier) != nullptr;
  }
  void deliver() override {}
  void immediate(AttributeIndex) override { declineImmediate(); }
  void join() override;

 private:
  friend class Clock;

  static NotifieeConst& of(Zel::ListHook& registration) {
    return static_cast<NotifieeConst&>(ofRegistration(registration));
  }

  double timeMin_ = kNever;
  bool armed_ = false;  // the time has not come yet
};

}  // namespace Zel
