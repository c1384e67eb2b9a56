#include "ctl/events.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "ctl/text.h"

namespace Ctl {

Instant afterSeconds(std::optional<double> seconds) {
  if (!seconds) return kNever;
  constexpr double kMost = 1e9;
  if (!(*seconds >= 0.0 && *seconds <= kMost))
    throw UsageError("--for " + shortNumber(*seconds) + ": expected seconds from 0 to 1e9");
  const std::chrono::duration<double> span(*seconds);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(span);
}

Events::Events(std::initializer_list<int> signals) {
  sigset_t wanted;
  sigemptyset(&wanted);
  for (const int number : signals) sigaddset(&wanted, number);
  sigprocmask(SIG_BLOCK, &wanted, &before_);
  signals_ = signalfd(-1, &wanted, SFD_CLOEXEC);
}

Events::~Events() {
  close(signals_);
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

namespace {

// The timeout for poll() in milliseconds, rounded up; -1: infinite.
int pollTimeout(Instant deadline) {
  if (deadline == kNever) return -1;
  const auto now = std::chrono::steady_clock::now();
  if (deadline <= now) return 0;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
  return static_cast<int>(std::min<std::int64_t>(left, 1'000'000'000));
}

Event signalFrom(int descriptor) {
  signalfd_siginfo info{};
  if (read(descriptor, &info, sizeof info) != sizeof info) return {};
  return {Event::Kind::signal, {}, static_cast<int>(info.ssi_signo)};
}

}  // namespace

Event Events::next(Client* client, Instant deadline) {
  while (true) {
    if (client)
      if (auto notification = client->notification())
        return {Event::Kind::notification, std::move(*notification), 0};
    pollfd entries[] = {
        {signals_, POLLIN, 0}, {keys_, POLLIN, 0}, {client ? client->descriptor() : -1, POLLIN, 0}};
    const int ready = poll(entries, std::size(entries), pollTimeout(deadline));
    if (ready == 0) return {};
    if (entries[0].revents) return signalFrom(signals_);
    char key = 0;
    if (entries[1].revents && read(keys_, &key, 1) == 1) return {Event::Kind::key, {}, key};
    if (entries[1].revents) keys_ = -1;
    if (entries[2].revents) client->receive();
  }
}

}  // namespace Ctl
