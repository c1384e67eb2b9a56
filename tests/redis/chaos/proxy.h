// Stands between one store and the server, on a socket of its own, and treats the bytes as a bad network
// does.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "host/control/listener.h"
#include "host/io/loop.h"

namespace Chaos {

class Proxy {
 public:
  // One direction. A heal is an assignment of Flow().
  struct Flow {
    bool isHeld = false;      // nothing passes; what was held passes later, even if its sender has gone
    std::uint64_t delay = 0;  // milliseconds
    std::size_t most = std::numeric_limits<std::size_t>::max();  // bytes a pump
    bool endsInChunk = false;  // the next chunk passes by half, then the connection ends
  };

  // `loop` must outlive it.
  Proxy(Host::Loop& loop, const std::string& socket, std::string server);
  ~Proxy();

  Flow up{}, down{};     // to the server, to the store
  bool refuses = false;  // ends new connections at once

  // Ends all connections; bytes on their way are lost.
  void cut() { links_.clear(); }
  // Passes on what is due. Call it every few milliseconds.
  void pump();

 private:
  class Link;

  Host::Loop& loop_;
  const std::string server_;
  std::vector<std::shared_ptr<Link>> links_;
  Host::Listener listener_;
};

}  // namespace Chaos
