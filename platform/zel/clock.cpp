#include "platform/zel/clock.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>

#include "platform/zel/activity.h"
#include "platform/zel/assert.h"

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

Clock::Clock() : now_(tick(System::currentTime())) {}
Clock::~Clock() = default;

// The slot of a time. Times before the first tick are as good as it, and so are those beyond what a tick can
// count.
std::int64_t Clock::tick(double time) {
  constexpr double kLast = 9e15;
  return static_cast<std::int64_t>(std::clamp(time * 1000.0, 0.0, kLast));
}

template <std::size_t N>
void Clock::Wheel<N>::use(std::int64_t position) {
  const auto place = static_cast<std::size_t>(position) % N;
  used[place / 64] |= std::uint64_t{1} << (place % 64);
}

template <std::size_t N>
void Clock::Wheel<N>::unuse(std::int64_t position) {
  const auto place = static_cast<std::size_t>(position) % N;
  used[place / 64] &= ~(std::uint64_t{1} << (place % 64));
}

template <std::size_t N>
std::int64_t Clock::Wheel<N>::distance(std::int64_t position) const {
  const auto start = static_cast<std::size_t>(position) % N;
  std::uint64_t word = used[start / 64] & (~std::uint64_t{0} << (start % 64));
  for (std::size_t words = 0; words <= N / 64; ++words) {
    const std::size_t at = (start / 64 + words) % (N / 64);
    if (words != 0) word = used[at];
    if (words == N / 64) word &= ~(~std::uint64_t{0} << (start % 64));
    if (word == 0) continue;
    const std::size_t place = at * 64 + static_cast<std::size_t>(std::countr_zero(word));
    return static_cast<std::int64_t>((place + N - start) % N);
  }
  return N;
}

template <std::size_t N>
double Clock::Wheel<N>::earliest(std::int64_t position) {
  for (std::int64_t ahead = distance(position); ahead != N; ahead = distance(position)) {
    Slot& next = slot(position + ahead);
    if (next.members.linked()) return next.earliest;
    unuse(position + ahead);
  }
  return kNever;
}

void Clock::arm(NotifieeConst& notifiee) const {
  const std::int64_t at = std::max(tick(notifiee.timeMin_), now_);
  Slot* slot = &far_;
  if (at - now_ < kFine) {
    slot = &fine_.slot(at);
    fine_.use(at);
  } else if (at / kFine - now_ / kFine < kCoarse) {
    slot = &coarse_.slot(at / kFine);
    coarse_.use(at / kFine);
  }
  if (!slot->members.linked()) slot->earliest = kNever;
  slot->earliest = std::min(slot->earliest, notifiee.timeMin_);
  notifiee.registration().joinEndOf(slot->members);
}

void Clock::rearm(Slot& slot) const {
  ListHook members;
  members.takeAllOf(slot.members);
  while (members.linked()) {
    auto& notifiee = NotifieeConst::of(*members.next());
    notifiee.registration().leave();
    arm(notifiee);
  }
}

// A new block of fine slots begins: what waited for it in the coarse wheel comes into them.
void Clock::cascade() const {
  const std::int64_t block = now_ / kFine;
  if (block % kCoarse == 0) rearm(far_);
  coarse_.unuse(block);
  rearm(coarse_.slot(block));
}

// Puts what is due at `now` onto the list of the due.
void Clock::collect(double now) const {
  const std::int64_t target = std::max(tick(now), now_);
  while (now_ < target) {
    due_.takeAllOf(fine_.slot(now_).members);
    fine_.unuse(now_);
    const std::int64_t block = (now_ / kFine + 1) * kFine;
    now_ = std::min({target, block, now_ + 1 + fine_.distance(now_ + 1)});
    if (now_ == block) cascade();
  }
  Slot& slot = fine_.slot(now_);
  ListHook members;
  members.takeAllOf(slot.members);
  slot.earliest = kNever;
  while (members.linked()) {
    auto& notifiee = NotifieeConst::of(*members.next());
    notifiee.registration().leave();
    if (notifiee.timeMin_ <= now)
      notifiee.registration().joinEndOf(due_);
    else
      arm(notifiee);
  }
}

void Clock::advance(double now) const {
  collect(now);
  // Only what is due now: a handler's new time is collected by the next call.
  for (unsigned foreseen = 0; due_.linked(); --foreseen) {
    if (foreseen == 0) foreseen = NotifieeConst::foreseeSome<NotifieeConst::ofRegistration>(due_);
    wake(NotifieeConst::of(*due_.next()), now);
  }
}

void Clock::wake(NotifieeConst& notifiee, double now) const {
  notifiee.registration().leave();
  notifiee.armed_ = false;
  if (!notifiee.mayHear()) return;
  ++expiries_;
  if (std::isfinite(notifiee.timeMin_)) worstLateness_ = std::max(worstLateness_, now - notifiee.timeMin_);
  const Ptr<NotifieeConst> kept(&notifiee);
  runHandler(notifiee, this, [&] { notifiee.onTime(); });
}

double Clock::nextWakeUp() const {
  if (due_.linked()) return -kNever;
  const double far = far_.members.linked() ? far_.earliest : kNever;
  return std::min({fine_.earliest(now_), coarse_.earliest(now_ / kFine + 1), far});
}

double Clock::worstLateness(bool reset) const {
  return reset ? std::exchange(worstLateness_, 0.0) : worstLateness_;
}

void Clock::NotifieeConst::timeMinIs(const double& time) {
  timeMin_ = std::isnan(time) ? kNever : time;
  armed_ = timeMin_ < kNever;
  registration().leave();
  if (isRegisteredNotifiee()) join();
}

void Clock::NotifieeConst::join() {
  if (armed_ && notifier()) notifier()->arm(*this);
}

}  // namespace Zel
