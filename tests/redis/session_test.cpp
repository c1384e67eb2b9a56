// The session on a real server.
#include "host/store/redis/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <functional>
#include <map>

#include "host/rpc/json.h"
#include "server.h"

namespace {

using namespace Host::Redis;
using RedisTest::Client;
using RedisTest::runUntil;
using RedisTest::Server;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr Durability kStored = Durability::stored, kVolatile = Durability::volatile_;

// "PATH" with the type, and "PATH ATTRIBUTE" with the value as text.
using Seen = std::map<std::string, std::string>;
Seen seenIn(const Rows& rows) {
  Seen seen;
  for (const Statedb::Record* record : rows.all()) {
    seen[record->path.text()] = record->type.stdString();
    for (const Statedb::Attribute& each : record->attributes)
      seen[record->path.text() + " " + each.name.stdString()] = Host::jsonText(each.value);
  }
  return seen;
}

Change put(Path path, int value) { return Change::put(path, "T", "x", value); }

// A process, with what it was notified of.
struct Process final : Session::Owner {
  Process(Host::Loop& loop, const std::string& url) : session(loop, parseUrl(url), *this) {}

  static std::size_t at(Durability space) { return space == kStored ? 0 : 1; }
  void add(const std::string& event) { events.push_back(event); }
  Rows& shadow(Durability space) { return shadows[at(space)]; }

  void onReached() override { add("reached"); }
  void onLost(const Loss& loss) override {
    add("lost");
    losses.push_back(loss);
  }
  void onRows(Durability space) override { shadow(space) = session.rows(space); }
  void onEntry(const Entry& entry) override {
    shadow(entry.space).carry(entry.changes);
    add((entry.isCompanion ? "companion" : "entry") + std::string(entry.space == kStored ? " s" : " v") +
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
    const WriteId id = session.write(space, changes, {});
    session.flush();
    return id;
  }
  Outcome outcomeOf(const WriteId& write) const { return outcomes.at({at(write.space), write.sequence}); }

  std::vector<std::string> events, warnings;
  std::vector<Loss> losses;
  std::vector<Refusal> refusals;
  std::map<std::pair<std::size_t, Sequence>, Outcome> outcomes;
  std::array<Rows, 2> shadows;  // rows of the last snapshot, with the entries since
  Session session;
};

class RedisSession : public ::testing::Test {
 protected:
  RedisSession() { client.connect(); }

  Seen scan(Durability space) {
    const Keys keys("pinlamp", space);
    Rows rows;
    for (const Reply& each : client({"ZRANGE", keys.directories(), "0", "-1"}).list) {
      const Reply hash = client({"HGETALL", keys.directory(each.text)});
      for (std::size_t i = 0; i < hash.list.size(); i += 2)
        rows.scanned(each.text, hash[i].text, hash[i + 1].text);
    }
    rows.endScan();
    return seenIn(rows);
  }
  void reach(Process& process) {
    runUntil(loop, [&] { return process.session.isReached(); });
    process.events.clear();
  }
  // Every write is settled, and each is the same as the server.
  void agree(const std::vector<Process*>& processes) {
    const auto isSettled = [](const Process* each) {
      return each->session.isReached() && each->session.underWay() == 0;
    };
    runUntil(loop, [&] { return std::ranges::all_of(processes, isSettled); });
    for (const Durability space : {kStored, kVolatile}) {
      const Seen rows = scan(space);
      for (Process* each : processes) {
        runUntil(loop, [&] { return seenIn(each->session.rows(space)) == rows; });
        EXPECT_EQ(seenIn(each->shadow(space)), rows);
      }
    }
  }

