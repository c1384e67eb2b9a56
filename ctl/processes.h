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
  std::vector<std::string> fills;  // paths that only its agents write under
};

// How long a process may take for an answer: a person waits, and it may hang.
inline constexpr std::chrono::seconds kProcessPatience{2};

// From the answer to `status` of the host that keeps the state.
std::vector<Process> processesOf(const Json& status);
// Whether an agent runs that fills what stands at `path`; not known where the host doesn't know either.
std::optional<bool> isFilled(const Json& status, const std::string& path);

// The status of a host and of what its agents do, also those in other processes: "leds", "mappings", "pins"
// and "machines" beside the host's own members; "machines" and "published" of all processes together; each
// process's own status, or why it has none ("error"), in its entry in "processes".
Json wholeStatus(Client& client);

}  // namespace Ctl
