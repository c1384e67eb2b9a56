#include "platform/zel/notify/clock.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/activity.h"

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

Clock::Clock() : now_(tick(System::currentTime())), nodes_(kSlots) {
  for (std::uint32_t slot = 0; slot < kSlots; ++slot) nodes_[slot].next = nodes_[slot].previous = slot;
}
Clock::~Clock() = default;

// The slot of a time. Times before the first tick are as good as it, and so are those beyond what a tick can
// count.
std::int64_t Clock::tick(double time) {
  constexpr double kLast = 9e15;
  return static_cast<std::int64_t>(std::clamp(time * 1000.0, 0.0, kLast));
}

template <std::uint32_t First, std::size_t N>
void Clock::Wheel<First, N>::use(std::int64_t position) {
  const auto place = static_cast<std::size_t>(position) % N;
  used[place / 64] |= std::uint64_t{1} << (place % 64);
}

template <std::uint32_t First, std::size_t N>
void Clock::Wheel<First, N>::unuse(std::int64_t position) {
  const auto place = static_cast<std::size_t>(position) % N;
  used[place / 64] &= ~(std::uint64_t{1} << (place % 64));
}

template <std::uint32_t First, std::size_t N>
std::int64_t Clock::Wheel<First, N>::distance(std::int64_t position) const {
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

template <std::uint32_t First, std::size_t N>
double Clock::Wheel<First, N>::earliest(std::int64_t position, const Clock& clock) {
  for (std::int64_t ahead = distance(position); ahead != N; ahead = distance(position)) {
    const std::uint32_t next = slot(position + ahead);
    if (clock.hasMembers(next)) return clock.nodes_[next].time;
    unuse(position + ahead);
  }
  return kNever;
}

// Joins the list of a slot before `next`, a member or the head, which is also the end.
void Clock::join(std::uint32_t slot, std::uint32_t next, std::uint32_t node) const {
  Node& head = nodes_[slot];
  Node& joining = nodes_[node];
  head.time = hasMembers(slot) ? std::min(head.time, joining.time) : joining.time;
  joining.next = next;
  joining.previous = nodes_[next].previous;
  nodes_[joining.previous].next = node;
  nodes_[next].previous = node;
}

void Clock::leave(std::uint32_t node) const {
  nodes_[nodes_[node].previous].next = nodes_[node].next;
  nodes_[nodes_[node].next].previous = nodes_[node].previous;
}

// The slot of a time, marked as used.
std::uint32_t Clock::slotOf(double time) const {
  const std::int64_t at = std::max(tick(time), now_);
  if (at - now_ < kFine) {
    fine_.use(at);
    return fine_.slot(at);
  }
  if (at / kFine - now_ / kFine >= kCoarse) return kFarSlot;
  coarse_.use(at / kFine);
  return coarse_.slot(at / kFine);
}

// Puts each of a slot's members into the slot of its time, which may be this one again. They come before the
// members that are there: those did not have to wait in a coarser slot, so they were armed later.
void Clock::placeAllOf(std::uint32_t slot) const {
  std::uint32_t node = nodes_[slot].previous;
  nodes_[slot].next = nodes_[slot].previous = slot;
  while (node != slot) {
    const std::uint32_t previous = nodes_[node].previous;
    const std::uint32_t place = slotOf(nodes_[node].time);
    join(place, nodes_[place].next, node);
    node = previous;
  }
}

// A node that was freed last is taken first: a reactor that is armed anew where it was woken gets its own.
void Clock::arm(NotifieeConst& notifiee) const {
  if (free_ == 0) {
    nodes_.emplace_back();
    free_ = static_cast<std::uint32_t>(nodes_.size() - 1);
  }
  const std::uint32_t node = free_;
  free_ = nodes_[node].next;
  nodes_[node].time = notifiee.timeMin_;
  nodes_[node].notifiee = &notifiee;
  notifiee.node_ = node;
  const std::uint32_t slot = slotOf(notifiee.timeMin_);
  join(slot, slot, node);
}

void Clock::disarm(NotifieeConst& notifiee) const {
  const std::uint32_t node = std::exchange(notifiee.node_, 0U);
  if (node == 0) return;
  leave(node);
  nodes_[node].next = std::exchange(free_, node);
}

// A new block of fine slots begins: what waited for it in the coarse wheel comes into them, and before that
// what waited still further away.
void Clock::cascade() const {
  const std::int64_t block = now_ / kFine;
  coarse_.unuse(block);
  placeAllOf(coarse_.slot(block));
  if (block % kCoarse == 0) placeAllOf(kFarSlot);
}

// Moves what is due at `now` to the due.
void Clock::collect(double now) const {
  const std::int64_t target = std::max(tick(now), now_);
  while (now_ < target) {
    collectFrom(fine_.slot(now_), kNever);
    fine_.unuse(now_);
    const std::int64_t block = (now_ / kFine + 1) * kFine;
    now_ = std::min({target, block, now_ + 1 + fine_.distance(now_ + 1)});
    if (now_ == block) cascade();
  }
  collectFrom(fine_.slot(now_), now);
}

void Clock::collectFrom(std::uint32_t slot, double now) const {
  double earliest = kNever;
  for (std::uint32_t node = nodes_[slot].next; node != slot;) {
    const std::uint32_t next = nodes_[node].next;
    if (nodes_[node].time <= now) {
      leave(node);
      join(kDueSlot, kDueSlot, node);
    } else {
      earliest = std::min(earliest, nodes_[node].time);
    }
    node = next;
  }
  nodes_[slot].time = earliest;
}

void Clock::advance(double now) const {
  collect(now);
  // Only what is due now: a handler's new time is collected by the next call.
  for (unsigned foreseen = 0; hasMembers(kDueSlot); --foreseen) {
    if (foreseen == 0) {
      foreseeSome();
      foreseen = NotifieeConst::Foresight::kAtOnce;
    }
    wake(*nodes_[nodes_[kDueSlot].next].notifiee, now);
  }
}

// Has those of the due foresee that come first, and fetches those that come after them.
void Clock::foreseeSome() const {
  NotifieeConst::Foresight foresight;
  std::uint32_t node = nodes_[kDueSlot].next;
  for (unsigned i = 0; i < 2 * foresight.kAtOnce && node != kDueSlot; ++i, node = nodes_[node].next)
    prefetch(nodes_[node].notifiee);
  node = nodes_[kDueSlot].next;
  for (unsigned i = 0; i < foresight.kAtOnce && node != kDueSlot; ++i, node = nodes_[node].next)
    foresight.add(*nodes_[node].notifiee);
  foresight.foresee();
}

void Clock::wake(NotifieeConst& notifiee, double now) const {
  disarm(notifiee);
  notifiee.armed_ = !notifiee.hasNotificationActive() && !notifiee.zelIsZombie();  // held until it is on
  if (!notifiee.mayBeNotified()) return;
  ++expiries_;
  if (std::isfinite(notifiee.timeMin_)) worstLateness_ = std::max(worstLateness_, now - notifiee.timeMin_);
  const Ptr<NotifieeConst> kept(&notifiee);
  runHandler(notifiee, this, [&] { notifiee.onTime(); });
}

double Clock::nextWakeUp() const {
  if (hasMembers(kDueSlot)) return -kNever;
  const double far = hasMembers(kFarSlot) ? nodes_[kFarSlot].time : kNever;
  return std::min({fine_.earliest(now_, *this), coarse_.earliest(now_ / kFine + 1, *this), far});
}

Clock::Around Clock::around(double time, double reach) const {
  Around found{-kNever, kNever};
  const std::int64_t last = std::min(tick(time + reach), now_ + kFine - 1);
  for (std::int64_t at = std::max(tick(time - reach), now_); at <= last; ++at)
    for (std::uint32_t node = nodes_[fine_.slot(at)].next; node != fine_.slot(at); node = nodes_[node].next) {
      const double each = nodes_[node].time;
      if (std::abs(each - time) > reach) continue;
      if (each <= time)
        found.before = std::max(found.before, each);
      else
        found.after = std::min(found.after, each);
    }
  return found;
}

double Clock::worstLateness(bool reset) const {
  return reset ? std::exchange(worstLateness_, 0.0) : worstLateness_;
}

void Clock::NotifieeConst::timeMinIs(const double& time) {
  part();
  timeMin_ = std::isnan(time) ? kNever : time;
  armed_ = timeMin_ < kNever;
  if (isRegisteredNotifiee()) join();
}

void Clock::NotifieeConst::join() {
  if (armed_ && notifier()) notifier()->arm(*this);
}

void Clock::NotifieeConst::part() {
  if (!notifier()) return;
  if (node_ == 0) armed_ = false;
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
