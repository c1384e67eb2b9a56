#include "host/control/clientlimits.h"

#include <sys/resource.h>

#include <algorithm>
#include <string>

#include "host/io/starterror.h"

namespace Host {

namespace {

// RLIM_INFINITY is the largest number; no descriptor exceeds an int.
std::size_t openFiles() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max());
}

}  // namespace

ClientLimits ClientLimits::ofProcess(std::optional<std::size_t> clients) {
  const std::size_t files = openFiles();
  const std::size_t kept = std::min(files / 4, kMostKept);
  const std::size_t most = files - kept;
  if (clients.value_or(0) > most)
    throw StartError("--max-clients " + std::to_string(*clients) + ": " + std::to_string(most) +
                     " at most, for the process may open " + std::to_string(files) + " files and keeps " +
                     std::to_string(kept) +
                     " of them for itself; raise that limit (ulimit -n, LimitNOFILE=)");
  return {.clients = clients.value_or(std::min(most, kMostClients)), .descriptors = static_cast<int>(most)};
}

}  // namespace Host
