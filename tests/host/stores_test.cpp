// Every store under the same random operations and faults, against a reference model in plain maps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <random>

#include "host/store/redis/redisstore.h"
#include "host/store/sqlitestore.h"
#include "host/store/unixstore.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/statedb/store/schema.h"
#include "tests/platform/storemodel.h"
#include "tests/redis/server.h"
#include "tests/servedstore.h"

namespace {

using namespace StoreModel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr const char* kLed = "Hardware::Led::LedConfig";

// The choices of the random operations.
struct Universe {
  std::vector<const char*> entities, removed, types, attributes;
  std::vector<Value> values;
  // Covered, and stored; the others are stored and published.
  std::vector<const char*> covered{}, uncovered{};
};

// A store that keeps its rows in this process, with injected failures.
template <class Kept>
struct LocalStore {
  static const Universe& universe() {
    static const Universe all{{"a", "a/b", "a/b/c", "a-b", "a0", "a/'x\"%2F", "b", "b/ü", "b/x/y"},
                              {"", "a", "a/b", "b", "b/x", "c"},
                              {"T", "T", "T", "T", "T", "T", "T", "U"},
                              {"x", "y", "z"},
                              {1, 2, 3},
                              {"a", "a/b", "a/b/c", "a-b", "b", "b/x/y"},
                              {"", "a", "a/b", "b/x", "c"}};
    return all;
  }
  static constexpr bool kIsLocal = true;
  static constexpr int kSteps = Kept::kSteps;
  static constexpr std::size_t kMostChanges = 4;
  static Changes firstChanges() { return {}; }

  Statedb::Store& store() { return *store_; }
  Rows rows() const { return rowsOf(store_->read("")); }
  void write(const Changes& changes, Durability durability, Statedb::Subscriber* origin) {
    store_->write(changes, durability, origin);
  }
  bool failsToPersistIs(bool fails) { return store_->failsToPersist = fails; }
  // Returns whether the flush succeeded; a failed one undoes the stored batches since the last.
  bool flush(bool fails) {
    store_->failsToCommit = fails;
    try {
      EXPECT_TRUE(store_->flush().isDone());
    } catch (const Statedb::StoreError&) {
      EXPECT_TRUE(std::exchange(store_->failsToCommit, false));
      return false;
    }
    store_->failsToCommit = false;
    return true;
  }
  template <class Condition>
  bool runUntil(Condition isMet) {
    return isMet();
  }
  // A restart: loses volatile values and subscriptions.
  void lose(bool, Model& model) {
    store_ = nullptr;
    store_ = kept_.open();
    model.restart();
  }

 private:
  Kept kept_;
  std::unique_ptr<typename Kept::Store> store_ = kept_.open();
};

// Keeps its stored rows in a map.
struct OverMap : Statedb::MemoryStore {
  explicit OverMap(Rows& theDisk) : disk(theDisk) {
    for (const auto& [place, value] : disk)
      restore({place.first, *disk.at({place.first, ""}).as<std::string>(), place.second,
               place.second.empty() ? Value() : value});
  }
  void persist(const Changes& changes) override { batch.insert(batch.end(), changes.begin(), changes.end()); }
  void commit() override { carryInto(disk, std::exchange(batch, {})); }
  void rollback() override { batch.clear(); }
  void write(const Changes& changes, Durability durability, Statedb::Subscriber* origin = nullptr) override {
    if (isAway) throw Statedb::StoreError("the server is away");
    MemoryStore::write(changes, durability, origin);
  }

  bool isAway = false;
  Rows& disk;
  Changes batch;
};

struct InMemory {
  using Store = Failing<OverMap>;
  static constexpr int kSteps = 5000;
  auto open() { return std::make_unique<Store>(disk); }
  Rows disk;
};

struct InSqlite {
  using Store = Failing<Host::SqliteStore>;
  static constexpr int kSteps = 2000;
  auto open() { return std::make_unique<Store>(folder.at("db")); }
  const Folder folder;
};

// A host that keeps the state, and can be stopped.
using Keeper = Support::ServedStore<Failing<OverMap>>;

// The store of another host. Stored values are written there, volatile ones through the connection.
struct RemoteStore {
  // Entities that the other host's types allow, in directories.
  static const Universe& universe() {
    static const Universe all{{"a/p", "a/q", "a/b/p", "a/b/%2F", "b/p", "b/ü"},
                              {"a/p", "a/q", "a/b/p", "b/p", "a/b", "a", "b/none"},
                              {kLed},
                              {"theme", "currentMode", "ledAttribute"},
                              {"1", "2", "3"},
                              {"c/p", "c/q", "c/b/p", "c/ü"},
                              {"c/p", "c/b", "c"}};
    return all;
  }
  static constexpr bool kIsLocal = false;
  static constexpr int kSteps = 600;
  static constexpr std::size_t kMostChanges = 1;
  // Makes the entities' directories, so that each can be removed with or without a row of its own.
  static Changes firstChanges() {
    Changes changes;
    for (const char* directory : {"a", "a/b", "b", "c", "c/b"})
      changes.push_back(Change::put(directory, "Zel::Dir", {}, {}));
    return changes;
  }

