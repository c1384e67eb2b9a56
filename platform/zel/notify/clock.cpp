#include "platform/zel/notify/clock.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/lateness.h"
#include "platform/zel/notify/lookahead.h"

namespace Zel {

namespace {
constinit System::ManualTime* manualTime = nullptr;
}

double System::currentTime() {
  if (manualTime) return manualTime->now_;
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

System::ManualTime::ManualTime(double now) : now_(now), before_(std::exchange(manualTime, this)) {}
System::ManualTime::~ManualTime() { manualTime = before_; }

const TypeNode& Clock::typeNode() {
  static const TypeNode type("Zel::Clock", nullptr, {}, nullptr, nullptr);
  return type;
}

Lateness& Lateness::ofProcess() {
  static constinit Lateness lateness;
  return lateness;
}

Clock::Clock() : wheel_(System::currentTime()) {}
Clock::~Clock() = default;

// Replaces the time where the reactor waits already.
void Clock::arm(NotifieeConst& notifiee) const {
  if (notifiee.timer_ == TimerWheel::kNone)
    notifiee.timer_ = wheel_.arm(notifiee.timeMin_, &notifiee);
  else
    wheel_.rearm(notifiee.timer_, notifiee.timeMin_);
}

void Clock::disarm(NotifieeConst& notifiee) const {
  const auto timer = std::exchange(notifiee.timer_, TimerWheel::kNone);
  if (timer != TimerWheel::kNone) wheel_.disarm(timer);
}

Clock::NotifieeConst& Clock::notifiee(TimerWheel::Timer timer) const {
  return *static_cast<NotifieeConst*>(wheel_.payload(timer));
}

void Clock::advance(double now) const {
  wheel_.collect(now);
  // A time that a handler sets is collected by the next call.
  for (unsigned ahead = 0; wheel_.firstDue() != TimerWheel::kNone; --ahead) {
    if (ahead == 0) {
      lookAhead();
      ahead = Lookahead::kAtOnce;
    }
    wake(notifiee(wheel_.firstDue()), now);
  }
}

// For the next of the due; the reactors that come after them are prefetched.
void Clock::lookAhead() const {
  TimerWheel::Timer due = wheel_.firstDue();
  for (unsigned i = 0; i < 2 * Lookahead::kAtOnce && due != TimerWheel::kNone; ++i, due = wheel_.nextDue(due))
    prefetch(&notifiee(due));
  Lookahead next;
  due = wheel_.firstDue();
  for (unsigned i = 0; i < Lookahead::kAtOnce && due != TimerWheel::kNone; ++i, due = wheel_.nextDue(due))
    next.add(notifiee(due));
  next.run();
}

void Clock::wake(NotifieeConst& notifiee, double now) const {
  disarm(notifiee);
  notifiee.armed_ = !notifiee.hasNotificationActive() && !notifiee.zelIsZombie();  // held until it is on
  if (!notifiee.mayBeNotified()) return;
  ++expiries_;
  if (std::isfinite(notifiee.timeMin_)) {
    worstLateness_ = std::max(worstLateness_, now - notifiee.timeMin_);
    Lateness::ofProcess().add(now - notifiee.timeMin_);
  }
  const Ptr<NotifieeConst> kept(&notifiee);
  runHandler(notifiee, this, [&] { notifiee.onTime(); });
}

double Clock::nextWakeUp() const { return wheel_.next(); }

double Clock::worstLateness(bool reset) const {
  return reset ? std::exchange(worstLateness_, 0.0) : worstLateness_;
}

void Clock::NotifieeConst::timeMinIs(const double& time) {
  timeMin_ = std::isnan(time) ? kNever : time;
  armed_ = timeMin_ < kNever;
  if (!notifier()) return;
  if (armed_ && isRegisteredNotifiee())
    notifier()->arm(*this);
  else
    notifier()->disarm(*this);
}

void Clock::NotifieeConst::join() {
  if (armed_ && notifier()) notifier()->arm(*this);
}

void Clock::NotifieeConst::part() {
  if (!notifier()) return;
  if (timer_ == TimerWheel::kNone) armed_ = false;
  notifier()->disarm(*this);
}

void Clock::NotifieeConst::hasNotificationActiveIs(bool active) {
  NotifieeBase::hasNotificationActiveIs(active);
  if (active && isHeld()) join();
}

void Clock::NotifieeConst::zelDoZombieReactors(bool zombie) {
  NotifieeBase::zelDoZombieReactors(zombie);
  if (zombie && isHeld()) armed_ = false;
}

}  // namespace Zel
