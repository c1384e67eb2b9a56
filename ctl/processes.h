// The processes that run agents on a host's state database: the host itself, and those that announced
// themselves to it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ctl/client.h"

namespace Ctl {

// A process that announced itself; not the host that keeps the state.
struct Process {
  std::int64_t pid = 0;
  std::string socket;              // its control socket
  Json agents = Json::array();     // {"name", "library"} each
  std::vector<std::string> fills;  // paths that only its agents write at and under
};

// The timeout of calls to another process, which may hang while the user waits.
inline constexpr std::chrono::seconds kProcessTimeout{2};

// From the answer to `status` of the host that keeps the state.
std::vector<Process> processesOf(const Json& status);
// Whether a running agent fills `path`; nullopt if the host doesn't list its processes.
std::optional<bool> isFilled(const Json& status, const std::string& path);

// The status of a host and of what its agents do, also those in other processes: "leds", "mappings", "pins"
// and "machines" beside the host's own members; "machines" and "published" of all processes together; each
// process's own status, or why it has none ("error"), in its entry in "processes".
Json wholeStatus(Client& client);

}  // namespace Ctl
