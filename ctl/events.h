// Waits for the first of: a notification of the host, a signal, a key, a deadline.
#pragma once

#include <signal.h>

#include <chrono>
#include <initializer_list>
#include <optional>

#include "ctl/client.h"

namespace Ctl {

using Instant = std::chrono::steady_clock::time_point;
inline constexpr Instant kNever = Instant::max();

// `seconds` from now; kNever if not given. Throws UsageError if the number is negative, above 1e9 or NaN.
Instant afterSeconds(std::optional<double> seconds);

struct Event {
  enum class Kind { notification, signal, key, deadline };
  Kind kind = Kind::deadline;
  Json notification;
  int number = 0;  // of the signal; the character of the key
};

// Blocks the given signals while it lives, and delivers them as events.
class Events {
 public:
  explicit Events(std::initializer_list<int> signals);
  ~Events();
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  // Reads keys from this descriptor; -1: none.
  void keysFrom(int descriptor) { keys_ = descriptor; }

  // Waits for the next event: Kind::deadline once that has passed and nothing is pending. `client` may be
  // null. Throws ConnectionLost.
  Event next(Client* client, Instant deadline);

 private:
  int signals_ = -1;
  int keys_ = -1;
  sigset_t before_{};
};

}  // namespace Ctl
