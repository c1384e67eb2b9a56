// A hierarchical timer wheel.
//
//     TimerWheel wheel(now);
//     const auto timer = wheel.arm(now + 0.5, &led);
//     wheel.rearm(timer, now + 0.7);
//     for (wheel.collect(now + 1); const auto due = wheel.firstDue(); wheel.disarm(due))
//       toggle(*static_cast<Led*>(wheel.payload(due)));
//
// Times are absolute, in seconds, and not NaN. Activity thread only.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "platform/zel/core/export.h"

namespace Zel {

// Two levels of slots, 1,024 of one millisecond and 256 of 1.024 seconds, and a list of what lies beyond.
// Arming, re-arming and disarming are O(1). A timer is never due before its time.
class ZEL_API TimerWheel {
 public:
  // The number of a timer, the caller's from arm() to disarm().
  using Timer = std::uint32_t;
  static constexpr Timer kNone = 0;
  static constexpr double kNever = std::numeric_limits<double>::infinity();

  explicit TimerWheel(double now);

  // Never kNone. The payload is the caller's to interpret.
  Timer arm(double time, void* payload);
  // As disarm() and arm(), keeping the number.
  void rearm(Timer timer, double time);
  void disarm(Timer timer);
  void* payload(Timer timer) const { return nodes_[timer].payload; }

  // Makes due every timer whose time is not later than `now`. Timers are due in the order of their
  // milliseconds, within one millisecond in the order of arming; a time that has passed counts as the
  // millisecond of the latest collect(). A timer that was re-armed is due in a later collect() only.
  void collect(double now);
  // The due, in that order, until they are disarmed or re-armed; kNone: no more.
  Timer firstDue() const { return nextDue(kDueSlot); }
  Timer nextDue(Timer timer) const {
    const Timer next = nodes_[timer].next;
    return next == kDueSlot ? kNone : next;
  }

  // The time of the next timer, or an earlier one where a timer was disarmed since. Negative infinity where
  // any is due, kNever where none is armed. After a collect() that left none due it is later than the time
  // of that.
  double next();
  // The times next to `time`: the latest that is not later, and the earliest that is later. Negative and
  // positive infinity where there is none within `reach` seconds, or only some that still wait in a slot of
  // more than a millisecond.
  struct Around {
    double before;
    double after;
  };
  Around around(double time, double reach) const;

 private:
  static constexpr std::int64_t kFine = 1024;   // slots of a millisecond
  static constexpr std::int64_t kCoarse = 256;  // slots of kFine milliseconds

  static constexpr std::uint32_t kFarSlot = kFine + kCoarse;  // beyond both levels
  static constexpr std::uint32_t kDueSlot = kFarSlot + 1;     // collected and not yet disarmed
  static constexpr std::uint32_t kSlots = kDueSlot + 1;

  // A timer in the circular list of its slot, or the head of such a list. Nodes are dense: timers that were
  // armed one after another are mostly adjacent, so walking a slot misses the cache rarely.
  struct Node {
    double time = kNever;  // of a head: a lower bound of its members' times
    void* payload = nullptr;
    std::uint32_t next = 0;
    std::uint32_t previous = 0;
  };
  // A ring of N slots, and a bitmap of those that may have members.
  template <std::uint32_t First, std::size_t N>
  struct Level {
    std::array<std::uint64_t, N / 64> used{};

    static std::uint32_t slot(std::int64_t position) {
      return First + static_cast<std::uint32_t>(static_cast<std::size_t>(position) % N);
    }
    void use(std::int64_t position);
    void unuse(std::int64_t position);
    // How far after `position` the next slot in use is, itself included; N: there is none.
    std::int64_t distance(std::int64_t position) const;
    // The lower bound of the first slot from `position` on that has members.
    double earliest(std::int64_t position, const TimerWheel& wheel);
  };

  static std::int64_t tick(double time);
  bool hasMembers(std::uint32_t slot) const { return nodes_[slot].next != slot; }
  void join(std::uint32_t slot, std::uint32_t next, std::uint32_t node);
  void leave(std::uint32_t node);
  std::uint32_t slotOf(double time);
  void redistribute(std::uint32_t slot);
  void cascade();
  void collectFrom(std::uint32_t slot, double now);

  std::int64_t now_;  // ticks before this one have been collected
  Level<0, kFine> fine_;
  Level<kFine, kCoarse> coarse_;
  std::vector<Node> nodes_;  // the heads of the slots, then the timers
  std::uint32_t free_ = 0;   // the first of the LIFO free list; 0: it is empty
};

}  // namespace Zel
