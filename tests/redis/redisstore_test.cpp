// The shared store on a real server: what one process writes shows in another, and what happens to claims.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "host/io/timer.h"
#include "host/store/redis/redisstore.h"
#include "platform/zel/notify/activity.h"
#include "tests/platform/storemodel.h"
#include "tests/redis/chaos/proxy.h"
#include "tests/redis/server.h"

namespace {

using namespace StoreModel;
using Host::Redis::RedisStore;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kPin = "Hardware::Gpio::CorvelPinConfig";
constexpr const char* kMount = "hardware/gpio";

// A subscriber that publishes a mount, as an agent's does.
struct Publishing : StoreModel::Mirror {
  explicit Publishing(std::string thePath) : StoreModel::Mirror(std::move(thePath)) {}
  void onSnapshot(const Records& records) override {
    ++snapshots;
    StoreModel::Mirror::onSnapshot(records);
  }
  bool publishes(Statedb::Path at) const override { return at.isUnder(Statedb::Path(path)); }
  int snapshots = 0;
};

// A process on the shared database.
struct Process {
  Process(Host::Loop& loop, const std::string& url, int pid = 0)
      : store(loop, url, [this](const std::string& text) { reports.push_back(text); }) {
    store.subscribe("", all);
    if (pid != 0) work(pid);
  }
  void work(int pid) {
    store.subscribe(kMount, agent);
    store.announce({.pid = pid, .publishes = {kMount}});
  }
  void publish(const char* pin, const Value& value) {
    store.write({Change::put(std::string(kMount) + '/' + pin, kPin, "value", value)}, Durability::volatile_,
                &agent);
    store.flush();
  }
  bool isOwner() const {
    const auto claims = store.state().claims;
    return claims.size() == 1 && claims[0].isOwn;
  }
  Value shown(const std::string& path, const std::string& attribute) const {
    const auto found = all.rows.find({path, attribute});
    return found == all.rows.end() ? Value() : found->second;
  }

  StoreModel::Mirror all{""};
  Publishing agent{kMount};
  std::vector<std::string> reports;
  RedisStore store;
};

struct SharedStore : ::testing::Test {
  SharedStore() {
    loop.turnIs([this] {
      for (Process* each : all) each->store.flush();
      return Zel::Clock::kNever;
    });
  }
  std::unique_ptr<Process> process(int pid = 0) { return process(pid, server.socket()); }
  std::unique_ptr<Process> process(int pid, const std::string& socket) {
    auto made = std::make_unique<Process>(loop, "redis-unix:" + socket + "?timeout=5s&lease=1s&hold=2s", pid);
    all.push_back(made.get());
    return made;
  }
  void end(std::unique_ptr<Process>& process) {
    std::erase(all, process.get());
    process = nullptr;
  }
  template <class Condition>
  void until(Condition condition) {
    RedisTest::runUntil(loop, condition);
  }
  Statedb::Ticket write(Process& by, const Changes& changes) {
    by.store.write(changes, Durability::stored, nullptr);
    return by.store.flush();
  }

