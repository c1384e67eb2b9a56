// A follower and a writer against a simulated server, on lines that delay, drop and break, while the server
// is wiped, restarted with an older state and trimmed. Whenever everything is quiet the mirror equals the
// server; at no time does a value come that is older than one that came before.
#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "host/store/redis/follower.h"

namespace {

using namespace Host::Redis;

// When a row was written.
struct Moment {
  std::string generation{};
  Revision revision = 0;
  bool operator==(const Moment&) const = default;
};
using Rows = std::map<int, Moment>;

struct Logged {
  Moment moment;
  std::string origin;
  int key;
  bool removes;
};

struct Server {
  std::string id = "s0";
  std::string generation{};
  Rows rows{};
  std::deque<Logged> log{};
  Revision tip = 0;
  std::set<std::string> applied{};
  Sequence fence = 0;
};

void carryInto(Rows& rows, const Logged& entry) {
  if (entry.removes)
    rows.erase(entry.key);
  else
    rows[entry.key] = entry.moment;
}

constexpr int kKeys = 12;
constexpr std::size_t kPage = 3;

class World : public Follower::Output {
 public:
  explicit World(unsigned seed) : random_(seed) {}

  void run(int steps) {
    for (int i = 0; i < steps; ++i) step();
    becomeQuiet();
  }

  int settled = 0, snapshots = 0;

 private:
  // What is on its way to the server, and what it does there. A request of a line that broke may still
  // arrive.
  struct Request {
    std::function<void()> atServer;
    bool isWrite = false;
    void operator()() const { atServer(); }
  };

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  void newGeneration() { server_.generation = "g" + std::to_string(++names_); }

  void step() {
    const unsigned kind = below(1000);
    if (kind < 200) return writeBy("other", 0);
    if (kind < 300) return writeOwn();
    if (kind < 550) return static_cast<void>(takeFrom(requests_));
    if (kind < 800) return static_cast<void>(takeFrom(answers_));
    if (kind < 950) return static_cast<void>(takeFrom(pushes_));
    if (kind < 960) return connected_ ? disconnect() : connect();
    if (kind < 966) return static_cast<void>(zombieArrives());
    if (kind < 976) return follower_.check();
    if (kind < 982) return trim();
    if (kind < 985) return restart();
    if (kind < 988) return wipe();
    if (kind < 991) saved_ = server_;
    if (kind < 995 && !pushes_.empty()) pushes_.pop_front();  // lost without a trace
  }

  // The server.
  void writeBy(const std::string& uuid, Sequence sequence) {
    if (server_.generation.empty()) newGeneration();
    Logged entry{{server_.generation, ++server_.tip},
                 uuid + ":" + std::to_string(sequence),
                 static_cast<int>(below(kKeys)),
                 below(4) == 0};
    carryInto(server_.rows, entry);
    server_.log.push_back(entry);
    server_.applied.insert(entry.origin);
    if (subscribed_)
      pushes_.push_back([this, entry] { follower_.onPush(entry.moment.generation, entryOf(entry)); });
  }
  // Its delta is the entry itself, which stays until the end.
  Entry entryOf(const Logged& logged) {
    const Logged& kept = kept_.emplace_back(logged);
    return {kept.moment.revision, kept.origin, {reinterpret_cast<const char*>(&kept), sizeof kept}};
  }
  static const Logged& logged(const Entry& entry) {
    return *reinterpret_cast<const Logged*>(entry.delta.data());
  }

  void trim() {
    for (unsigned left = below(6); server_.log.size() > left;) server_.log.pop_front();
  }
  // A new history soon has the revisions that the old one had.
  void wipe() {
    const Revision before = server_.tip;
    server_ = {server_.id};
    saved_ = server_;
    if (below(2) == 0) return;
    while (server_.tip < before + 2) writeBy("other", 0);
  }
  // A server that is restarted breaks its connections, and nothing of them arrives any more.
  void restart() {
    if (connected_) disconnect();
    zombies_.clear();
    if (below(2)) server_ = saved_;
    server_.id = "s" + std::to_string(++names_);
    saved_ = server_;
  }

  // The lines.
  void connect() {
    connected_ = true;
    follower_.onConnected();
  }
  void disconnect() {
    connected_ = subscribed_ = false;
    for (Request& request : requests_)
      if (request.isWrite) zombies_.push_back(std::move(request));
    requests_.clear();
    answers_.clear();
    pushes_.clear();
    follower_.onDisconnected();
  }
  template <class Queue>
  static bool takeFrom(Queue& queue) {
    if (queue.empty()) return false;
    const auto first = std::move(queue.front());
    queue.pop_front();
    first();
    return true;
  }
  bool zombieArrives() {
    const auto answers = answers_;
    const bool any = takeFrom(zombies_);
    answers_ = answers;  // nobody gets this one
    return any;
  }
  void ask(std::function<void()> atServer, bool isWrite = false) {
    requests_.push_back({std::move(atServer), isWrite});
  }
  void answer(std::function<void()> arrives) { answers_.push_back(std::move(arrives)); }

