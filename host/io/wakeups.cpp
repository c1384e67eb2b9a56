#include "host/io/wakeups.h"

#include <algorithm>

namespace Host {

namespace {
constexpr double kNear = 1e-3;      // seconds; wake-ups further apart do not merge
constexpr double kFrequent = 4e-3;  // seconds; a wake-up that is rarer than this is not delayed
}  // namespace

double WakeUps::next(const Zel::ActivityManager& activity) {
  const double now = Zel::System::currentTime();
  const double due = activity.nextWakeUp();
  if (next_ <= now) last_ = next_;
  next_ = now < due && activity.clock() ? shared(due, *activity.clock()) : due;
  return next_;
}

double WakeUps::shared(double due, const Zel::Clock& clock) const {
  if (due == Zel::Clock::kNever) return due;
  const Zel::Clock::Around around = clock.around(due + kSlack, kNear);
  const double last = std::max(due, around.before);
  const double ahead = around.after - last;
  const double behind = due - last_;
  return ahead < kNear && ahead < behind && behind < kFrequent ? due + kSlack : last;
}

}  // namespace Host
