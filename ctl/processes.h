// The processes that run agents on a host's state database: the host itself, those that announced themselves
// to it, and those on any machine that hold a claim in a shared database.
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
// The paths that running agents fill, and those whose publisher is gone and left its rows.
std::vector<std::string> filledPaths(const Json& status);
// Whether a running agent fills `path`; nullopt if the host doesn't list its processes.
std::optional<bool> isFilled(const Json& status, const std::string& path);

// A path of a shared state database that one process at a time may publish, or cover.
struct Claim {
  std::string path;
  std::string who{};      // the holder; empty: nobody
  bool isOwn = false;     // the host that gave the status is the holder
  bool isOrphan = false;  // the holder is gone
  bool isOfCovers = false;

  // A running process other than that host is the holder.
  bool isElsewhere() const { return !who.empty() && !isOwn && !isOrphan; }
};
std::vector<Claim> claimsOf(const Json& status);
// The publisher's claim of exactly this path; without a holder if there is none.
Claim claimOf(const Json& status, const std::string& path);
// "published by pinlampd 4711 on box2".
std::string text(const Claim& claim);

// The status of a host and of what its agents do, also those in other processes: "leds", "mappings", "pins"
// and "machines" beside the host's own members; "machines" and "published" of all processes together; each
// process's own status, or why it has none ("error"), in its entry in "processes".
Json wholeStatus(Client& client);
// "path" and "attributes" of the status entities of GPIO lines. While no line agent runs, of each wired pin
// that has a value, as not driven. Empty if another host keeps the state database. `status` is the host's
// answer to that.
Json readLines(Client& client, const Json& status);

}  // namespace Ctl
