// How the cost of a shared state database grows with the hosts on it: real hosts with LED agents, of 100 LEDs
// each.
#include <memory>
#include <thread>

#include "bench/client.h"
#include "bench/measure.h"
#include "bench/redis.h"
#include "bench/table.h"

namespace Bench {

namespace {

constexpr std::size_t kLedsEach = 100;
// Hosts that start at a time: all of a large fleet at once would keep the machine busy for longer than
// clients of the server wait.
constexpr std::size_t kStartedTogether = 4;
// The default of a second is for a server that shares its processor with fewer.
constexpr const char* kPatience = "&timeout=60s";
constexpr double kTimeout = 300;  // seconds until a host listens

std::size_t trips() { return quick() ? 400 : 2000; }
double idleTime() { return quick() ? 1 : 3; }

// Hosts on one server, with a database for each, or one that all share: there the first drives all LEDs.
class Fleet {
 public:
  Fleet(std::size_t hosts, bool isShared) : isShared_(isShared) {
    for (std::size_t i = 0; i < hosts; ++i) {
      const std::string database = "host" + std::to_string(isShared ? 0 : i);
      hosts_.push_back(std::make_unique<RunningHost>(server_.url(database + kPatience)));
      if (i == 0 || !isShared) hosts_[i]->fill(isShared ? hosts * kLedsEach : kLedsEach);
      if (hosts_.size() % kStartedTogether == 0) connect();
    }
    connect();
  }

  // From a client of one host to the pin at another client of it; the hosts take turns.
  std::vector<double> trips() {
    std::vector<double> times;
    for (const std::size_t end = trip_ + Bench::trips(); trip_ < end; ++trip_) {
      Sides& sides = *sides_[trip_ % sides_.size()];
      const std::size_t led = isShared_ ? trip_ % leds() : trip_ / sides_.size() % kLedsEach;
      const std::size_t round = 1 + trip_ / leds();  // fill() was the first
      const std::string request = setRequest(led, steady((led + round) % kPins));
      const double start = now();
      sides.writer.send(request);
      sides.watcher.readLine();
      times.push_back(now() - start);
      sides.writer.readLine();
      if (isShared_) drain(sides);
    }
    return times;
  }
  // Of the server.
  double processorTime() const { return server_.processorTime(); }
  double memory() const { return Bare(server_.socket()).info("used_memory"); }
  std::size_t leds() const { return hosts_.size() * kLedsEach; }

 private:
  struct Sides {
    explicit Sides(const std::string& socket) : writer(patiently(socket)), watcher(socket) {
      watcher.call("watch", {{"path", Paths::kPins}});
    }
    // A host that is a standby listens as soon as it has read the rows.
    static std::string patiently(const std::string& socket) {
      for (const double end = now() + kTimeout; now() < end;) try {
          Client(socket).call("status", Json::object());
          return socket;
        } catch (const std::runtime_error&) {
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
      throw std::runtime_error(socket + ": the host does not answer");
    }
    Client writer, watcher;
  };

  // To the hosts that were started since; waits until they listen.
  void connect() {
    while (sides_.size() < hosts_.size())
      sides_.push_back(std::make_unique<Sides>(hosts_[sides_.size()]->socket()));
  }
  // The watches of the other hosts have the pins as well.
  void drain(const Sides& of) {
    for (const auto& each : sides_)
      if (each.get() != &of) each->watcher.readLine();
  }

  const bool isShared_;
  std::size_t trip_ = 0;
  const RedisServer server_;
  std::vector<std::unique_ptr<RunningHost>> hosts_;
  std::vector<std::unique_ptr<Sides>> sides_;
};

std::vector<Figure> runFleet(const std::string& name, std::size_t hosts, bool isShared) {
  Fleet fleet(hosts, isShared);
  fleet.trips();  // until every setting was made once
  const double before = fleet.processorTime();
  std::vector<double> times = fleet.trips();
  const double busy = (fleet.processorTime() - before) / static_cast<double>(times.size());
  const double start = now();
  const double resting = fleet.processorTime();
  std::this_thread::sleep_for(std::chrono::duration<double>(idleTime()));
  const double idle = (fleet.processorTime() - resting) / (now() - start) / static_cast<double>(hosts);
  results().add("shared-idle/" + name, "", idle);
  results().add("shared-memory/" + name, "", fleet.memory() / static_cast<double>(fleet.leds()));
  return {{"", busy}, {"p50", quantile(times, 0.5)}};
}

}  // namespace

void addSharedHosts() {
  for (const std::size_t hosts : {1UL, 4UL, 16UL, 64UL})
    for (const bool isShared : {false, true}) {
      const std::string name = std::to_string(hosts) + (isShared ? " in one" : " apart");
      addOnce("shared-hosts/" + name, [=] { return runFleet(name, hosts, isShared); });
    }
}

}  // namespace Bench