  RedisTest::Server server;
  Host::Loop loop;
  Zel::ActivityManager activity;
  std::vector<Process*> all;
};

TEST_F(SharedStore, ShowsEachProcessWhatTheOthersWriteAndKeepsItWhileTheServerIsAway) {
  const auto a = process(), b = process();
  until([&] { return a->store.state().isReached && b->store.state().isReached; });
  a->reports.clear();
  const auto ticket = write(*a, {Change::put("x", "T", "v", 1), Change::put("x/y", "T", "v", 2)});
  EXPECT_FALSE(ticket.isDone());
  EXPECT_EQ(a->store.table()->typeAt("x"), "T");  // at once
  EXPECT_THAT(a->all.rows, IsEmpty());            // but nobody was notified
  until([&] { return ticket.isDone() && b->shown("x/y", "v") == Value(2); });
  EXPECT_EQ(ticket.failure(), "");
  EXPECT_EQ(a->all.rows, b->all.rows);

  b->store.write({Change::put("x", "T", "v", 7)}, Durability::volatile_, nullptr);
  b->store.flush();
  EXPECT_EQ(b->shown("x", "v"), Value(7));
  until([&] { return a->shown("x", "v") == Value(7); });

  server.end(SIGKILL);
  until([&] { return !a->store.state().isReached && !b->store.state().isReached; });
  EXPECT_THROW(write(*a, {Change::del("x")}), Statedb::StoreError);
  b->store.write({Change::put("x", "T", "v", 8)}, Durability::volatile_, nullptr);
  b->store.flush();
  EXPECT_EQ(b->shown("x", "v"), Value(8));
  EXPECT_EQ(a->shown("x", "v"), Value(7));
  const int batches = a->all.batches;
  server.start();
  until([&] { return a->shown("x", "v") == Value(8) && a->reports.back().ends_with("reached"); });
  EXPECT_EQ(a->shown("x/y", "v"), Value(2));
  EXPECT_LE(a->all.batches, batches + 3);
  EXPECT_THAT(a->reports.front(), HasSubstr("the server ended the connection"));
  EXPECT_EQ(a->reports.size(), 2U) << ::testing::PrintToString(a->reports);
}

TEST_F(SharedStore, HasOnePublisherOfAMountAndAStandbyThatTakesOver) {
  auto a = process(1);
  until([&] { return a->isOwner() && a->agent.snapshots == 1; });
  a->publish("p", 1);
  auto b = process(2);
  until([&] { return b->shown("hardware/gpio/p", "value") == Value(1) && !b->reports.empty(); });
  EXPECT_EQ(b->agent.snapshots, 0);
  EXPECT_THAT(b->reports, ElementsAre(HasSubstr("is published by pinlampd 1 on")));
  end(a);
  const std::string meta = "{pinlamp}:v:meta";
  RedisTest::Client client(loop, server.url());
  client.connect();
  EXPECT_THAT(client({"HGET", meta, std::string("claim:") + kMount}).text,
              ::testing::EndsWith(" "));  // released
  until([&] { return b->isOwner() && b->agent.snapshots == 1; });
  EXPECT_EQ(b->agent.rows.size(), 2U);
  b->publish("q", 2);
  const auto reader = process();
  until([&] {
    return reader->shown("hardware/gpio/q", "value") == Value(2) && reader->store.state().isReached;
  });
  EXPECT_THROW(write(*reader, {Change::put("hardware/gpio/p", kPin, "value", 5)}), Statedb::RefusedError);
  EXPECT_THROW(write(*reader, {Change::del("hardware")}), Statedb::RefusedError);

  // After a restart the volatile rows are gone; nobody sees that. The owner publishes again what it adopted.
  const int batches = reader->all.batches;
  server.restart();
  until([&] { return !reader->store.state().isReached; });
  until([&] { return reader->store.state().isReached && b->isOwner(); });
  const auto again = process();
  until([&] { return again->shown("hardware/gpio/p", "value") == Value(1); });
  EXPECT_EQ(reader->all.batches, batches);

  // After another one the server has old rows. Its readers do not see these, and the owner removes them.
  const auto isShown = [&](const Process& by) { return by.shown("hardware/gpio/r", "value") == Value(3); };
  b->publish("r", 3);
  until([&] { return isShown(*reader) && isShown(*again); });
  client.connect();
  client.run("BGREWRITEAOF");
  until([&] {
    const std::string info = client.run("INFO persistence").text;
    return info.find("rewrite_in_progress:0") != info.npos && info.find("rewrite_scheduled:0") != info.npos;
  });
  b->store.write({Change::del("hardware/gpio/r")}, Durability::volatile_, &b->agent);
  until([&] { return !isShown(*reader) && !isShown(*again); });
  again->all.batches = 0;
  server.restart();
  until([&] { return !again->store.state().isReached; });
  client.connect();
  until([&] { return client.run("EXISTS {pinlamp}:v:log").number == 1; });
  until([&] { return client.run("HEXISTS {pinlamp}:v:d:hardware/gpio r").number == 0; });
  until([&] { return again->store.state().isReached; });
  EXPECT_EQ(again->all.batches, 0);
  end(b);
  until([&] { return reader->all.rows.empty() && again->all.rows.empty(); });  // `hold` is over
}

// More rows than fit into a portion. What was there before stays, and others write, while they are taken
// over.
TEST_F(SharedStore, TakesALargeSnapshotOverWhileOthersWrite) {
  constexpr int kRows = 3'000, kBatch = 1'000;
  const auto at = [](int row) { return "led/" + std::to_string(row); };
  const auto writer = process();
  until([&] { return writer->store.state().isReached; });
  const auto writeAll = [&](int value) {
    for (int row = 0; row < kRows;) {
      Changes batch;
      for (const int end = row + kBatch; row < end; ++row)
        batch.push_back(Change::put(at(row), "T", "v", value));
      const auto ticket = write(*writer, batch);
      until([&] { return ticket.isDone(); });
    }
  };
  writeAll(1);
  const auto reader = process();
  int row = 0;
  // Stored rows from both ends, and a volatile one over a stored one.
  const auto writeInBetween = [&] {
    if (!writer->store.state().isReached) return;
    row = (row + 1) % kRows;
    write(*writer, {Change::put(at(row), "T", "w", row)});
    if (row % 16 == 0) write(*writer, {Change::del(at(kRows - 1 - row))});
    writer->store.write({Change::put(at(row / 2), "T", "v", -row)}, Durability::volatile_, nullptr);
    writer->store.flush();
  };
  const auto agreed = [&] { return reader->all.rows == writer->all.rows; };
  until([&] {
    writeInBetween();
    EXPECT_TRUE(reader->store.state().isReached || reader->all.rows.empty());  // nothing, or all
    return reader->store.state().isReached && !reader->all.rows.empty();
  });
  EXPECT_GE(reader->all.rows.size(), 2U * kRows - static_cast<unsigned>(row));
  until(agreed);

  // The server comes back with other rows, and another history.
  RedisTest::Client client(loop, server.url());
  client.connect();
  client.run("DEL {pinlamp}:s:d:led {pinlamp}:v:d:led");
  const Host::Redis::Keys keys("pinlamp", Durability::stored);
  for (int each = 1; each < kRows; each += 2)
    client({"HSET", keys.directory("led"), std::to_string(each), "T\tv", std::to_string(each) + "/v", "2"});
  server.restart();
  until([&] { return !reader->store.state().isReached; });
  until([&] {
    writeInBetween();
    return reader->store.state().isReached;
  });
  until([&] { return writer->store.state().isReached && agreed(); });
  EXPECT_EQ(reader->shown(at(kRows / 2 + 1), "v"), Value(2));
  EXPECT_EQ(reader->shown(at(kRows / 2 + 2), "v"), Value());
}

// A process that publishes, is stopped, and goes on where it was. Exits with 0 when it stands by.
[[noreturn]] void beStopped(const std::string& url) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Host::Loop loop;
  Process owner(loop, url, 1), reader(loop, url);
  loop.turnIs([&] {
    owner.store.flush();
    reader.store.flush();
    return Zel::Clock::kNever;
  });
  RedisTest::runUntil(loop, [&] { return owner.agent.snapshots == 1; });
  owner.publish("p", 1);
  RedisTest::runUntil(loop, [&] { return reader.shown("hardware/gpio/p", "value") == Value(1); });
  owner.reports.clear();
  ::raise(SIGSTOP);
  owner.publish("p", 2);
  RedisTest::runUntil(loop, [&] { return owner.shown("hardware/gpio/p", "value") == Value(3); });
  EXPECT_THAT(owner.reports, ElementsAre(::testing::EndsWith("this process is the standby")));
  ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST_F(SharedStore, RefusesAnOwnerThatWasStoppedUntilAnotherTookOver) {
  const std::string url = server.url("&lease=1s&hold=never");
  const pid_t owner = ::fork();
  if (owner == 0) beStopped(url);
  int status = 0;
  ::waitpid(owner, &status, WUNTRACED);
  ASSERT_TRUE(WIFSTOPPED(status));
  const auto successor = process(2);
  until([&] { return successor->isOwner() && successor->agent.snapshots == 1; });
  successor->publish("p", 3);
  const auto reader = process();
  until([&] { return reader->shown("hardware/gpio/p", "value") == Value(3); });
  ::kill(owner, SIGCONT);
  bool isOver = false;
  until([&] { return isOver = isOver || ::waitpid(owner, &status, WNOHANG) == owner; });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(reader->shown("hardware/gpio/p", "value"), Value(3));
  EXPECT_TRUE(successor->isOwner());
}

constexpr const char* kLed = "led/x";

void cover(Process& by, int value) {
  by.store.write({Change::put(kLed, "T", "v", value)}, Durability::cover, nullptr);
  by.store.flush();
}

TEST_F(SharedStore, ShowsTheCoversOfOneProcessAndThoseOfTheNextWhenItHasGone) {
  auto a = process(), b = process();
  const auto reader = process();
  StoreModel::Mirror base("", Layer::base);
  reader->store.subscribe("", base);
  const auto isShown = [&](int value) { return reader->shown(kLed, "v") == Value(value); };
  until([&] { return a->store.isReached() && b->store.isReached() && reader->store.isReached(); });
  cover(*a, 2);  // before anybody announced that, and before the entity is there
  a->store.announce({.pid = 1, .covers = {"led"}});
  until([&] { return a->isOwner(); });
  EXPECT_THAT(reader->all.rows, IsEmpty());
  write(*reader, {Change::put(kLed, "T", "v", 1)});
  until([&] { return isShown(2); });
  b->reports.clear();
  b->store.announce({.pid = 2, .covers = {"led"}});
  cover(*b, 3);
  until([&] { return !b->reports.empty(); });
  EXPECT_THAT(b->reports, ElementsAre(HasSubstr("'led' is covered by pinlampd 1 on")));
  const auto ticket = write(*b, {Change::put(kLed, "T", "v", 5)});
  until([&] { return ticket.isDone() && base.rows.at({kLed, "v"}) == Value(5); });
  EXPECT_TRUE(isShown(2));

  // The server forgets them. Nobody sees that.
  const int batches = reader->all.batches, own = a->all.batches;
  server.restart();
  until([&] { return !reader->store.isReached() && !a->store.isReached(); });
  const auto later = process();
  until([&] { return later->shown(kLed, "v") == Value(2) && reader->store.isReached() && a->isOwner(); });
  EXPECT_EQ(reader->all.batches, batches);
  EXPECT_EQ(a->all.batches, own);

  end(a);
  until([&] { return isShown(3); });
  b->store.announce({.pid = 2});  // its agent is gone
  until([&] { return isShown(5) && later->shown(kLed, "v") == Value(5); });
  RedisTest::Client client(loop, server.url());
  client.connect();
  EXPECT_EQ(client.run("EXISTS {pinlamp}:c:d:led").number, 0);
  EXPECT_EQ(base.rows, reader->all.rows);
}

// A process that covers, and is killed.
[[noreturn]] void beKilled(const std::string& url) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Host::Loop loop;
  Process owner(loop, url), reader(loop, url);
  loop.turnIs([&] {
    owner.store.flush();
    reader.store.flush();
    return Zel::Clock::kNever;
  });
  RedisTest::runUntil(loop, [&] { return owner.store.isReached() && reader.store.isReached(); });
  owner.store.write({Change::put(kLed, "T", "v", 1)}, Durability::stored, nullptr);
  owner.store.announce({.pid = 1, .covers = {"led"}});
  cover(owner, 2);
  RedisTest::runUntil(loop, [&] { return reader.shown(kLed, "v") == Value(2); });
  ::raise(SIGKILL);
  ::_exit(1);
}