  // The writer. It writes where the mirror is of a space that was made, and names that space's generation.
  void writeOwn() {
    if (!connected_ || !follower_.mirrored() || follower_.mirrored()->timeline.generation.empty()) return;
    const Sequence sequence = follower_.writing();
    pending_.insert(sequence);
    ask(
        [this, sequence, generation = follower_.mirrored()->timeline.generation] {
          if (generation != server_.generation || sequence <= server_.fence)
            return answer([this, sequence] {
              follower_.onRefused(sequence);
              pending_.erase(sequence);
            });
          writeBy("me", sequence);
          answer([this, sequence, tip = server_.tip] { follower_.onWritten(sequence, tip); });
        },
        true);
  }

  // What the follower asks for.
  void subscribe() override {
    ask([this] {
      subscribed_ = true;
      answer([this] { follower_.onSubscribed(); });
    });
  }
  void askState(Sequence fence) override {
    ask([this, fence] {
      server_.fence = std::max(server_.fence, fence);
      answer(
          [this, state = State{{server_.id, server_.generation}, server_.tip}] { follower_.onState(state); });
    });
  }
  void askLog(Revision after) override {
    ask([this, after] {
      std::vector<Entry> entries;
      for (const Logged& each : server_.log)
        if (each.moment.revision > after && entries.size() < kPage) entries.push_back(entryOf(each));
      answer([this, entries, generation = server_.generation, tip = server_.tip] {
        follower_.onLog({generation, tip, entries});
      });
    });
  }
  // A key at a time, each as it is when the request gets there.
  void scan() override {
    copy_.clear();
    scanFrom(0);
  }
  void scanFrom(int key) {
    ask([this, key] {
      const auto found = server_.rows.find(key);
      answer([this, key, value = found == server_.rows.end() ? Moment() : found->second] {
        if (value.revision) copy_[key] = value;
        key + 1 < kKeys ? scanFrom(key + 1) : follower_.onScanned();
      });
    });
  }
  void replay(const Entry& entry) override { carryInto(copy_, logged(entry)); }

  // What the follower notifies.
  void accept(const State& state) override {
    if (timeline_ != state.timeline) newest_.clear();
    timeline_ = state.timeline;
    ++snapshots;
    for (const auto& [key, moment] : copy_)
      if (!mirror_.contains(key) || mirror_[key] != moment) deliver(key, moment);
    for (const auto& [key, moment] : mirror_)
      if (!copy_.contains(key)) deliver(key, {state.timeline.generation, state.tip});
    mirror_ = copy_;
  }
  void apply(const Entry& entry, Sequence) override {
    deliver(logged(entry).key, logged(entry).moment);
    carryInto(mirror_, logged(entry));
  }
  // A row that is delivered again was written again, in the same history.
  void deliver(int key, const Moment& moment) {
    EXPECT_GT(moment.revision, newest_[key]) << "key " << key << " goes back in time";
    EXPECT_EQ(moment.generation, timeline_.generation) << "key " << key << " is of another history";
    newest_[key] = moment.revision;
  }
  void settle(Sequence write, Outcome outcome) override {
    ++settled;
    EXPECT_EQ(pending_.erase(write), 1U) << "settled twice";
    if (outcome == Outcome::notApplied) notApplied_.insert(follower_.originOf(write));
    if (outcome == Outcome::applied) {
      EXPECT_TRUE(server_.applied.contains(follower_.originOf(write)) || !isSame());
    }
  }
  bool isSame() const { return timeline_ == Timeline{server_.id, server_.generation}; }
  void wiped() override {}
  void reconnect(std::string_view) override { reconnects_ = true; }

  // Faults end, the second check comes, and everything arrives.
  void becomeQuiet() {
    for (int round = 0; round < 4; ++round) {
      if (std::exchange(reconnects_, false) && connected_) disconnect();
      if (!connected_) connect();
      if (server_.generation.empty()) writeBy("other", 0);
      for (bool any = true; any;) {
        any = zombieArrives();
        any = takeFrom(requests_) || any;
        any = takeFrom(answers_) || any;
        any = takeFrom(pushes_) || any;
      }
      follower_.check();
    }
    EXPECT_TRUE(isSame());
    EXPECT_EQ(mirror_, server_.rows);
    EXPECT_TRUE(pending_.empty()) << *pending_.begin() << " is still pending";
    for (const std::string& origin : notApplied_)
      EXPECT_FALSE(server_.applied.contains(origin)) << origin << " was applied after all";
  }

  std::mt19937 random_;
  unsigned names_ = 0;
  Server server_, saved_;
  bool connected_ = false, subscribed_ = false, reconnects_ = false;
  std::deque<Request> requests_, zombies_;
  std::deque<std::function<void()>> answers_, pushes_;
  std::deque<Logged> kept_;
  Follower follower_{"me", *this};
  Timeline timeline_;
  Rows mirror_, copy_;
  std::map<int, Revision> newest_;  // delivered, in this timeline
  std::set<Sequence> pending_;
  std::set<std::string> notApplied_;
};

TEST(FollowerModel, TheMirrorIsTheServersWheneverItIsQuietAndNothingGoesBack) {
  int snapshots = 0, settled = 0;
  for (unsigned seed = 1; seed <= 300 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world(seed);
    for (int i = 0; i < 10; ++i) world.run(200);
    snapshots += world.snapshots;
    settled += world.settled;
  }
  EXPECT_GT(snapshots, 1000);
  EXPECT_GT(settled, 1000);
}

}  // namespace
