// The upstream on a real server.
#include "host/store/redis/upstream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <map>

#include "server.h"

namespace {

using namespace Host::Redis;
using RedisTest::kCover;
using RedisTest::kStored;
using RedisTest::kVolatile;
using RedisTest::runUntil;
using RedisTest::Seen;
using RedisTest::seenIn;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Change put(Path path, int value) { return Change::put(path, "T", "x", value); }

// A process, with what it was notified of.
struct Process final : Upstream::Owner {
  Process(Host::Loop& loop, const std::string& url) : upstream(loop, parseUrl(url), *this) {}

  static std::size_t at(Durability space) { return static_cast<std::size_t>(space); }
  void add(const std::string& event) { events.push_back(event); }
  Rows& shadow(Durability space) { return shadows[at(space)]; }

  void onReached() override { add("reached"); }
  void onLost(const Loss& loss) override {
    add("lost");
    losses.push_back(loss);
  }
  void onRows(Durability space) override { shadow(space) = upstream.rows(space); }
  void onEntry(const Entry& entry) override {
    shadow(entry.space).carry(entry.changes);
    add((entry.head.companionOf > 0 ? "companion" : "entry") + std::string({' ', letterOf(entry.space)}) +
        (entry.own ? " own" : ""));
  }
  void onWiped(Durability) override { add("wiped"); }
  void onSettled(const WriteId& write, Outcome outcome) override {
    EXPECT_TRUE(outcomes.emplace(std::pair(at(write.space), write.sequence), outcome).second);
  }
  void onRefused(const WriteId&, const Reply& error) override { refusals.push_back(error.refusal()); }
  void onWarning(const std::string& text) override { warnings.push_back(text); }

  bool saw(const std::string& event) const { return std::ranges::count(events, event) > 0; }
  WriteId write(Durability space, const Changes& changes) {
    const WriteId id = upstream.write(space, changes, {});
    upstream.flush();
    return id;
  }
  Outcome outcomeOf(const WriteId& write) const { return outcomes.at({at(write.space), write.sequence}); }

  std::vector<std::string> events, warnings;
  std::vector<Loss> losses;
  std::vector<Refusal> refusals;
  std::map<std::pair<std::size_t, Sequence>, Outcome> outcomes;
  std::array<Rows, 3> shadows;  // rows of the last snapshot, with the entries since
  Upstream upstream;
};

class RedisUpstream : public RedisTest::OnServer {
 protected:
  Seen scan(Durability space) { return seenIn(RedisTest::scan(client, Keys("pinlamp", space))); }
  void reach(Process& process) {
    runUntil(loop, [&] { return process.upstream.isReached(); });
    process.events.clear();
  }
  // Every write is settled, and each is the same as the server.
  void agree(const std::vector<Process*>& processes) {
    const auto isSettled = [](const Process* each) {
      return each->upstream.isReached() && each->upstream.underWay() == 0;
    };
    runUntil(loop, [&] { return std::ranges::all_of(processes, isSettled); });
    for (const Durability space : {kStored, kVolatile, kCover}) {
      const Seen rows = scan(space);
      for (Process* each : processes) {
        runUntil(loop, [&] { return seenIn(each->upstream.rows(space)) == rows; });
        EXPECT_EQ(seenIn(each->shadow(space)), rows);
      }
    }
  }

