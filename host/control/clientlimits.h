// Limits on the clients of a control socket, all together.
#pragma once

#include <cstddef>
#include <limits>
#include <optional>

namespace Host {

struct ClientLimits {
  static constexpr std::size_t kMostClients = 1000;  // unless the command line gives another number
  // Descriptors kept for the host and its agents: a quarter of those that the process may open, but no more
  // than this.
  static constexpr std::size_t kMostKept = 256;

  // From RLIMIT_NOFILE. Throws StartError if `clients` would need descriptors that are kept.
  static ClientLimits ofProcess(std::optional<std::size_t> clients);

  std::size_t clients = kMostClients;  // at a time
  // No client gets a descriptor from this number on. The kernel assigns the lowest free number, so those
  // above are free, or the host's own.
  int descriptors = std::numeric_limits<int>::max();
  // Bytes of unfinished messages and unsent output that the clients hold together, beside those of the client
  // that holds the most, which alone may get an answer of any length.
  std::size_t memory = 64 << 20;
  // Time of one round for the requests of clients, in seconds. What is left over waits for the next round.
  double round = 4e-3;
};

}  // namespace Host