  RemoteStore() {
    loop_.turnIs([this] {
      remote_->flush();
      if (keeper_) keeper_->turn();
      return Zel::Clock::kNever;
    });
    keeper_ = std::make_unique<Keeper>(loop_, socket(), disk_);
    remote_ = std::make_unique<Host::UnixStore>(loop_, socket(),
                                                [this](const std::string& text) { reports.push_back(text); });
    remote_->announce({.pid = 1, .covers = {"c"}});
  }
  ~RemoteStore() {
    remote_ = nullptr;
    keeper_ = nullptr;
  }

  Statedb::Store& store() { return *remote_; }
  Rows rows() const { return rowsOf(keeper_->store.read("")); }
  void write(const Changes& changes, Durability durability, Statedb::Subscriber* origin) {
    if (durability == Durability::stored) {
      runRounds(20);  // what was written here has arrived there, even where it changed nothing
      keeper_->store.write(changes, durability);
    } else {
      remote_->write(changes, durability, origin);
    }
  }
  bool failsToPersistIs(bool) { return false; }
  // Never undoes anything: a batch that the host can't store is retried.
  bool flush(bool) {
    remote_->flush();
    return true;
  }
  template <class Condition>
  bool runUntil(Condition isMet) {
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const auto run = [&](auto condition) {
      while (!condition() && std::chrono::steady_clock::now() < latest) loop_.runOnce();
      return condition();
    };
    if (!run([&] { return remote_->state().isReached && isMet(); })) return false;
    // Rows published again after a loss arrive within some rounds.
    if (std::exchange(wasLost_, false)) runRounds(100);
    return run(isMet);
  }
  // The connection ends, or the host restarts; the store publishes its rows again.
  void lose(bool isConnectionAlone, Model&) {
    wasLost_ = true;
    if (isConnectionAlone) {
      keeper_->listen(loop_, socket());
      while (remote_->state().isReached) loop_.runOnce();
      return;
    }
    keeper_->store.flush();
    keeper_ = nullptr;
    while (remote_->state().isReached) loop_.runOnce();
    keeper_ = std::make_unique<Keeper>(loop_, socket(), disk_);
  }

  // Runs until the store gives a reason like that for not reaching the host.
  bool runUntilReason(const char* text) {
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const auto isGiven = [&] { return remote_->state().reason.find(text) != std::string::npos; };
    while (!isGiven() && std::chrono::steady_clock::now() < latest) loop_.runOnce();
    return isGiven();
  }
  void takeNoClients() { keeper_->listen(loop_, socket(), {.clients = 0}); }

  Keeper& keeper() { return *keeper_; }
  std::vector<std::string> reports;

 private:
  std::string socket() const { return folder_.at("socket"); }
  void runRounds(int rounds) {
    while (rounds-- > 0) loop_.runOnce();
  }

  const Folder folder_;
  Rows disk_;
  Host::Loop loop_;
  Zel::ActivityManager activity_;
  std::unique_ptr<Keeper> keeper_;
  std::unique_ptr<Host::UnixStore> remote_;
  bool wasLost_ = false;
};

// The store on a server that several hosts share; another one tells what the server has.
struct SharedStore {
  static const Universe& universe() {
    static const Universe all{{"a", "a/b", "a/b/c", "a-b", "a0", "a/'x\"%2F", "b", "b/ü", "b/x/y"},
                              {"", "a", "a/b", "b", "b/x", "c"},
                              {"T"},
                              {"x", "y", "z"},
                              {1, "2", true},
                              {"a", "a/b", "a/b/c", "a-b", "b", "b/x/y"},
                              {"", "a", "a/b", "b/x", "c"}};
    return all;
  }
  static constexpr bool kIsLocal = false;
  static constexpr int kSteps = 600;
  static constexpr std::size_t kMostChanges = 3;
  static Changes firstChanges() { return {}; }

