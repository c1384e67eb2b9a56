// Metrics of a host and its agents, in the text format of Prometheus. docs/commands.md lists the metrics.
#pragma once

#include <string>

#include "ctl/client.h"

namespace Ctl {

// From wholeStatus() and the entities of lines' status. `socket`: the host's, which labels its values as the
// sockets of the other processes label theirs.
std::string metricsText(const Json& status, const Json& lines, const std::string& socket);
// That the host at the socket can't be reached.
std::string downMetricsText(const std::string& socket);

}  // namespace Ctl
