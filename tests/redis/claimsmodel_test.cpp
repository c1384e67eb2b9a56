// Several processes that publish, or only read, against a simulated server, on lines that delay and break,
// while processes are stopped, killed and shut down, and the server is wiped or restarted with older claims.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <random>

#include "host/store/redis/claims.h"

namespace {

using namespace Host::Redis;
using Now = Claims::Now;

constexpr Now kStep = 100, kLease = 5'000, kHold = 12'000;
const std::string kMounts[] = {"m", "n"};

struct Slot {
  Claim claim{};
  Now sign = 0;             // of life: when the claim changed on the server
  std::uint64_t epoch = 0;  // of the last write that was accepted
  std::string rows{};       // the timeline in which somebody published last; empty: no rows
};
struct Server {
  std::string id = "s0";
  std::string generation{};
  std::map<std::string, Slot> slots{};
  std::string timeline() const { return id + generation; }
};

class World;

class Process final : public Claims::Output {
 public:
  Process(World& world, std::string name, std::vector<std::string> publishes)
      : mounts(std::move(publishes)),
        uuid(std::move(name)),
        claims(uuid, Milliseconds(kLease), Milliseconds(kHold), *this),
        world_(world) {
    claims.mountsAre(mounts);
  }

  void connect();
  void disconnect();
  void step();  // of its own, while it runs
  void serve() { take(requests_); }

  const std::vector<std::string> mounts;
  const std::string uuid;
  Claims claims;
  Now stoppedUntil = 0;
  bool isConnected = false;

 private:
  using Queue = std::deque<std::function<void()>>;
  static void take(Queue& queue) {
    if (queue.empty()) return;
    const auto first = std::move(queue.front());
    queue.pop_front();
    first();
  }
  void answer(const std::string& mount);
  void write(const std::string& mount);

  void read() override;
  void take(const std::string& mount, const Claim& seen) override;
  void beat(const std::string& mount, const Token& token, std::string_view synced) override;
  void release(const std::string& mount, const Token& token) override;
  void sweep(const std::string& mount, const Claim& seen) override;
  void onOwned(const std::string& mount) override { ++owned_[mount]; }
  void onStandby(const std::string&, std::string_view) override {}
  void onCurrent(const std::string&) override {}

  World& world_;
  Queue requests_, answers_;
  std::string timeline_{};
  std::map<std::string, int> owned_{};
  Now tickAt_ = 0;
};

class World {
 public:
  explicit World(unsigned seed) : random_(seed) {
    for (std::size_t i = 0; i < 4; ++i) processes_.push_back(make(i));
  }

  void run(int steps) {
    for (int i = 0; i < steps; ++i) {
      fault();
      step(below(4) != 0);
    }
    for (auto& each : processes_) each->stoppedUntil = now;
    const Now quiet = now + kLease + kHold + 10'000;
    while (now < quiet) step(true);
    expectOrder();
  }
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  Server server{}, saved{};
  Now now = 1;
  int taken = 0, swept = 0, refused = 0;

 private:
  std::unique_ptr<Process> make(std::size_t index) {
    const std::vector<std::string> publishes[] = {{"m"}, {"m"}, {"n"}, {}};
    return std::make_unique<Process>(*this, "p" + std::to_string(++names_), publishes[index]);
  }

