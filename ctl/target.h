// The state database that a command works on: a running host's, or a store that it opens by itself.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "ctl/client.h"
#include "host/controlsocket.h"

namespace Ctl {

struct Target {
  std::string socket = Host::clientSocket();
  std::string store{};               // the store's URL; empty: the host's at `socket`
  std::vector<std::string> types{};  // libraries whose types its entities have
  double wait = 0;                   // seconds to wait for it to be ready

  bool hasHost() const { return store.empty(); }
  // "pinlampd at /run/pinlamp/control.sock", "state database redis-unix:/run/redis.sock".
  std::string name() const;
  // Waits until the host's store is reached and its mounts are complete, and connects even where they are
  // not; or until the store is reached. Throws ConnectionLost and Refusal, and UsageError for a store that a
  // command can't use.
  std::unique_ptr<Client> connect() const;
};

}  // namespace Ctl