  SharedStore() {
    loop_.turnIs([this] {
      store_.flush();
      return Zel::Clock::kNever;
    });
    EXPECT_TRUE(runUntil([this] { return reader_.state().isReached; }));
    store_.announce({.pid = 1, .covers = {"a", "a-b", "b"}});
  }

  Statedb::Store& store() { return store_; }
  Rows rows() const { return rowsOf(reader_.table()->read("")); }
  void write(const Changes& changes, Durability durability, Statedb::Subscriber* origin) {
    if (durability == Durability::stored) waitForPublished();
    store_.write(changes, durability, origin);
  }
  bool failsToPersistIs(bool) { return false; }
  bool flush(bool) {
    if (const Statedb::Ticket ticket = store_.flush(); !ticket.isDone()) stored_ = ticket;
    return true;
  }
  // Until the server has what was stored, too, which may change nothing that is visible.
  template <class Condition>
  bool runUntil(Condition isMet) {
    const auto isEqual = [&] { return stored_.isDone() && isMet(); };
    if (!run([&] { return store_.state().isReached && reader_.state().isReached && isEqual(); }))
      return false;
    if (std::exchange(wasLost_, false)) waitForPublished();
    EXPECT_EQ(stored_.failure(), "");
    return run(isEqual);
  }
  // The connections end, or the server restarts without its volatile rows.
  void lose(bool isConnectionAlone, Model&) {
    if (isConnectionAlone) {
      RedisTest::Client client(loop_, server_.url());
      client.connect();
      client({"CLIENT", "KILL", "TYPE", "pubsub"});
    } else {
      server_.end(SIGKILL);
      server_.start();
    }
    while (store_.state().isReached || reader_.state().isReached) loop_.runOnce();
    wasLost_ = true;
  }

 private:
  template <class Condition>
  bool run(Condition isMet) {
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!isMet() && std::chrono::steady_clock::now() < latest) loop_.runOnce();
    return isMet();
  }
  // Stores nothing, twice: the server has one batch of what was published then, and the other, which is sent
  // when the first is answered.
  void waitForPublished() {
    for (int i = 0; i < 2; ++i) {
      store_.write({Change::unset("none", "x")}, Durability::stored, nullptr);
      const Statedb::Ticket ticket = store_.flush();
      EXPECT_TRUE(run([&] { return ticket.isDone(); }));
    }
  }

  RedisTest::Server server_;
  Host::Loop loop_;
  Zel::ActivityManager activity_;
  Host::Redis::RedisStore reader_{loop_, server_.url(), [](auto&) {}};
  Host::Redis::RedisStore store_{loop_, server_.url(), [](auto&) {}};
  Statedb::Ticket stored_;  // of the last flush that stores anything
  bool wasLost_ = false;
};

template <class Tested>
class Stores : public ::testing::Test {
 protected:
  bool oneIn(unsigned n) { return random_() % n == 0; }
  template <class T>
  const T& pick(const std::vector<T>& choices) {
    return choices[random_() % choices.size()];
  }

  Change change(Durability durability) {
    const Universe& all = Tested::universe();
    const bool isCovered = durability == Durability::cover || (durability == Durability::stored && oneIn(3));
    const char* path = pick(isCovered ? all.covered : all.entities);
    const unsigned kind = random_() % 8;
    if (kind == 0) return Change::del(pick(isCovered ? all.uncovered : all.removed));
    if (kind == 1) return Change::unset(path, pick(all.attributes));
    return Change::put(path, pick(all.types), oneIn(4) ? "" : pick(all.attributes), pick(all.values));
  }

  void subscribe() {
    for (Mirror& mirror : mirrors_) tested_.store().subscribe(mirror.path, mirror);
    tested_.store().subscribe("", origin_);
  }