TEST_F(SharedStore, RemovesTheCoversOfAProcessThatWasKilled) {
  const std::string url = server.url("&lease=1s&hold=never");
  const pid_t owner = ::fork();
  if (owner == 0) beKilled(url);
  int status = 0;
  ::waitpid(owner, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  const auto reader = process();
  until([&] { return reader->shown(kLed, "v") == Value(1); });
  RedisTest::Client client(loop, server.url());
  client.connect();
  EXPECT_EQ(client.run("EXISTS {pinlamp}:c:d:led").number, 0);
}

// The successor's rows come before the answer that shows its claim, and the server forgets both.
TEST_F(SharedStore, PublishesItsOwnRowsAgainWhereASuccessorIsForgotten) {
  const auto owner = process(1), reader = process();
  until([&] { return owner->isOwner() && owner->agent.snapshots == 1; });
  owner->publish("p", 1);
  until([&] { return reader->shown("hardware/gpio/p", "value") == Value(1); });
  RedisTest::Client client(loop, server.url());
  client.connect();
  const std::string generation = client.run("HGET {pinlamp}:v:meta generation").text;
  const std::string delta = "@hardware/gpio\n:" + std::string(kPin) + "\n+p\tvalue\t3\n";
  const std::string id = client({"XADD", "{pinlamp}:v:log", "0-*", "o", "he.v:1", "d", delta}).text;
  client({"PUBLISH", "{pinlamp}:v:changes", generation + ' ' + id.substr(2) + " he.v:1\n" + delta});
  const auto isShown = [](const Process& by, int value) {
    return by.shown("hardware/gpio/p", "value") == Value(value);
  };
  until([&] { return isShown(*owner, 3) && isShown(*reader, 3); });
  server.restart();
  until([&] { return isShown(*owner, 1) && isShown(*reader, 1); });
}

TEST_F(SharedStore, KeepsWhatAPublisherWroteWhoseClaimItHasNotReadYet) {
  const std::string cable = server.at("cable");
  ASSERT_EQ(::symlink(server.socket().c_str(), cable.c_str()), 0);
  const auto owner = process(0, cable);
  until([&] { return owner->store.state().isReached; });
  const auto reader = process();
  until([&] { return reader->store.state().isReached; });
  owner->store.write({Change::put("x", "T", "v", 0)}, Durability::volatile_, nullptr);
  until([&] { return reader->shown("x", "v") == Value(0); });
  owner->work(1);
  until([&] { return owner->agent.snapshots == 1; });
  owner->publish("p", 1);
  until([&] { return reader->shown("hardware/gpio/p", "value") == Value(1); });
  ASSERT_EQ(::unlink(cable.c_str()), 0);
  server.restart();
  const auto other = process();
  until([&] { return other->store.state().isReached; });
  other->store.write({Change::put("x", "T", "v", 1)}, Durability::volatile_, nullptr);
  until([&] { return reader->shown("x", "v") == Value(1); });
  EXPECT_EQ(reader->shown("hardware/gpio/p", "value"), Value(1));
  ASSERT_EQ(::symlink(server.socket().c_str(), cable.c_str()), 0);
  until([&] { return owner->isOwner() && owner->store.state().isReached; });
  owner->publish("p", 2);
  until([&] { return reader->shown("hardware/gpio/p", "value") == Value(2); });
}

// Notices that what it had under the mount went.
struct Keeping : StoreModel::Mirror {
  Keeping() : StoreModel::Mirror(kMount) {}
  void onSnapshot(const Records& records) override {
    StoreModel::Mirror::onSnapshot(records);
    check();
  }
  void onChanges(const Changes& changes) override {
    StoreModel::Mirror::onChanges(changes);
    check();
  }
  void check() {
    hasLost = hasLost || rows.size() < most;
    most = std::max(most, rows.size());
  }
  std::size_t most = 0;
  bool hasLost = false;
};

// From some moment on its requests are held until the server is wiped and others have written again.
TEST_F(SharedStore, KeepsWhatOthersPublishThroughAWipeAtAnyMomentOfItsStart) {
  Chaos::Proxy ofOwner(loop, server.at("owner"), server.socket()),
      ofReader(loop, server.at("reader"), server.socket());
  int pumped = 0;
  Host::Timer pump(loop, [&] { ++pumped, ofOwner.pump(), ofReader.pump(); });
  pump.startIn(1, 1);
  const auto run = [&](int count) { until([&, end = pumped + count] { return pumped >= end; }); };
  const auto owner = process(1, server.at("owner")), other = process();
  until([&] { return owner->agent.snapshots == 1 && owner->isOwner() && other->store.state().isReached; });
  Host::Loop apart;
  RedisTest::Client client(apart, server.url());
  client.connect();
  bool wasShown = false;
  for (int moment = 0; !wasShown; moment += 1 + moment / 20) {  // milliseconds
    owner->publish("p", moment);
    until([&] { return other->shown("hardware/gpio/p", "value") == Value(moment); });
    auto reader = process(0, server.at("reader"));
    Keeping keeping;
    reader->store.subscribe(kMount, keeping);
    run(moment);
    wasShown = keeping.most > 0;
    ofReader.up.isHeld = ofOwner.up.isHeld = ofOwner.down.isHeld = true;
    run(20);
    client.run("FLUSHALL");
    other->store.write({Change::put("x", "T", "v", moment)}, Durability::volatile_, nullptr);
    until([&] { return client.run("HGET {pinlamp}:v:d: x/v").text == std::to_string(moment); });
    ofReader.up.isHeld = false;
    until([&] { return reader->shown("x", "v") == Value(moment); });
    ofOwner.up.isHeld = ofOwner.down.isHeld = false;
    until([&] { return reader->store.state().isReached; });
    EXPECT_FALSE(keeping.hasLost) << "wiped after " << moment << " ms";
    end(reader);
  }
}

TEST_F(SharedStore, ShowsWhatAStoredStepRevealsTogetherWithItsEntryOrAfterIt) {
  const auto reader = process(), writer = process();
  until([&] { return reader->store.state().isReached && writer->store.state().isReached; });
  const auto ticket = write(*writer, {Change::put("x", "T", "v", 1), Change::put("x", "T", "w", 1)});
  until([&] { return ticket.isDone(); });
  writer->store.write({Change::put("x", "T", "v", 2), Change::put("x", "T", "w", 2)}, Durability::volatile_,
                      nullptr);
  until([&] { return reader->shown("x", "w") == Value(2); });
  RedisTest::Client client(loop, server.url());
  client.connect();
  client({"XADD", "{pinlamp}:v:log", "0-*", "o", "he.s:2", "d", "^2\n@\n-x\tv\n"});
  client({"XADD", "{pinlamp}:v:log", "0-*", "o", "he.s:1", "d", "^1\n@\n-x\tw\n"});
  until([&] { return reader->shown("x", "w") == Value(1); });
  EXPECT_EQ(reader->shown("x", "v"), Value(2));
  client({"XADD", "{pinlamp}:s:log", "0-*", "o", "he.s:2", "d", "@\n:T\n+x\ty\t1\n"});
  until([&] { return reader->shown("x", "v") == Value(1); });
  EXPECT_EQ(reader->shown("x", "y"), Value(1));
}

}  // namespace