  Host::Loop loop;
  Server server;
  Client client{loop, server.url()};
  const std::string url = "redis-unix:" + server.socket() + "?timeout=400ms";
};

TEST_F(RedisSession, ReadsASnapshotAndThenEveryEntry) {
  Process writer(loop, url);
  reach(writer);
  const WriteId first = writer.write(kStored, {put("a/b", 1), put("c", 1)});
  writer.write(kVolatile, {put("a/b", 2), put("d/e", 3)});
  agree({&writer});
  EXPECT_EQ(writer.outcomeOf(first), Outcome::applied);

  Process reader(loop, url);
  reach(reader);
  agree({&reader});
  EXPECT_EQ(reader.session.state(kStored).tip, writer.session.state(kStored).tip);
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

TEST_F(RedisSession, IsTheServersAgainAfterEveryFault) {
  namespace fs = std::filesystem;
  const std::string file = server.at("appendonlydir"), copy = server.at("copy");
  Process writer(loop, url), reader(loop, url);
  const auto restart = [&] {
    server.end(SIGKILL);
    server.start();
    client.connect();
  };
  int value = 0;
  const auto write = [&] {
    ++value;
    writer.write(kStored, {put("a/n" + std::to_string(value % 7), value)});
  };
  struct Case {
    const char* loss;
    std::function<void()> fault;
    std::function<void()> end = [] {};
  };
  const Case cases[] = {
      {"ended the connection", restart},
      {"ended the connection",
       [&] {  // the tail of the log is lost
         fs::copy(file, copy, fs::copy_options::recursive);
         for (int i = 0; i < 5; ++i) write();
         agree({&writer});
         server.end(SIGKILL);
         fs::remove_all(file);
         fs::rename(copy, file);
         server.start();
         client.connect();
       }},
      {"no answer within 400 ms", [&] { server.signal(SIGSTOP); }, [&] { server.signal(SIGCONT); }},
      {"ended the connection",
       [&] {
         client({"CLIENT", "KILL", "TYPE", "pubsub"});
       }},
      {"ended the connection",
       [&] {
         client({"CLIENT", "KILL", "TYPE", "normal"});
       }},
      {"ended the connection",
       [&] {  // it falls too far behind
         client({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 64kb 0 0"});
         writer.write(kStored, {Change::put("big", "T", "x", std::string(900'000, 'x'))});
       },
       [&] {
         client({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 32mb 0 0"});
       }},
      {"the server is a replica",
       [&] {
         client({"REPLICAOF", "127.0.0.1", "1"});
       },
       [&] {
         client({"REPLICAOF", "NO", "ONE"});
       }},
      {"maxmemory-policy is 'allkeys-lru'",
       [&] {
         client({"CONFIG", "SET", "maxmemory-policy", "allkeys-lru"});
       },
       [&] {
         client({"CONFIG", "SET", "maxmemory-policy", "noeviction"});
       }},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(&each - cases);
    for (Process* process : {&writer, &reader}) {
      runUntil(loop, [&] { return process->session.isReached(); });
      process->session.acceptWiped(kVolatile);  // no restart keeps it
      process->losses.clear();
    }
    write();
    agree({&writer, &reader});
    each.fault();
    runUntil(loop, [&] { return !writer.losses.empty() && !reader.losses.empty(); });
    EXPECT_THAT(reader.losses.at(0).text, HasSubstr(each.loss));
    each.end();
    client.connect();
    runUntil(loop, [&] { return writer.session.isReached() && reader.session.isReached(); });
    write();
    agree({&writer, &reader});
  }
  EXPECT_THAT(writer.refusals, IsEmpty());
}

TEST_F(RedisSession, KeepsTheRowsOfAWipedSpaceUntilSomebodyWritesOrAcceptsIt) {
  Process one(loop, url), other(loop, url);
  for (Process* each : {&one, &other}) reach(*each);
  for (const bool writes : {true, false}) {
    one.write(kStored, {put("a", 1)});
    agree({&one, &other});
    const Seen before = seenIn(one.session.rows(kStored));
    for (Process* each : {&one, &other}) each->events.clear();
    client({"FLUSHALL"});
    for (Process* each : {&one, &other}) {
      runUntil(loop, [&] { return each->saw("wiped"); });
      EXPECT_EQ(seenIn(each->session.rows(kStored)), before);
    }
    if (!writes) one.session.acceptWiped(kStored);
    if (!writes) runUntil(loop, [&] { return one.session.rows(kStored).all().empty(); });
    one.write(kStored, {put("b", 2)});
    agree({&one, &other});
    EXPECT_EQ(seenIn(other.session.rows(kStored)), (Seen{{"b", "T"}, {"b x", "2"}}));
  }
  EXPECT_THAT(one.refusals, IsEmpty());
}

TEST_F(RedisSession, SettlesEachWriteAsTheServerHasIt) {
  Process writer(loop, url);
  for (int round = 0; round < 5; ++round) {
    reach(writer);
    std::map<int, WriteId> writes;
    for (int i = 0; i < 40; ++i) {
      writes[i] = writer.write(kStored, {put("w/r" + std::to_string(round * 100 + i), i)});
      if (i == 8 * round) loop.runOnce();
    }
    server.end(SIGKILL);
    server.start();
    client.connect();
    runUntil(loop, [&] { return !writer.losses.empty() && writer.session.isReached(); });
    agree({&writer});
    const Seen rows = scan(kStored);
    for (const auto& [i, write] : writes)
      EXPECT_EQ(writer.outcomeOf(write) == Outcome::applied,
                rows.contains("w/r" + std::to_string(round * 100 + i)));
    writer.losses.clear();
  }
}

TEST_F(RedisSession, SendsAWriteAgainThatMetWhatItDidNotKnow) {
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
  EXPECT_EQ(one.session.underWay(), 0U);
}

TEST_F(RedisSession, ALaterWriteIsNeverOverwrittenByAnEarlierOne) {
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
}

TEST_F(RedisSession, FindsWhatCouldNotBeAnnounced) {
  Process one(loop, url), other(loop, url);
  for (Process* each : {&one, &other}) reach(*each);
  client({"ACL", "SETUSER", "default", "-publish"});
  for (int i = 0; i < 3; ++i) one.write(kStored, {put("a", i)});
  agree({&one, &other});
  EXPECT_THAT(one.warnings, Contains(HasSubstr("can't be announced on the channel '{pinlamp}:s:changes'")));
  EXPECT_LE(one.warnings.size(), 2U);  // and that the right to publish is missing
}

TEST_F(RedisSession, LeavesOutWhatItCannotRead) {
  Process writer(loop, url);
  reach(writer);
  writer.write(kStored, {put("a/b", 1)});
  agree({&writer});
  const std::string generation = writer.session.state(kStored).timeline.generation;
  const std::string delta = "@a\n:T\n+b\tx\t{bad\n+b\ty\t7\n";
  client({"XADD", "{pinlamp}:s:log", "0-2", "o", "he:1", "d", delta});
  client({"PUBLISH", "{pinlamp}:s:changes", generation + " 2 he:1\n" + delta});
  client({"PUBLISH", "{pinlamp}:s:changes", "good morning"});
  client({"HSET", "{pinlamp}:s:d:a", "b", "T\tx\ty", "b/x", "{bad", "b/y", "7"});
  runUntil(loop, [&] { return writer.warnings.size() == 2; });
  EXPECT_THAT(writer.warnings[0], HasSubstr("the entry 0-2 of '{pinlamp}:s:log' by 'he:1'"));
  EXPECT_THAT(writer.warnings[1], HasSubstr("a message on the channel '{pinlamp}:s:changes'"));
  EXPECT_EQ(seenIn(writer.session.rows(kStored)), (Seen{{"a/b", "T"}, {"a/b x", "1"}, {"a/b y", "7"}}));
  Process reader(loop, url);
  reach(reader);
  EXPECT_EQ(seenIn(reader.session.rows(kStored)), (Seen{{"a/b", "T"}, {"a/b y", "7"}}));
  ASSERT_EQ(reader.warnings.size(), 1U);
  EXPECT_THAT(reader.warnings[0], HasSubstr("the field 'b/x' of the hash '{pinlamp}:s:d:a': "));

  client({"XADD", "{pinlamp}:s:log", "1-1", "o", "he:1", "d", delta});
  runUntil(loop, [&] { return !reader.losses.empty(); });
  EXPECT_THAT(reader.losses[0].text, HasSubstr("'{pinlamp}:s:log' has an entry of the log with the id"));
}

TEST_F(RedisSession, ReadsABigSnapshotInPortions) {
  Process writer(loop, url);
  reach(writer);
  constexpr int kMany = 8000, kDirectories = 2500;
  Changes changes;
  for (int i = 0; i < kMany; ++i)
    for (const char* each : {"theme", "limit", "x"})
      changes.push_back(Change::put("leds/led" + std::to_string(i), "T", each, i));
  for (int i = 0; i < kDirectories; ++i) changes.push_back(put("d" + std::to_string(i) + "/e", i));
  for (const Changes& part : partsOf(changes)) writer.write(kStored, part);
  runUntil(loop, [&] { return writer.session.underWay() == 0; });

  Process reader(loop, url);
  const std::uint64_t before = loop.round();
  runUntil(loop, [&] { return reader.session.isReached(); });
  EXPECT_GT(loop.round() - before, changes.size() / 2048);
  EXPECT_EQ(reader.session.rows(kStored).all().size(), std::size_t{kMany + kDirectories});
  agree({&reader});
}

}  // namespace