  // Writes one batch of 1 to kMostChanges changes, with or without an origin.
  void write(Durability durability, Statedb::Subscriber* origin) {
    Changes changes = oneIn(40) ? Tested::firstChanges() : Changes();
    const std::size_t first = changes.size();
    for (auto most = random_() % Tested::kMostChanges; changes.size() - first <= most;)
      changes.push_back(change(durability));
    note(durability == Durability::stored  ? "stored"
         : durability == Durability::cover ? "covers"
         : origin                          ? "volatile, of the origin"
                                           : "volatile",
         changes);
    Model after = model_;
    bool isTaken = true;
    for (const Change& each : changes) isTaken = isTaken && after.apply(each, durability);
    const bool fails = durability == Durability::stored && tested_.failsToPersistIs(oneIn(6));
    try {
      tested_.write(changes, durability, origin);
      EXPECT_TRUE(isTaken);
      model_ = after;
      if (durability != Durability::stored)
        for (const Change& each : changes) unstored_.apply(each, durability);
      if (origin) carryInto(origin_.rows, changes);
    } catch (const Statedb::RefusedError&) {
      EXPECT_FALSE(isTaken);
    } catch (const Statedb::StoreError&) {
      EXPECT_TRUE(fails);
    }
    tested_.failsToPersistIs(false);
  }

  // Keeps the last operations, for a failure's message.
  void note(std::string operation, const Changes& changes = {}) {
    for (const Change& each : changes)
      operation += "; " + std::string(kKinds[static_cast<int>(each.kind)]) + ' ' + placeText(each.row);
    if (history_.push_back(operation), history_.size() > 12) history_.pop_front();
  }
  static constexpr const char* kKinds[] = {"put", "del", "unset"};

  void flush(bool fails) {
    if (tested_.flush(fails))
      unstored_ = model_;
    else
      model_ = unstored_, origin_.rows = model_.rows();
  }

  Tested tested_;
  Model model_, unstored_;  // the second without what was stored since the last flush
  Mirror mirrors_[7] = {Mirror(""),
                        Mirror("a"),
                        Mirror("a/b"),
                        Mirror("b"),
                        Mirror("c"),
                        Mirror("", Layer::base),
                        Mirror("a/b", Layer::base)};
  Mirror origin_{""};
  std::mt19937 random_{7};
  std::deque<std::string> history_;
};

using Tested = ::testing::Types<LocalStore<InMemory>, LocalStore<InSqlite>, RemoteStore, SharedStore>;
TYPED_TEST_SUITE(Stores, Tested);

TYPED_TEST(Stores, AreTheirModelUnderRandomOperationsAndFaults) {
  const auto isEqual = [this] {
    return this->tested_.rows() == this->model_.rows() && this->origin_.rows == this->model_.rows() &&
           std::ranges::all_of(this->mirrors_, [&](auto& mirror) {
             return mirror.rows == this->model_.rows(mirror.path, mirror.layer());
           });
  };
  const auto expectEqual = [&] {
    if (this->tested_.runUntil(isEqual)) return;
    EXPECT_EQ(this->tested_.rows(), this->model_.rows()) << ::testing::PrintToString(this->history_);
    for (const Mirror& mirror : this->mirrors_)
      EXPECT_EQ(mirror.rows, this->model_.rows(mirror.path, mirror.layer()))
          << "at '" << mirror.path << "', layer " << static_cast<int>(mirror.layer())
          << ::testing::PrintToString(this->history_);
    EXPECT_EQ(this->origin_.rows, this->model_.rows())
        << "of the origin" << ::testing::PrintToString(this->history_);
  };
  this->subscribe();
  for (int step = 0; step < TypeParam::kSteps && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const auto durability = this->oneIn(4)   ? Durability::cover
                            : this->oneIn(2) ? Durability::stored
                                             : Durability::volatile_;
    Statedb::Subscriber* const origin =
        durability != Durability::cover && this->oneIn(3) ? &this->origin_ : nullptr;
    const bool isElsewhere = !TypeParam::kIsLocal && durability == Durability::stored;
    if (origin) this->flush(false);
    if (isElsewhere) expectEqual();  // so that writes of the two sides do not cross
    this->write(durability, isElsewhere ? nullptr : origin);
    if constexpr (TypeParam::kIsLocal) {
      const auto& table = *this->tested_.store().table();
      EXPECT_EQ(this->tested_.rows(), this->model_.rows());
      EXPECT_EQ(rowsOf(table.readBase("")), this->model_.rows("", Layer::base));
      EXPECT_EQ(rowsOf(table.readCovers("")), this->model_.coverRows());
    }
    if (!origin && !isElsewhere && !this->oneIn(3)) continue;
    this->flush(this->oneIn(5));
    if (TypeParam::kIsLocal || isElsewhere || this->oneIn(2)) expectEqual();
    if (this->oneIn(20)) {
      expectEqual();
      Mirror& mirror = this->mirrors_[this->random_() % std::size(this->mirrors_)];
      this->note("resubscribe " + mirror.path);
      this->tested_.store().unsubscribe(mirror);
      mirror.rows.clear();
      this->tested_.store().subscribe(mirror.path, mirror);
    }
    if (!this->oneIn(40)) continue;
    this->note("lose");
    this->tested_.lose(this->oneIn(2), this->model_);
    this->unstored_ = this->model_;
    if (TypeParam::kIsLocal) this->subscribe();
    if (TypeParam::kIsLocal || this->oneIn(2)) expectEqual();
  }
}

