// When the host wakes for expiries of a clock.
#pragma once

#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/clock.h"

namespace Host {

// Coalesces wake-ups. A rare one comes exactly when its expiry is due. But a wake-up costs ten times as much
// as an expiry, so expiries due within kSlack of the first share one, at the time of the last. And where
// wake-ups are frequent, one that is closer to its successor than to its predecessor is delayed by kSlack,
// every time round, until the two merge. Reactors that compute their next time from the wake-up, as flashing
// LEDs do, then stay merged, without further delay.
//
//     loop.turnIs([&] { activity.step(); return wakeUps.next(activity); });
class WakeUps {
 public:
  // The most that a wake-up is delayed, in seconds. None is early.
  static constexpr double kSlack = 100e-6;

  // The time of the next pass of `activity`. Call it after every pass.
  double next(const Zel::ActivityManager& activity);

 private:
  double shared(double due, const Zel::Clock& clock) const;

  double last_ = -Zel::Clock::kNever;  // the previous wake-up
  double next_ = Zel::Clock::kNever;
};

}  // namespace Host
