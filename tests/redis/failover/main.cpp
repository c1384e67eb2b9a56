// Kills and stops the master again and again while several processes' worth of stores write, and counts the
// acknowledged writes that are missing afterwards:
//
//     redis_failover [--rounds N] [--seed N] [--min-replicas N] [--timeout TIME]
//
// Exits with 1 if one is missing. Two settings prevent that, and without them this program finds some: with
// --min-replicas 0 a master that continues acknowledges new writes, and with --timeout 20s, more than
// sentinels take for a failover, it acknowledges those that it got before it was stopped.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <random>
#include <set>

#include "host/store/stores.h"
#include "tests/redis/failover/cluster.h"

namespace {

using namespace Failover;
using Statedb::Change;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Ticket;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kWriters = 4;
constexpr std::chrono::milliseconds kPause{2};  // of a writer, between two flushes

// A store of its own that writes rows of its own, one batch a flush, and remembers what was acknowledged.
class Writer {
 public:
  struct Counts {
    std::size_t acknowledged = 0, failed = 0, unknown = 0;
  };

  Writer(Host::Loop& loop, const std::string& url, std::size_t number)
      : number_(number), store_(Host::makeStore(url, loop, [](const std::string&) {})) {}

  bool isReached() const { return store_->state().isReached; }
  bool isIdle() const { return waiting_.empty(); }
  const Counts& counts() const { return counts_; }
  double longestGap() const { return longestGap_; }
  // Of this round, as fields of the directory's hash. Nothing may have stored those that failed.
  const std::set<std::string>& acknowledged() const { return acknowledged_; }
  const std::set<std::string>& failed() const { return failed_; }
  std::string directory() const { return "rounds/" + std::to_string(round_) + "/" + std::to_string(number_); }

  void begin(std::size_t round) {
    round_ = round;
    acknowledged_.clear();
    failed_.clear();
    lastAnswer_ = Clock::now();
  }
  // Does one thing: takes answers, and writes where `mayWrite` and it is time.
  void act(bool mayWrite) {
    while (!waiting_.empty() && waiting_.front().ticket.isDone()) take();
    if (mayWrite && isReached() && waiting_.size() < kMostWaiting && Clock::now() >= next_) write();
    store_->flush();  // notifies, and makes nothing else durable
  }

 private:
  static constexpr std::size_t kMostWaiting = 16;
  struct Waiting {
    Ticket ticket;
    std::string name;
  };

  void write() {
    next_ = Clock::now() + kPause;
    const std::string name = std::to_string(written_++);
    try {
      const Path path(directory() + "/" + name);
      store_->write({Change::put(path, "Failover::Row", "value", std::int64_t(written_))},
                    Durability::stored);
      waiting_.push_back({store_->flush(), name});
    } catch (const Statedb::StoreError&) {
      ++counts_.failed;
    }
  }
  void take() {
    const Waiting answered = std::move(waiting_.front());
    waiting_.pop_front();
    const Ticket::Kind kind = answered.ticket.kind();
    if (kind == Ticket::Kind::unknown) ++counts_.unknown;
    if (kind == Ticket::Kind::failed || kind == Ticket::Kind::refused) {
      ++counts_.failed;
      failed_.insert(answered.name);
    }
    if (kind != Ticket::Kind::taken) return;
    ++counts_.acknowledged;
    acknowledged_.insert(answered.name);
    longestGap_ = std::max(longestGap_, std::chrono::duration<double>(Clock::now() - lastAnswer_).count());
    lastAnswer_ = Clock::now();
  }

  const std::size_t number_;
  const std::unique_ptr<Statedb::Store> store_;
  std::size_t round_ = 0, written_ = 0;
  std::deque<Waiting> waiting_{};
  std::set<std::string> acknowledged_{}, failed_{};
  Counts counts_{};
  Clock::time_point next_{}, lastAnswer_{};
  double longestGap_ = 0;
};

class Run {
 public:
  Run(unsigned seed, unsigned leastReplicas, const std::string& timeout)
      : random_(seed), cluster_(loop_, leastReplicas) {
    for (std::size_t i = 0; i < kWriters; ++i)
      writers_.push_back(std::make_unique<Writer>(loop_, cluster_.url(timeout), i));
  }

  // Returns the acknowledged writes that are missing.
  std::size_t round(std::size_t number) {
    for (const auto& each : writers_) each->begin(number);
    until([&] { return all(&Writer::isReached); }, false);
    writeFor(500);
    const bool isKilled = random_() % 2 == 0;
    ++(isKilled ? killed_ : stopped_);
    std::cout << "round " << number << ": master " << (isKilled ? "killed" : "stopped") << std::flush;
    RedisTest::Server& server = cluster_.server(cluster_.named());
    failOver([&] { isKilled ? server.end(SIGKILL) : server.signal(SIGSTOP); });
    writeFor(random_() % 2000);
    isKilled ? server.start() : server.signal(SIGCONT);
    writeFor(2000);
    until([&] { return all(&Writer::isIdle) && cluster_.isStable(); }, false);
    return count();
  }

