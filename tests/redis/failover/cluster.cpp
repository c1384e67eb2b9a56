#include "tests/redis/failover/cluster.h"

#include <algorithm>

namespace Failover {

using RedisTest::Client;
using RedisTest::runUntil;
using RedisTest::Sentinel;
using RedisTest::Server;

std::string Cluster::options(std::uint16_t port, unsigned leastReplicas) {
  return RedisTest::onPort(port) + "repl-diskless-sync-delay 0\nmin-replicas-to-write " +
         std::to_string(leastReplicas) + "\nmin-replicas-max-lag 2\nmaxmemory-policy noeviction\n";
}

Cluster::Cluster(Host::Loop& loop, unsigned leastReplicas) : loop_(loop) {
  for (std::size_t i = 0; i < kSize; ++i) {
    ports_[i] = RedisTest::freePort();
    const std::string follow = i == 0 ? "" : "replicaof 127.0.0.1 " + std::to_string(ports_[0]) + "\n";
    servers_[i] = std::make_unique<Server>(options(ports_[i], leastReplicas) + follow);
    client(i);
  }
  const std::string monitor =
      RedisTest::monitor(ports_[0], 2) +
      "sentinel down-after-milliseconds leds 1000\nsentinel failover-timeout leds 2000\n";
  for (std::size_t i = 0; i < kSize; ++i) {
    sentinels_[i] = std::make_unique<Sentinel>(monitor);
    connected(sentinelClients_[i], *sentinels_[i])
        .run(  // they look once in ten seconds by default, which is for networks
            "SENTINEL DEBUG INFO-PERIOD 200 PING-PERIOD 300 ASK-PERIOD 200 PUBLISH-PERIOD 200 "
            "ELECTION-TIMEOUT 1000");
  }
  runUntil(loop_, [this] { return isReady(); });
}

std::string Cluster::url(const std::string& timeout) const {
  std::string url = "redis+sentinel://";
  for (const auto& each : sentinels_) url += (url.ends_with('/') ? "" : ",") + each->address();
  return url + "/leds?prefix=failover&timeout=" + timeout;
}

Client& Cluster::connected(std::unique_ptr<Client>& client, const Server& server) {
  if (!client) client = std::make_unique<Client>(loop_, server.url());
  if (!client->connection.isReady()) client->connect();
  return *client;
}

Client& Cluster::client(std::size_t i) { return connected(clients_[i], *servers_[i]); }

std::size_t Cluster::named() {
  std::size_t all = kSize;
  for (std::size_t i = 0; i < kSize; ++i) {
    const auto answer =
        connected(sentinelClients_[i], *sentinels_[i])({"SENTINEL", "GET-MASTER-ADDR-BY-NAME", "leds"});
    const auto found = std::ranges::find(ports_, answer[1].unsignedNumber());
    const auto place = static_cast<std::size_t>(found - ports_.begin());
    if (place == kSize || (i > 0 && place != all)) return kSize;
    all = place;
  }
  return all;
}

bool Cluster::isReady() {
  for (std::size_t i = 0; i < kSize; ++i) {
    Client& sentinel = connected(sentinelClients_[i], *sentinels_[i]);
    if (sentinel({"SENTINEL", "REPLICAS", "leds"}).list.size() != kSize - 1 ||
        sentinel({"SENTINEL", "SENTINELS", "leds"}).list.size() != kSize - 1)
      return false;
  }
  return isStable();
}

bool Cluster::isStable() {
  const std::size_t master = named();
  if (master == kSize) return false;
  for (std::size_t i = 0; i < kSize; ++i) {
    const auto role = client(i)({"ROLE"});
    if (i == master && (role[0].text != "master" || role[2].list.size() != kSize - 1)) return false;
    if (i != master && (role[0].text != "slave" || role[3].text != "connected" ||
                        role[2].unsignedNumber() != ports_[master]))
      return false;
  }
  return true;
}

}  // namespace Failover