constexpr const char* kPin = "Hardware::Gpio::CorvelPinConfig";

TEST(UnixStore, RowsThatTheOtherSideRefusesAreNamedOnceAndTheRestArrives) {
  RemoteStore remote;
  Changes changes;
  for (int i = 0; i < 3000; ++i)
    changes.push_back(Change::put("out/p" + std::to_string(i), kPin, "value", i));
  changes.push_back(Change::put("out/p7", kPin, "colour", "red"));
  changes.push_back(Change::put("out/p9", kPin, "value", std::string(2'000'000, 'x')));
  remote.store().write(changes, Durability::volatile_);
  EXPECT_TRUE(remote.runUntil(
      [&] { return remote.keeper().store.entities() == 3000U && remote.reports.size() >= 2; }));
  // In no order, which depends on the paths that this process had before.
  EXPECT_THAT(
      remote.reports,
      UnorderedElementsAre(HasSubstr("refused what was published: out/p7 colour: 'colour' is no attribute"),
                           HasSubstr("refused what was published: out/p9 value: is longer than")));

  remote.reports.clear();
  Model none;
  remote.lose(true, none);
  Mirror mirror("out");
  remote.store().subscribe(mirror.path, mirror);
  EXPECT_TRUE(remote.runUntil([&] { return mirror.rows == remote.rows(); }));
  EXPECT_THAT(remote.reports, Not(Contains(HasSubstr("refused"))));

  // A row that is written again is tried again. One report names an entity that can't be made.
  remote.store().write(
      {Change::put("out/p7", kPin, "colour", "red"), Change::put("out/x", "No::Such", {}, {}),
       Change::put("out/x", "No::Such", "value", 1)},
      Durability::volatile_);
  const auto refusals = [&] {
    return std::ranges::count_if(remote.reports,
                                 [](auto& each) { return each.find("refused") != each.npos; });
  };
  EXPECT_TRUE(remote.runUntil([&] { return refusals() >= 2; }));
  remote.lose(true, none);
  EXPECT_TRUE(remote.runUntil([&] { return remote.store().state().isReached; }));
  EXPECT_EQ(refusals(), 2) << ::testing::PrintToString(remote.reports);
}

TEST(UnixStore, GivesTheReasonOfARefusal) {
  RemoteStore remote;
  remote.store().announce({.pid = 1});
  EXPECT_TRUE(remote.runUntil([] { return true; }));
  remote.takeNoClients();
  EXPECT_TRUE(remote.runUntilReason("the host serves 0 clients at most"));
}

TEST(UnixStore, ABatchThatTheOtherSideCantStoreNowIsSentAgain) {
  RemoteStore remote;
  remote.keeper().store.isAway = true;
  remote.store().write({Change::put("out/p", kPin, "value", 1)}, Durability::volatile_);
  EXPECT_TRUE(remote.runUntil([&] { return !remote.reports.empty(); }));
  remote.keeper().store.isAway = false;
  EXPECT_TRUE(remote.runUntil([&] { return remote.rows().contains({"out/p", "value"}); }));
  EXPECT_THAT(remote.reports,
              ElementsAre(HasSubstr("can't store what was published: the server is away; trying")));
}

TEST(UnixStore, AFullDiskOfTheOtherSideHoldsNothingBack) {
  RemoteStore remote;
  Statedb::Store& keeper = remote.keeper().store;
  remote.keeper().store.failsToCommit = true;
  remote.store().write({Change::put("out/p", kPin, "value", 1)}, Durability::volatile_);
  EXPECT_TRUE(remote.runUntil([&] {
    keeper.write({Change::put("a", kPin, "value", 1)}, Durability::stored);
    return remote.rows().contains({"out/p", "value"});
  }));
  EXPECT_TRUE(remote.runUntil([&] { return !remote.rows().contains({"a", "value"}); }));
  EXPECT_TRUE(remote.reports.empty());
}

}  // namespace
