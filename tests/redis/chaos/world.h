// A real server, and processes that share their state through it, each behind a proxy of its own.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/io/loop.h"
#include "tests/redis/chaos/proxy.h"
#include "tests/redis/chaos/reader.h"
#include "tests/redis/chaos/reference.h"
#include "tests/redis/chaos/writer.h"
#include "tests/redis/server.h"

namespace Chaos {

// A store with a subscriber, and maybe a writer; what a process with agents is to the server.
struct Process {
  std::string name;
  int pid;         // as messages name it
  bool publishes;  // it announces that it publishes the pins
  Proxy proxy;
  std::unique_ptr<Writer> writer{};
  std::unique_ptr<Reader> reader{};
  std::unique_ptr<Statedb::Store> store{};

  bool owns(const char* mount) const;
};

class World {
 public:
  explicit World(unsigned seed);
  ~World();

  // The processes start, or end as by kill -9.
  void start(Process& process);
  void kill(Process& process);

  // One round of the loop, in which all processes do their work.
  void run();
  // Milliseconds in which the loop ran: a round counts kLongestRound at most, because a starved process must
  // not take that for a fault.
  std::uint64_t watched() const { return watched_; }

  // Whether the server runs; then a moment when it answers is near.
  bool isServerUp = true;
  // Follows who may write the pins, and who does. REQUIRES: isServerUp.
  void watchClaim();
  // Claims may be those of an earlier time.
  void forgetClaim() { seen_.reset(); }
  // Whether all is quiet, and everybody has what the server has; `differing` gets why not.
  bool isSettled(std::vector<std::string>& differing);
  // What is to be checked once when it is.
  void verify();

  void log(const std::string& text);
  void fault(const std::string& what);
  // The state of the processes and the server at the end.
  std::vector<std::string> lastStates();

  Host::Loop loop;
  RedisTest::Server server;
  Reference reference{server.socket()};
  History history{};
  std::vector<std::unique_ptr<Process>> processes{};
  std::vector<std::string> faults{};
  std::deque<std::string> recent{};
  unsigned long takeOvers = 0;

 private:
  struct Seen {
    std::string generation, token, who;
    unsigned long tip = 0;
  };
  void checkWriters(const Seen& now, const redisReply* entries);
  void compareReaders(std::vector<std::string>& differing);
  Process* ownerOfPins(std::vector<std::string>& differing);
  void compareCovers(std::vector<std::string>& differing);

  void appendSpace(const char* space, const char* mount, std::vector<std::string>& lines);
  std::string stateOf(const Process& process) const;

  Host::UvHandle<uv_timer_t> tick_{};
  std::optional<Seen> seen_{};
  std::uint64_t ranAt_ = now(), watched_ = 0;
};

}  // namespace Chaos
