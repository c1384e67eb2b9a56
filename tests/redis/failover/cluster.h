// Three servers, one of them the master, and three sentinels that watch them.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "tests/redis/server.h"

namespace Failover {

class Cluster {
 public:
  static constexpr std::size_t kSize = 3;

  // `leastReplicas`: min-replicas-to-write. `loop` must outlive it.
  Cluster(Host::Loop& loop, unsigned leastReplicas);

  std::string url(const std::string& timeout) const;
  // The server that all sentinels name; kSize while they do not agree.
  std::size_t named();
  // Whether all sentinels name the same server, which is a master that all others follow.
  bool isStable();

  RedisTest::Server& server(std::size_t i) { return *servers_[i]; }
  // Connected again where it was not.
  RedisTest::Client& client(std::size_t i);

 private:
  static std::string options(std::uint16_t port, unsigned leastReplicas);
  RedisTest::Client& connected(std::unique_ptr<RedisTest::Client>& client, const RedisTest::Server& server);
  bool isReady();

  Host::Loop& loop_;
  std::array<std::uint16_t, kSize> ports_{};
  std::array<std::unique_ptr<RedisTest::Server>, kSize> servers_{};
  std::array<std::unique_ptr<RedisTest::Sentinel>, kSize> sentinels_{};
  std::array<std::unique_ptr<RedisTest::Client>, kSize> clients_{}, sentinelClients_{};
};

}  // namespace Failover
