// The scripts on a real server.
#include "host/store/redis/scripts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "host/rpc/json.h"
#include "platform/statedb/store/store.h"
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
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kPrefix = "p";

// Entities with their types and values as text.
using Seen = std::map<std::string, std::map<std::string, std::string>>;

Seen seenIn(const Statedb::Records& records) {
  Seen seen;
  for (const Statedb::Record* record : records) {
    auto& entity = seen[record->path.text()];
    entity[""] = record->type.stdString();
    for (const Statedb::Attribute& each : record->attributes)
      entity[each.name.stdString()] = Host::jsonText(each.value);
  }
  return seen;
}

class Scripts : public ::testing::Test {
 protected:
  Scripts() { client.connect(); }

  Reply call(Call what) {
    std::optional<Reply> reply;
    caller.call(std::move(what), [&](const Reply& got) { reply = got; });
    client.connection.flush();
    runUntil(loop, [&] { return reply || !client.connection.isReady(); });
    return reply.value_or(Reply());
  }

  struct Space {
    Durability durability;
    Keys keys{kPrefix, durability};
    Rows rows{};  // as the log has them
    State state{};
  };
  Space& space(Durability durability) { return durability == Durability::stored ? stored : volatile_; }

  WriteOptions options(const Space& space) {
    return {.generation = space.state.timeline.generation,
            .newGeneration = "new",
            .uuid = "me",
            .sequence = ++sequence};
  }
  Reply write(Durability durability, const Changes& changes) {
    Space& to = space(durability);
    return call(writeCall(kPrefix, durability, changes, options(to), {stored.rows, volatile_.rows}));
  }
  // The log since the last time, and what it makes of the rows.
  void read(Space& from) {
    from.state = serverState(call(stateCall(from.keys))).state;
    for (Revision after = read_[&from]; after < from.state.tip;) {
      const Reply reply = call(logCall(from.keys, after, 7));
      for (const Entry& entry : logPage(reply).entries) {
        ASSERT_EQ(entry.revision, after + 1);
        from.rows.carry(changesOf(entry.delta));
        after = read_[&from] = entry.revision;
      }
    }
  }
  Rows scan(const Space& from) {
    Rows rows;
    for (const Reply& each : client({"ZRANGE", from.keys.directories(), "0", "-1"}).list) {
      const Reply hash = client({"HGETALL", from.keys.directory(each.text)});
      EXPECT_FALSE(hash.list.empty()) << "'" << each.text << "' is listed, and empty";
      for (std::size_t i = 0; i < hash.list.size(); i += 2)
        rows.scanned(each.text, hash[i].text, hash[i + 1].text);
    }
    rows.endScan();
    return rows;
  }
  Seen merged() const {
    Seen seen = seenIn(stored.rows.all());
    for (const auto& [path, entity] : seenIn(volatile_.rows.all()))
      for (const auto& [attribute, value] : entity) seen[path][attribute] = value;
    return seen;
  }

  Host::Loop loop;
  Server server;
  Client client{loop, server.url()};
  Caller caller{client.connection};
  Space stored{Durability::stored}, volatile_{Durability::volatile_};
  Sequence sequence = 0;

 private:
  std::map<const Space*, Revision> read_;
};

TEST_F(Scripts, RowsStandWhereTheyAreDocumented) {
  const Reply reply =
      write(Durability::stored, {Change::put("hardware/led/Ethernet3%2F1", "T", "theme", "night"),
                                 Change::put("hardware/led/Ethernet3%2F1", "T", "limit", 2)});
  EXPECT_EQ(written(reply).revision, 1U);
  EXPECT_EQ(written(reply).generation, "new");
  const auto field = [&](const char* name) { return client({"HGET", "{p}:s:d:hardware/led", name}).text; };
  EXPECT_EQ(field("Ethernet3%2F1"), "T\ttheme\tlimit");
  EXPECT_EQ(field("Ethernet3%2F1/theme"), "\"night\"");
  EXPECT_EQ(client({"ZRANGE", "{p}:s:dirs", "0", "-1"})[0].text, "hardware/led");
  const ServerState state = serverState(call(stateCall(stored.keys)));
  EXPECT_EQ(state.state.tip, 1U);
  EXPECT_EQ(state.state.timeline.generation, "new");
  EXPECT_EQ(state.state.timeline.server.size(), 40U);
  EXPECT_EQ(state.role, "master");
  EXPECT_EQ(state.policy, "noeviction");
  EXPECT_THAT(client({"INFO", "server"}).text, HasSubstr("run_id:" + state.runId));
}

TEST_F(Scripts, EachEntryIsAnnounced) {
  Client reader(loop, server.url());
  reader.connect();
  bool subscribed = false;
  reader.connection.subscribe(stored.keys.channel(), [&](const Reply&) { subscribed = true; });
  reader.connection.flush();
  runUntil(loop, [&] { return subscribed; });
  write(Durability::stored, {Change::put("a/b", "T", "x", 1)});
  runUntil(loop, [&] { return !reader.messages.empty(); });
  EXPECT_THAT(reader.messages, ElementsAre("{p}:s:changes new 1 me:1\n@a\n:T\n+b\tx\t1\n"));
}

// Batches of all kinds of steps, in both spaces, against the store in memory.
TEST_F(Scripts, CarryOutWhatTheStoreInMemoryDoes) {
  const char* paths[] = {"a", "a/b", "a/b/c", "a/b/d", "a/bc", "e", "e/f", "g/h/i"};
  std::mt19937 random(11);
  const auto below = [&](std::size_t bound) { return random() % bound; };
  const auto step = [&] {
    const Path path = below(40) == 0 ? Path() : Path(paths[below(std::size(paths))]);
    const std::string attribute(1, static_cast<char>('x' + below(3)));
    if (below(5) == 0) return Change::del(path);
    if (below(5) == 0) return Change::unset(path, attribute);
    const char* type = below(8) == 0 ? "U" : "T";
    if (below(5) == 0) return Change::put(path, type, {}, {});
    return Change::put(path, type, attribute, static_cast<int>(random() % 100));
  };
  int refused = 0;
  Statedb::MemoryStore reference;
  for (int round = 0; round < 500 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const Durability durability = below(2) == 0 ? Durability::stored : Durability::volatile_;
    Changes changes;
    for (std::size_t i = 1 + below(6); i > 0; --i) changes.push_back(step());
    bool isRefused = false;
    try {
      reference.write(changes, durability);
      reference.flush();
    } catch (const Statedb::RefusedError&) {
      isRefused = true;
      ++refused;
    }
    const Reply reply = write(durability, changes);
    EXPECT_EQ(reply.refusal(), isRefused ? Refusal::notStored : Refusal::none) << reply.text;
    for (Space* each : {&stored, &volatile_}) {
      read(*each);
      EXPECT_EQ(seenIn(scan(*each).all()), seenIn(each->rows.all())) << "the log tells what was done";
    }
    EXPECT_EQ(merged(), seenIn(reference.read({})));
  }
  EXPECT_GT(refused, 10);
}

}  // namespace
