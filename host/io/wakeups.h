// When the host has itself woken for what is due on a clock.
#pragma once

#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/clock.h"

namespace Host {

// Mostly at the time itself. A wake-up costs ten times what one reactor's expiry does, so expiries that
// follow each other closely share one: it comes with the last of those that are due within kSlack of the
// first. Where wake-ups are frequent, one that has a nearer neighbour after it than before it is put off by
// kSlack, each time that it comes round, until the two are one. Reactors that compute their next time from
// that of the wake-up, as flashing LEDs do, stay together from then on, and none is put off any more.
//
//     loop.turnIs([&] { activity.step(); return wakeUps.next(activity); });
class WakeUps {
 public:
  // Nothing is woken before its time, or later than so many seconds after it.
  static constexpr double kSlack = 100e-6;

  // The time at which `activity` is to have its next pass. Called after every one.
  double next(const Zel::ActivityManager& activity);

 private:
  double shared(double due, const Zel::Clock& clock) const;

  double last_ = -Zel::Clock::kNever;  // the wake-up before
  double next_ = Zel::Clock::kNever;
};

}  // namespace Host
