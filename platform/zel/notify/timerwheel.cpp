#include "platform/zel/notify/timerwheel.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

namespace Zel {

TimerWheel::TimerWheel(double now) : now_(tick(now)), nodes_(kSlots) {
  for (std::uint32_t slot = 0; slot < kSlots; ++slot) nodes_[slot].next = nodes_[slot].previous = slot;
}

// The millisecond of a time. Clamped: times before 0 count as 0, and those beyond what a tick can count as
// the last.
std::int64_t TimerWheel::tick(double time) {
  constexpr double kLast = 9e15;
  return static_cast<std::int64_t>(std::clamp(time * 1000.0, 0.0, kLast));
}

template <std::uint32_t First, std::size_t N>
void TimerWheel::Level<First, N>::use(std::int64_t position) {
  const auto bit = static_cast<std::size_t>(position) % N;
  used[bit / 64] |= std::uint64_t{1} << (bit % 64);
}

template <std::uint32_t First, std::size_t N>
void TimerWheel::Level<First, N>::unuse(std::int64_t position) {
  const auto bit = static_cast<std::size_t>(position) % N;
  used[bit / 64] &= ~(std::uint64_t{1} << (bit % 64));
}

template <std::uint32_t First, std::size_t N>
std::int64_t TimerWheel::Level<First, N>::distance(std::int64_t position) const {
  const auto start = static_cast<std::size_t>(position) % N;
  std::uint64_t word = used[start / 64] & (~std::uint64_t{0} << (start % 64));
  for (std::size_t words = 0; words <= N / 64; ++words) {
    const std::size_t at = (start / 64 + words) % (N / 64);
    if (words != 0) word = used[at];
    if (words == N / 64) word &= ~(~std::uint64_t{0} << (start % 64));
    if (word == 0) continue;
    const std::size_t bit = at * 64 + static_cast<std::size_t>(std::countr_zero(word));
    return static_cast<std::int64_t>((bit + N - start) % N);
  }
  return N;
}

template <std::uint32_t First, std::size_t N>
double TimerWheel::Level<First, N>::earliest(std::int64_t position, const TimerWheel& wheel) {
  for (std::int64_t ahead = distance(position); ahead != N; ahead = distance(position)) {
    const std::uint32_t next = slot(position + ahead);
    if (wheel.hasMembers(next)) return wheel.nodes_[next].time;
    unuse(position + ahead);
  }
  return kNever;
}

// Joins the list of a slot before `next`, a member or the head, which is also the end.
void TimerWheel::join(std::uint32_t slot, std::uint32_t next, std::uint32_t node) {
  Node& head = nodes_[slot];
  Node& joining = nodes_[node];
  head.time = hasMembers(slot) ? std::min(head.time, joining.time) : joining.time;
  joining.next = next;
  joining.previous = nodes_[next].previous;
  nodes_[joining.previous].next = node;
  nodes_[next].previous = node;
}

void TimerWheel::leave(std::uint32_t node) {
  nodes_[nodes_[node].previous].next = nodes_[node].next;
  nodes_[nodes_[node].next].previous = nodes_[node].previous;
}

// The slot of a time, marked as used.
std::uint32_t TimerWheel::slotOf(double time) {
  const std::int64_t at = std::max(tick(time), now_);
  if (at - now_ < kFine) {
    fine_.use(at);
    return fine_.slot(at);
  }
  if (at / kFine - now_ / kFine >= kCoarse) return kFarSlot;
  coarse_.use(at / kFine);
  return coarse_.slot(at / kFine);
}

// LIFO free list: a timer that is armed again from its own expiry gets its node back.
TimerWheel::Timer TimerWheel::arm(double time, void* payload) {
  if (free_ == 0) {
    nodes_.emplace_back();
    free_ = static_cast<std::uint32_t>(nodes_.size() - 1);
  }
  const Timer timer = free_;
  free_ = nodes_[timer].next;
  nodes_[timer].time = time;
  nodes_[timer].payload = payload;
  const std::uint32_t slot = slotOf(time);
  join(slot, slot, timer);
  return timer;
}

void TimerWheel::rearm(Timer timer, double time) {
  leave(timer);
  nodes_[timer].time = time;
  const std::uint32_t slot = slotOf(time);
  join(slot, slot, timer);
}

void TimerWheel::disarm(Timer timer) {
  leave(timer);
  nodes_[timer].next = std::exchange(free_, timer);
}

// Moves each of a slot's members to the slot of its time, which may be the same again. They go before the
// members that are there: those never waited in a coarser slot, so they were armed later.
void TimerWheel::redistribute(std::uint32_t slot) {
  std::uint32_t node = nodes_[slot].previous;
  nodes_[slot].next = nodes_[slot].previous = slot;
  while (node != slot) {
    const std::uint32_t previous = nodes_[node].previous;
    const std::uint32_t to = slotOf(nodes_[node].time);
    join(to, nodes_[to].next, node);
    node = previous;
  }
}

// A new block of fine slots begins: its members move down from the coarse level, and then what lay beyond.
void TimerWheel::cascade() {
  const std::int64_t block = now_ / kFine;
  coarse_.unuse(block);
  redistribute(coarse_.slot(block));
  if (block % kCoarse == 0) redistribute(kFarSlot);
}

void TimerWheel::collect(double now) {
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

void TimerWheel::collectFrom(std::uint32_t slot, double now) {
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

double TimerWheel::next() {
  if (hasMembers(kDueSlot)) return -kNever;
  const double far = hasMembers(kFarSlot) ? nodes_[kFarSlot].time : kNever;
  return std::min({fine_.earliest(now_, *this), coarse_.earliest(now_ / kFine + 1, *this), far});
}

TimerWheel::Around TimerWheel::around(double time, double reach) const {
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

}  // namespace Zel
