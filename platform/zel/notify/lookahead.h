// Prefetching: overlaps the cache misses of handlers that run one after another.
//
//     // Beside Machine, the owner of a NestedReactor (slot.h), which finds it by argument-dependent look-up.
//     bool lookahead(const Machine& machine, unsigned step) {
//       if (step == 2) Zel::prefetch(machine.led());
//       return step == 2;
//     }
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/zel/notify/notifier.h"

namespace Zel {

namespace detail {
// Prefetches one cache line, given by a number: arithmetic on a null pointer is undefined. The empty asm
// keeps GCC from dropping calls of a function without effects.
inline void prefetchLine(std::uintptr_t address) {
  __builtin_prefetch(reinterpret_cast<const void*>(address), 1);
  asm volatile("");
}
}  // namespace detail

// Prefetches. The pointer is never dereferenced; it may dangle or be null.
template <class T>
void prefetch(const T* object) {
  const auto bytes = reinterpret_cast<std::uintptr_t>(object);
  for (std::size_t at = 0; at < sizeof(T); at += 64) detail::prefetchLine(bytes + at);
  if (sizeof(T) > 8) detail::prefetchLine(bytes + sizeof(T) - 1);
}

// The reactors that are delivered to next. Their lookahead() runs step by step across all of them, so that
// their misses are in flight together: a step follows one pointer, which the step before has prefetched.
class Lookahead {
 public:
  static constexpr unsigned kAtOnce = 16;

  // Prefetches the first subscriber of an object that is about to change.
  static void prefetchSubscriber(const Notifier& notifier) {
    const ListHook* const first = notifier.notifiees_.next();
    detail::prefetchLine(reinterpret_cast<std::uintptr_t>(first) - sizeof(PtrInterface));
    detail::prefetchLine(reinterpret_cast<std::uintptr_t>(first + 3));
  }

  // At most kAtOnce; more are ignored.
  void add(const NotifieeBase& notifiee) {
    if (count_ < kAtOnce) some_[count_++] = &notifiee;
  }
  // Returns whether any of them had something to prefetch.
  bool run() {
    unsigned step = 1;
    for (; step <= kSteps && count_ != 0; ++step) {
      const unsigned count = std::exchange(count_, 0U);
      for (unsigned i = 0; i < count; ++i)
        if (some_[i]->lookaheadStep(step)) some_[count_++] = some_[i];
    }
    return step > 2;
  }

 private:
  static constexpr unsigned kSteps = 4;

  unsigned count_ = 0;
  std::array<const NotifieeBase*, kAtOnce> some_;
};

}  // namespace Zel
