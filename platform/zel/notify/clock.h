// Time, and the clock that wakes reactors.
//
//     struct Blinker : Reactor<Blinker, Clock::NotifieeConst> {
//       static constexpr const char* kTypeName = "Example::Blinker";
//       using Reactor::Reactor;
//       void onTime() override { timeMinIs(timeMin() + 0.5); }
//     };
//     const auto blinker = allocate<Blinker>(activityManager().clock());
//     blinker->timeMinIs(System::currentTime());
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "platform/zel/core/export.h"
#include "platform/zel/notify/notifier.h"
#include "platform/zel/object/type.h"

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
// order of their milliseconds; within one millisecond in the order of arming.
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
  // The wake-up times next to `time`: the latest that is not later, and the earliest that is later. Negative
  // and positive infinity where there is none within `reach` seconds, or none that is due within a second.
  struct Around {
    double before;
    double after;
  };
  Around around(double time, double reach) const;

  std::uint64_t expiries() const { return expiries_; }
  // By how many seconds the latest of the wake-ups came after its time. Reset by reading where `reset`.
  double worstLateness(bool reset = false) const;

 private:
  static constexpr std::int64_t kFine = 1024;   // slots of a millisecond
  static constexpr std::int64_t kCoarse = 256;  // slots of kFine milliseconds

  static constexpr std::uint32_t kFarSlot = kFine + kCoarse;  // what lies beyond the wheels
  static constexpr std::uint32_t kDueSlot = kFarSlot + 1;     // collected and not yet woken
  static constexpr std::uint32_t kSlots = kDueSlot + 1;

  // A reactor in the circular list of its slot, or the head of such a list. They lie beside the reactors, and
  // those that were armed one after another mostly lie in a row, so going through a list costs little; the
  // reactors themselves are far apart.
  struct Node {
    double time = kNever;  // of a head: not later than that of any member
    NotifieeConst* notifiee = nullptr;
    std::uint32_t next = 0;
    std::uint32_t previous = 0;
  };
  // N slots in a ring, and which of them may have members.
  template <std::uint32_t First, std::size_t N>
  struct Wheel {
    std::array<std::uint64_t, N / 64> used{};

    static std::uint32_t slot(std::int64_t position) {
      return First + static_cast<std::uint32_t>(static_cast<std::size_t>(position) % N);
    }
    void use(std::int64_t position);
    void unuse(std::int64_t position);
    // How far after `position` the next slot in use is, itself included; N where there is none.
    std::int64_t distance(std::int64_t position) const;
    // The earliest time in the first slot after `position` that has members.
    double earliest(std::int64_t position, const Clock& clock);
  };

  static std::int64_t tick(double time);
  bool hasMembers(std::uint32_t slot) const { return nodes_[slot].next != slot; }
  void join(std::uint32_t slot, std::uint32_t next, std::uint32_t node) const;
  void leave(std::uint32_t node) const;
  std::uint32_t slotOf(double time) const;
  void placeAllOf(std::uint32_t slot) const;
  void arm(NotifieeConst& notifiee) const;
  void disarm(NotifieeConst& notifiee) const;
  void collect(double now) const;
  void collectFrom(std::uint32_t slot, double now) const;
  void cascade() const;
  void foreseeSome() const;
  void wake(NotifieeConst& notifiee, double now) const;

  mutable std::int64_t now_;  // ticks before this one have been collected
  mutable Wheel<0, kFine> fine_;
  mutable Wheel<kFine, kCoarse> coarse_;
  mutable std::vector<Node> nodes_;  // the heads of the slots, then the others
  mutable std::uint32_t free_ = 0;   // the first unused node, the others after it; 0: none
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
  void handleKey(AttributeIndex, Name) override {}
  void immediate(AttributeIndex) override { declineImmediate(); }
  void join() override;
  void part() override;
  ~NotifieeConst() override { NotifieeConst::part(); }

 private:
  friend class Clock;

  // Whether the time came while the notifications were off.
  bool isHeld() const { return armed_ && node_ == 0 && isRegisteredNotifiee() && notifier(); }

  double timeMin_ = kNever;
  std::uint32_t node_ = 0;  // where it waits; 0: nowhere
  bool armed_ = false;      // the time was not delivered yet
};

}  // namespace Zel