  const std::string url = "redis-unix:" + server.socket() + "?timeout=400ms";
};

TEST_F(RedisUpstream, ReadsASnapshotAndThenEveryEntry) {
  Process writer(loop, url);
  reach(writer);
  const WriteId first = writer.write(kStored, {put("a/b", 1), put("c", 1)});
  writer.write(kVolatile, {put("a/b", 2), put("d/e", 3)});
  writer.write(kCover, {put("a/b", 4)});
  agree({&writer});
  EXPECT_EQ(writer.outcomeOf(first), Outcome::applied);

  Process reader(loop, url);
  reach(reader);
  agree({&reader});
  EXPECT_EQ(reader.upstream.state(kStored).tip, writer.upstream.state(kStored).tip);
  reader.events.clear();
  writer.events.clear();
  writer.write(kStored, {put("c", 2)});
  writer.write(kVolatile, {put("d/f", 2)});
  runUntil(loop, [&] { return reader.events.size() == 2; });
  writer.write(kStored, {Change::del("a")});
  runUntil(loop, [&] { return reader.events.size() == 4 && writer.events.size() == 4; });
  EXPECT_THAT(reader.events, ElementsAre("entry s", "entry v", "companion v", "entry s"));
  EXPECT_THAT(writer.events, ElementsAre("entry s own", "entry v own", "companion v", "entry s own"));
  agree({&writer, &reader});
}

// tests/redis/chaos has more, at random; here each is named.
TEST_F(RedisUpstream, IsTheServersAgainAfterEveryFault) {
  Process writer(loop, url), reader(loop, url);
  struct Case {
    const char* loss;
    const char* fault;  // commands, or a signal
    const char* end = "PING";
    int signal = 0;
  };
  const Case cases[] = {
      {"ended the connection", "PING", "PING", SIGKILL},
      {"no answer within 400 ms", "PING", "PING", SIGSTOP},
      {"ended the connection", "CLIENT KILL TYPE pubsub"},
      {"ended the connection", "CLIENT KILL TYPE normal"},
      {"the server is a replica", "REPLICAOF 127.0.0.1 1", "REPLICAOF NO ONE"},
      {"maxmemory-policy is 'allkeys-lru'", "CONFIG SET maxmemory-policy allkeys-lru",
       "CONFIG SET maxmemory-policy noeviction"},
  };
  int value = 0;
  for (const Case& each : cases) {
    SCOPED_TRACE(each.loss);
    for (Process* process : {&writer, &reader}) {
      runUntil(loop, [&] { return process->upstream.isReached(); });
      process->upstream.acceptWiped(kVolatile);  // no restart keeps it
      process->losses.clear();
    }
    writer.write(kStored, {put("a", ++value)});
    agree({&writer, &reader});
    each.signal == SIGKILL ? server.restart() : server.signal(each.signal);
    if (each.signal == 0) client.run(each.fault);
    runUntil(loop, [&] { return !writer.losses.empty() && !reader.losses.empty(); });
    EXPECT_THAT(reader.losses.at(0).text, HasSubstr(each.loss));
    server.signal(SIGCONT);
    client.connect();
    client.run(each.end);
    runUntil(loop, [&] { return writer.upstream.isReached() && reader.upstream.isReached(); });
    writer.write(kStored, {put("a", ++value)});
    agree({&writer, &reader});
  }
  EXPECT_THAT(writer.refusals, IsEmpty());
}

TEST_F(RedisUpstream, KeepsTheRowsOfAWipedSpaceUntilSomebodyWritesOrAcceptsIt) {
  Process one(loop, url), other(loop, url);
  for (Process* each : {&one, &other}) reach(*each);
  for (const bool writes : {true, false}) {
    one.write(kStored, {put("a", 1)});
    agree({&one, &other});
    const Seen before = seenIn(one.upstream.rows(kStored));
    for (Process* each : {&one, &other}) each->events.clear();
    client({"FLUSHALL"});
    for (Process* each : {&one, &other}) {
      runUntil(loop, [&] { return each->saw("wiped"); });
      EXPECT_EQ(seenIn(each->upstream.rows(kStored)), before);
    }
    if (!writes) one.upstream.acceptWiped(kStored);
    if (!writes) runUntil(loop, [&] { return one.upstream.rows(kStored).all().empty(); });
    one.write(kStored, {put("b", 2)});
    agree({&one, &other});
    EXPECT_EQ(seenIn(other.upstream.rows(kStored)), (Seen{{"b", "T"}, {"b x", "2"}}));
  }
  client({"FLUSHALL"});
  const WriteId under = one.write(kStored, {put("c", 3)});  // before anybody noticed
  agree({&one, &other});
  EXPECT_EQ(one.outcomeOf(under), Outcome::applied);
  EXPECT_THAT(one.refusals, IsEmpty());
}

TEST_F(RedisUpstream, SendsAWriteAgainThatMetWhatItDidNotKnow) {
  Process one(loop, url), other(loop, url);
  for (Process* each : {&one, &other}) reach(*each);
  for (int i = 0; i < 3; ++i)  // all into a space that was never made
    for (Process* each : {&one, &other}) each->write(kStored, {put(each == &one ? "a" : "b", i)});
  agree({&one, &other});
  EXPECT_EQ(scan(kStored), (Seen{{"a", "T"}, {"a x", "2"}, {"b", "T"}, {"b x", "2"}}));
  const Keys keys("pinlamp", kStored);
  client({"HSET", keys.directory(""), "hidden", "T", "concealed", "T"});
  one.write(kStored, {Change::put("hidden", "U", {}, {}), Change::put("concealed", "U", {}, {})});
  agree({&one});
  EXPECT_EQ(scan(kStored)["hidden"], "U");
  EXPECT_THAT(one.refusals, IsEmpty());
  one.write(kVolatile, {Change::put("a", "U", {}, {})});
  runUntil(loop, [&] { return !one.refusals.empty(); });
  EXPECT_THAT(one.refusals, ElementsAre(Refusal::notStored));
  EXPECT_EQ(one.upstream.underWay(), 0U);
}

TEST_F(RedisUpstream, ALaterWriteIsNeverOverwrittenByAnEarlierOne) {
  Process one(loop, url);
  reach(one);
  client({"HSET", Keys("pinlamp", kStored).directory(""), "hidden", "T"});
  client({"ZADD", Keys("pinlamp", kStored).directories(), "0", ""});
  const auto writeType = [&](const char* type, int value) {
    return one.write(kStored, {Change::put("hidden", type, "x", value)});
  };
  writeType("U", 1);  // meets a T, while the next is on its way
  writeType("T", 2);
  agree({&one});
  EXPECT_THAT(one.refusals, ElementsAre(Refusal::otherType));
  EXPECT_EQ(scan(kStored), (Seen{{"hidden", "T"}, {"hidden x", "2"}}));

  client({"FLUSHALL"});
  runUntil(loop, [&] { return one.saw("wiped"); });
  one.upstream.acceptWiped(kStored);
  runUntil(loop, [&] { return one.upstream.rows(kStored).all().empty(); });
  client({"HSET", "{pinlamp}:s:meta", "generation", "another"});
  one.write(kStored, {put("a", 1)});  // refused: the space has another generation
  client({"FLUSHALL"});
  one.write(kStored, {put("a", 2)});  // makes the space
  agree({&one});
  EXPECT_EQ(scan(kStored), (Seen{{"a", "T"}, {"a x", "2"}}));
}

TEST_F(RedisUpstream, FindsWhatCouldNotBeAnnounced) {
  Process one(loop, url), other(loop, url);
  for (Process* each : {&one, &other}) reach(*each);
  client({"ACL", "SETUSER", "default", "-publish"});
  for (int i = 0; i < 3; ++i) one.write(kStored, {put("a", i)});
  agree({&one, &other});
  EXPECT_THAT(one.warnings,
              ElementsAre(HasSubstr("can't be announced on the channel '{pinlamp}:s:changes'")));
}

TEST_F(RedisUpstream, LeavesOutWhatItCannotRead) {
  Process writer(loop, url);
  reach(writer);
  writer.write(kStored, {put("a/b", 1)});
  agree({&writer});
  const std::string generation = writer.upstream.state(kStored).timeline.generation;
  const std::string delta = "@a\n:T\n+b\tx\t{bad\n+b\ty\t7\n";
  client({"XADD", "{pinlamp}:s:log", "0-2", "o", "he:1", "d", delta});
  client({"PUBLISH", "{pinlamp}:s:changes", generation + " 2 he:1\n" + delta});
  client({"PUBLISH", "{pinlamp}:s:changes", "good morning"});
  client({"HSET", "{pinlamp}:s:d:a", "b", "T\tx\ty", "b/x", "{bad", "b/y", "7"});
  runUntil(loop, [&] { return writer.warnings.size() == 2; });
  EXPECT_THAT(writer.warnings[0], HasSubstr("the entry 0-2 of '{pinlamp}:s:log' by 'he:1'"));
  EXPECT_THAT(writer.warnings[1], HasSubstr("a message on the channel '{pinlamp}:s:changes'"));
  EXPECT_EQ(seenIn(writer.upstream.rows(kStored)), (Seen{{"a/b", "T"}, {"a/b x", "1"}, {"a/b y", "7"}}));
  Process reader(loop, url);
  reach(reader);
  EXPECT_EQ(seenIn(reader.upstream.rows(kStored)), (Seen{{"a/b", "T"}, {"a/b y", "7"}}));
  ASSERT_EQ(reader.warnings.size(), 1U);
  EXPECT_THAT(reader.warnings[0], HasSubstr("the field 'b/x' of the hash '{pinlamp}:s:d:a': "));

  client({"XADD", "{pinlamp}:s:log", "1-1", "o", "he:1", "d", delta});
  runUntil(loop, [&] { return !reader.losses.empty(); });
  EXPECT_THAT(reader.losses[0].text, HasSubstr("'{pinlamp}:s:log' has an entry of the log with the id"));
}

}  // namespace