  void report() const {
    Writer::Counts all;
    double longest = 0;
    for (const auto& each : writers_) {
      all.acknowledged += each->counts().acknowledged;
      all.failed += each->counts().failed;
      all.unknown += each->counts().unknown;
      longest = std::max(longest, each->longestGap());
    }
    std::cout << killed_ + stopped_ << " failovers (" << killed_ << " killed, " << stopped_
              << " stopped): " << all.acknowledged << " writes acknowledged, " << all.failed << " failed, "
              << all.unknown << " unknown; at most " << longest << " s between two that were acknowledged\n";
  }

 private:
  // Runs the loop and the writers.
  template <class Condition>
  void until(Condition condition, bool mayWrite) {
    const auto latest = Clock::now() + std::chrono::seconds(60);
    auto next = Clock::now();
    while (Clock::now() < latest) {
      step(mayWrite);
      if (Clock::now() < next) continue;
      if (condition()) return;
      next = Clock::now() + std::chrono::milliseconds(50);
    }
    throw std::runtime_error("waited for a minute in vain");
  }
  void writeFor(std::uint64_t milliseconds) {
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (Clock::now() < end) step(true);
  }
  void step(bool mayWrite) {
    for (const auto& each : writers_) each->act(mayWrite);
    loop_.runOnce();
  }

  bool all(bool (Writer::*is)() const) const {
    return std::ranges::all_of(writers_, [is](const auto& each) { return (*each.*is)(); });
  }

  template <class Fault>
  void failOver(Fault fault) {
    const std::size_t master = cluster_.named();
    const auto begin = Clock::now();
    fault();
    until([&] { return cluster_.named() != master && cluster_.named() != Cluster::kSize; }, true);
    std::cout << ", another named after " << std::chrono::duration<double>(Clock::now() - begin).count()
              << " s" << std::flush;
  }

  std::size_t count() {
    std::size_t acknowledged = 0, found = 0, denied = 0;
    for (const auto& each : writers_) {
      acknowledged += each->acknowledged().size();
      found += foundOf(each->directory(), each->acknowledged());
      denied += foundOf(each->directory(), each->failed());
    }
    std::cout << ", " << acknowledged << " acknowledged, " << acknowledged - found << " lost\n";
    if (acknowledged == 0) throw std::runtime_error("nothing was written");
    if (denied != 0) throw std::runtime_error(std::to_string(denied) + " writes are there that failed");
    return acknowledged - found;
  }
  std::size_t foundOf(const std::string& directory, const std::set<std::string>& names) {
    RedisTest::Client& master = cluster_.client(cluster_.named());
    const std::string key = "{failover}:s:d:" + directory;
    std::size_t found = 0;
    const auto take = [&found](const Host::Redis::Reply& reply) { found += reply.number == 1 ? 1 : 0; };
    for (const std::string& name : names) master.connection.request({"HEXISTS", key, name}, take);
    master({"PING"});
    return found;
  }

  Host::Loop loop_{};
  std::mt19937 random_;
  Cluster cluster_;
  std::vector<std::unique_ptr<Writer>> writers_{};
  unsigned killed_ = 0, stopped_ = 0;
};

}  // namespace

int main(int count, char** words) {
  std::map<std::string, std::string> options{{"--rounds", "3"},
                                             {"--seed", std::to_string(std::random_device()() % 1'000'000)},
                                             {"--min-replicas", "1"},
                                             {"--timeout", "1s"}};
  for (int i = 1; i < count; i += 2) {
    if (!options.contains(words[i]) || i + 1 == count) {
      std::cerr << "usage: redis_failover [--rounds N] [--seed N] [--min-replicas N] [--timeout TIME]\n";
      return 2;
    }
    options[words[i]] = words[i + 1];
  }
  const auto number = [&](const char* name) {
    return static_cast<unsigned>(std::strtoul(options[name].c_str(), nullptr, 10));
  };
  std::cout << "seed " << number("--seed") << '\n';
  try {
    Run run(number("--seed"), number("--min-replicas"), options["--timeout"]);
    std::size_t lost = 0;
    for (unsigned i = 0; i < number("--rounds"); ++i) lost += run.round(i);
    run.report();
    std::cout << lost << " acknowledged writes lost\n";
    return lost == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    std::cout << "\nFAILED: " << error.what() << '\n';
    return 1;
  }
}
