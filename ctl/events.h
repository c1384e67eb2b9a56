// Waiting for whatever happens first: the host tells something, a signal, a key, or a time.
#pragma once

#include <signal.h>

#include <chrono>
#include <initializer_list>
#include <optional>

#include "ctl/client.h"

namespace Ctl {

using Instant = std::chrono::steady_clock::time_point;
inline constexpr Instant kNever = Instant::max();

// `seconds` from now; never where none are given. Throws UsageError where the number is negative or none at
// all.
Instant afterSeconds(std::optional<double> seconds);

struct Event {
  enum class Kind { notification, signal, key, deadline };
  Kind kind = Kind::deadline;
  Json notification;
  int number = 0;  // of the signal; the character of the key
};

// While it lives, the signals that it was made for arrive as events and do nothing else.
class Events {
 public:
  explicit Events(std::initializer_list<int> signals);
  ~Events();
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  // Keys are read from this descriptor from now on; -1 for none.
  void keysFrom(int descriptor) { keys_ = descriptor; }

  // The next event; of kind deadline once that has passed and nothing else is waiting. Null for no client.
  // Throws ConnectionLost.
  Event next(Client* client, Instant deadline);

 private:
  int signals_ = -1;
  int keys_ = -1;
  sigset_t before_{};
};

}  // namespace Ctl