  void step(bool isFast) {
    now += kStep;
    for (auto& each : processes_) {
      if (!each->isConnected && each->stoppedUntil <= now && below(10) == 0) each->connect();
      if (isFast || below(3) == 0) each->serve();
      if (each->stoppedUntil <= now) each->step();
    }
  }
  void fault() {
    const std::size_t index = below(4);
    Process& process = *processes_[index];
    const unsigned kind = below(2000);
    if (kind < 10) process.stoppedUntil = now + below(20'000);
    if (kind >= 10 && kind < 20) process.disconnect();
    if (kind == 20 || kind == 21) processes_[index] = make(index);
    if (kind == 22 || kind == 23) process.claims.mountsAre({});
    if (kind >= 24 && kind < 30) process.claims.mountsAre(process.mounts);
    if (kind == 30) wipe();
    if (kind == 31) restart();
    if (kind == 32) saved = server;
  }
  void wipe() {
    server = {server.id};
    for (const std::string& mount : kMounts) server.slots[mount].sign = now;
  }
  void restart() {
    for (auto& each : processes_) each->disconnect();
    below(2) ? static_cast<void>(server = saved) : wipe();
    server.id = "s" + std::to_string(++names_);
    for (auto& [mount, slot] : server.slots) slot.sign = now;
  }

  // One owner of a mount that is published, and it has published; no rows where nobody does.
  void expectOrder() {
    for (auto& each : processes_) each->claims.mountsAre(each->mounts);
    processes_[2]->claims.mountsAre({});
    const Now quiet = now + kLease + kHold + 10'000;
    while (now < quiet) step(true);
    int owners = 0;
    for (auto& each : processes_) {
      owners += !each->claims.ownedToken("m").empty();
      for (const Claims::Status& status : each->claims.status()) EXPECT_FALSE(status.isKept) << status.mount;
    }
    EXPECT_EQ(owners, 1);
    EXPECT_EQ(server.slots["m"].claim.synced, server.timeline());
    EXPECT_EQ(server.slots["m"].rows, server.timeline());
    EXPECT_EQ(server.slots["n"].rows, "");
    EXPECT_TRUE(server.slots["n"].claim.isFree());
  }

  std::mt19937 random_;
  int names_ = 0;
  std::vector<std::unique_ptr<Process>> processes_{};
};

void Process::connect() {
  isConnected = true;
  timeline_ = world_.server.timeline();
  claims.onReached(timeline_);
}
void Process::disconnect() {
  isConnected = false;
  requests_.clear();
  answers_.clear();
  claims.onLost();
}
void Process::step() {
  take(answers_);
  take(answers_);
  if (world_.now >= tickAt_) {
    tickAt_ = world_.now + 1'000;
    claims.tick();
  }
  for (const std::string& mount : mounts)
    if (isConnected && world_.below(5) == 0 && !claims.ownedToken(mount).empty()) write(mount);
}

void Process::write(const std::string& mount) {
  requests_.push_back([this, mount, token = claims.ownedToken(mount), owned = owned_[mount]] {
    Slot& slot = world_.server.slots[mount];
    if (slot.claim.token != token) {
      ++world_.refused;
      return answers_.push_back([this, mount] { claims.onFenced(mount); });
    }
    const std::uint64_t epoch = std::stoull(token);
    EXPECT_GE(epoch, slot.epoch) << "an earlier owner writes";
    slot.epoch = epoch;
    slot.rows = world_.server.timeline();
    answers_.push_back([this, mount, owned] {
      if (owned == owned_[mount]) claims.synced(mount);
    });
  });
}

void Process::answer(const std::string& mount) {
  Claim claim = world_.server.slots[mount].claim;
  claim.generation = world_.server.generation;
  answers_.push_back([this, mount, claim] { claims.onClaim(mount, claim, world_.now); });
}
void Process::read() {
  requests_.push_back([this] {
    ClaimList all{world_.server.generation, {}};
    for (const auto& [mount, slot] : world_.server.slots)
      if (!slot.claim.token.empty()) (all.claims[mount] = slot.claim).generation = all.generation;
    answers_.push_back([this, all, timeline = world_.server.timeline()] {
      claims.onClaims(all, world_.now);
      if (std::exchange(timeline_, timeline) != timeline) claims.onReached(timeline);
    });
  });
}
bool isStill(const Server& server, const Slot& slot, const Claim& seen) {
  return server.generation == seen.generation && slot.claim.token == seen.token &&
         slot.claim.beat == seen.beat;
}
void Process::take(const std::string& mount, const Claim& seen) {
  requests_.push_back([this, mount, seen] {
    Server& server = world_.server;
    Slot& slot = server.slots[mount];
    if (!isStill(server, slot, seen)) return answer(mount);
    if (!slot.claim.isFree()) {
      EXPECT_GE(world_.now - slot.sign, kLease) << "taken from one that lives";
    }
    if (server.generation.empty()) server.generation = "g" + std::to_string(world_.now);
    const std::uint64_t epoch = slot.claim.token.empty() ? 1 : std::stoull(slot.claim.token) + 1;
    slot.claim = {"", std::to_string(epoch) + " " + uuid, slot.claim.beat + 1, "host of " + uuid, ""};
    slot.sign = world_.now;
    ++world_.taken;
    answer(mount);
  });
}
void Process::beat(const std::string& mount, const Token& token, std::string_view synced) {
  requests_.push_back([this, mount, token, synced = std::string(synced)] {
    Slot& slot = world_.server.slots[mount];
    if (slot.claim.token == token) {
      ++slot.claim.beat;
      slot.sign = world_.now;
      slot.claim.synced = synced;
      if (synced == world_.server.timeline()) {
        EXPECT_EQ(slot.rows, synced) << "not published yet";
      }
    }
    answer(mount);
  });
}
void Process::release(const std::string& mount, const Token& token) {
  requests_.push_back([this, mount, token] {
    Slot& slot = world_.server.slots[mount];
    if (slot.claim.token == token) {
      slot.claim.token = std::to_string(std::stoull(token)) + " ";
      ++slot.claim.beat;
      slot.sign = world_.now;
    }
    answer(mount);
  });
}
void Process::sweep(const std::string& mount, const Claim& seen) {
  requests_.push_back([this, mount, seen] {
    Server& server = world_.server;
    Slot& slot = server.slots[mount];
    if (!isStill(server, slot, seen)) return answer(mount);
    EXPECT_GE(world_.now - slot.sign, kHold) << "swept too early";
    slot.claim = {"", std::to_string(std::stoull(seen.token)) + " ", 0, "", ""};
    slot.rows.clear();
    ++world_.swept;
    answer(mount);
  });
}

TEST(ClaimsModel, OneProcessWritesAndRowsGoOnlyWhenTheirPublisherIsGone) {
  int taken = 0, swept = 0, refused = 0;
  for (unsigned seed = 1; seed <= 60 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world(seed);
    for (int i = 0; i < 3 && !testing::Test::HasFailure(); ++i) world.run(2'000);
    taken += world.taken;
    swept += world.swept;
    refused += world.refused;
  }
  EXPECT_GT(taken, 500);
  EXPECT_GT(swept, 100);
  EXPECT_GT(refused, 20);
}

}  // namespace
