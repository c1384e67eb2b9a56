// Connects to a server, or to the master that sentinels name, and checks it. Blocks until it is done: for
// programs that have no loop of their own.
//
//     for (const Finding& each : probe(parseUrl(url))) print(each);
#pragma once

#include <vector>

#include "host/store/redis/servercheck.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

// A server that can't be reached is a finding too. Changes nothing on the server. Every step may take the
// URL's timeout.
std::vector<Finding> probe(const Url& url);

}  // namespace Host::Redis
