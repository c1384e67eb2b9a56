// The scripts on a real server.
#include "host/store/redis/scripts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "host/rpc/json.h"
#include "platform/statedb/store/memorystore.h"
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
  const char* paths[] = {"a", "a/b", "a/b/c", "a/b/d", "a/bc/x", "e", "e/f", "g/h/i"};
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

// Everything that a database holds.
std::string dump(Client& client) {
  std::string all;
  std::vector<std::string> names;
  for (const Reply& each : client({"KEYS", "*"}).list) names.push_back(each.text);
  std::ranges::sort(names);
  for (const std::string& name : names) all += name + " " + client({"DUMP", name}).text + "\n";
  return all;
}

TEST_F(Scripts, AWriteThatIsRefusedChangesNothing) {
  write(Durability::stored, {Change::put("a", "T", "x", 1), Change::put("a/b", "T", "x", 1)});
  write(Durability::volatile_, {Change::put("v/w", "T", "x", 1), Change::put("a/b/c", "T", "x", 1)});
  read(stored);
  read(volatile_);
  client({"ACL", "SETUSER", "writer", "on", ">pw", "&*", "+@all", "%R~*", "~{p}:s:log", "~{p}:s:meta",
          "~{p}:s:dirs", "~{p}:v:dirs", "~{p}:?:d:", "~{p}:?:d:new"});
  contentIs(server.at("pw"), "pw");
  Client other(loop, server.url("&user=writer&passwordFile=" + server.at("pw")));
  other.connect();
  Caller limited(other.connection);

  struct Case {
    const char* name;
    Durability durability;
    Changes changes;
    Refusal refusal;
    const char* text;
    std::function<void(WriteOptions& options)> change = [](WriteOptions&) {};
    bool isLimited = false;
  };
  const Changes fine{Change::put("new/n", "T", "x", 2)};
  const auto with = [&](Change change) { return Changes{fine[0], std::move(change)}; };
  const Case cases[] = {
      {"of another generation", Durability::stored, fine, Refusal::generation, "GENERATION new",
       [](WriteOptions& each) { each.generation = "old"; }},
      {"for a space that was made meanwhile", Durability::stored, fine, Refusal::generation, "GENERATION new",
       [](WriteOptions& each) { each.generation = ""; }},
      {"under another's claim", Durability::volatile_, fine, Refusal::claimed, "CLAIMED v 3 he",
       [](WriteOptions& each) {
         each.claims = {{"v", "2 me"}};
       }},
      {"under a claim that was never made", Durability::volatile_, fine, Refusal::claimed, "CLAIMED w ",
       [](WriteOptions& each) {
         each.claims = {{"v", "3 he"}, {"w", "1 me"}};
       }},
      {"that was given up", Durability::stored, fine, Refusal::fenced, "FENCED",
       [](WriteOptions& each) { each.sequence = 1; }},
      {"over an unknown type", Durability::stored, with(Change::put("hidden", "U", {}, {})),
       Refusal::otherType, "TYPE hidden"},
      {"over an unknown volatile type", Durability::stored, with(Change::put("shadow", "U", {}, {})),
       Refusal::otherType, "TYPE shadow"},
      {"volatile over stored", Durability::volatile_, with(Change::put("a", "U", {}, {})), Refusal::notStored,
       "STORED a"},
      {"into a directory that the user may not write",
       Durability::stored,
       with(Change::put("a/n", "T", {}, {})),
       Refusal::noPerm,
       "",
       {},
       true},
      {"a del under which the user may not write",
       Durability::stored,
       with(Change::del("a")),
       Refusal::noPerm,
       "",
       {},
       true},
      {"a del of volatile rows that the user may not write",
       Durability::stored,
       with(Change::del("v")),
       Refusal::noPerm,
       "",
       {},
       true},
      {"a del whose entry in the other log the user may not write",
       Durability::stored,
       with(Change::del("shadow")),
       Refusal::noPerm,
       "",
       {},
       true},
      {"an unset that the user may not write",
       Durability::stored,
       with(Change::unset("a/b", "x")),
       Refusal::noPerm,
       "",
       {},
       true},
  };
  client({"HSET", "{p}:v:meta", "claim:v", "3 he"});
  client({"HSET", "{p}:s:meta", "fence:me", "1 0"});
  client({"HSET", "{p}:s:d:", "hidden", "T"});
  client({"HSET", "{p}:v:d:", "shadow", "T"});
  const std::string before = dump(client);
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    WriteOptions how = options(space(each.durability));
    if (each.change) each.change(how);
    Call asked = writeCall(kPrefix, each.durability, each.changes, how, {stored.rows, volatile_.rows});
    std::optional<Reply> reply;
    Caller& as = each.isLimited ? limited : caller;
    as.call(std::move(asked), [&](const Reply& got) { reply = got; });
    (each.isLimited ? other : client).connection.flush();
    runUntil(loop, [&] { return reply.has_value(); });
    EXPECT_EQ(reply->refusal(), each.refusal);
    EXPECT_THAT(reply->text, StartsWith(each.text));
    EXPECT_EQ(dump(client), before);
  }
  WriteOptions told = options(stored);
  told.inTheWay = {"hidden"};
  EXPECT_EQ(call(writeCall(kPrefix, Durability::stored, {Change::put("hidden", "U", {}, {})}, told,
                           {stored.rows, volatile_.rows}))
                .refusal(),
            Refusal::none);
}

TEST_F(Scripts, VolatileRowsStayOutOfTheFile) {
  write(Durability::stored, {Change::put("a", "T", "x", 1)});
  write(Durability::volatile_, {Change::put("a", "T", "y", 1)});
  read(stored);
  read(volatile_);
  const auto fileSize = [&] {
    const std::string info = client({"INFO", "persistence"}).text;
    return std::stoul(info.substr(info.find("aof_current_size:") + 17));
  };
  const std::size_t before = fileSize();
  for (int i = 0; i < 100; ++i)
    write(Durability::volatile_, {Change::put("a", "T", "y", i), Change::put("b/c", "T", "y", i)});
  write(Durability::volatile_, {Change::del("b")});
  EXPECT_EQ(call(stateCall(volatile_.keys, "me", 1)).refusal(), Refusal::none);
  EXPECT_EQ(call(takeCall(volatile_.keys, "m", {.generation = "new"}, "me", "host", "")).refusal(),
            Refusal::none);
  EXPECT_EQ(fileSize(), before);
  write(Durability::stored, {Change::put("a", "T", "x", 2)});
  EXPECT_GT(fileSize(), before);

  server.end(SIGKILL);
  server.start();
  client.connect();
  caller.lost();
  EXPECT_EQ(seenIn(scan(volatile_).all()), Seen());
  EXPECT_EQ(seenIn(scan(stored).all()), (Seen{{"a", {{"", "T"}, {"x", "2"}}}}));
  EXPECT_EQ(serverState(call(stateCall(volatile_.keys))).state.timeline.generation, "");
  const State after = serverState(call(stateCall(stored.keys))).state;
  EXPECT_EQ(after.tip, 2U);
  EXPECT_NE(after.timeline, stored.state.timeline) << "a restart is another timeline";
}

TEST_F(Scripts, AFenceKeepsWhatWasGivenUpFromBeingCarriedOut) {
  write(Durability::stored, {Change::put("a", "T", "x", 1)});
  read(stored);
  client({"HSET", stored.keys.meta(), "fence:he", "9 1000"});  // of a writer in the last century
  EXPECT_EQ(serverState(call(stateCall(stored.keys, "me", 5))).state.tip, 1U);
  EXPECT_EQ(client({"HEXISTS", stored.keys.meta(), "fence:he"}).number, 0);
  sequence = 4;
  EXPECT_EQ(write(Durability::stored, {Change::put("a", "T", "x", 5)}).refusal(), Refusal::fenced);
  EXPECT_EQ(write(Durability::stored, {Change::put("a", "T", "x", 6)}).refusal(), Refusal::none);
}

TEST_F(Scripts, CallsKeepTheirOrderWhereTheServerForgetsTheScripts) {
  std::vector<Revision> revisions;
  const auto send = [&](int value) {
    caller.call(writeCall(kPrefix, Durability::stored, {Change::put("a", "T", "x", value)}, options(stored),
                          {stored.rows, volatile_.rows}),
                [&](const Reply& reply) { revisions.push_back(written(reply).revision); });
  };
  write(Durability::stored, {Change::put("a", "T", "x", 0)});
  read(stored);
  for (int round = 0; round < 3; ++round) {
    client({"SCRIPT", "FLUSH"});
    const std::size_t before = revisions.size();
    for (int i = 1; i <= 5; ++i) send(round * 10 + i);
    client.connection.flush();
    for (int i = 6; i <= 9; ++i) {
      loop.runOnce();
      send(round * 10 + i);
      client.connection.flush();
    }
    runUntil(loop, [&] { return revisions.size() == before + 9; });
  }
  EXPECT_TRUE(std::ranges::is_sorted(revisions));
  EXPECT_EQ(client({"HGET", stored.keys.directory(""), "a/x"}).text, "29");
  client({"ACL", "SETUSER", "default", "-script"});
  client({"SCRIPT", "FLUSH"});
  caller.lost();
  EXPECT_EQ(write(Durability::stored, {Change::put("a", "T", "x", 0)}).refusal(), Refusal::noPerm);
}

TEST_F(Scripts, AClaimHasOneOwnerAndALaterOneFencesIt) {
  const auto look = [&] { return claim(call(claimCall(volatile_.keys, "m/n"))); };
  const auto take = [&](const Claim& seen, const char* uuid) {
    return claim(call(takeCall(volatile_.keys, "m/n", seen, uuid, "pinlampd on rack 3", "g1")));
  };
  const auto writeAs = [&](const Token& token) {
    read(volatile_);
    WriteOptions how = options(volatile_);
    how.claims = {{"m/n", token}};
    return call(writeCall(kPrefix, Durability::volatile_, {Change::put("m/n/o", "T", "x", 1)}, how,
                          {stored.rows, volatile_.rows}))
        .refusal();
  };
  const Claim free = look();
  EXPECT_TRUE(free.isFree());
  const Claim first = take(free, "me");
  EXPECT_TRUE(isOwnedBy(first, "me"));
  EXPECT_EQ(first.generation, "g1");
  EXPECT_EQ(first.who, "pinlampd on rack 3");
  EXPECT_FALSE(isOwnedBy(take(free, "he"), "he")) << "it saw the claim free, and it no longer is";
  EXPECT_EQ(writeAs(first.token), Refusal::none);

  const Claim beaten = claim(call(beatCall(volatile_.keys, "m/n", first.token, "timeline")));
  EXPECT_EQ(beaten.beat, first.beat + 1);
  EXPECT_EQ(look().synced, "timeline");
  EXPECT_FALSE(isOwnedBy(take(first, "he"), "he")) << "the owner has given a sign of life since";
  const Claim second = take(beaten, "he");
  EXPECT_TRUE(isOwnedBy(second, "he"));
  EXPECT_EQ(second.synced, "");
  EXPECT_EQ(writeAs(first.token), Refusal::claimed);
  EXPECT_EQ(call(beatCall(volatile_.keys, "m/n", first.token, "")).refusal(), Refusal::claimed);
  EXPECT_EQ(call(releaseCall(volatile_.keys, "m/n", first.token)).refusal(), Refusal::claimed);
  EXPECT_EQ(writeAs(second.token), Refusal::none);

  const Claim released = claim(call(releaseCall(volatile_.keys, "m/n", second.token)));
  EXPECT_TRUE(released.isFree());
  EXPECT_EQ(writeAs(second.token), Refusal::claimed);
  const Claim third = take(released, "me");
  EXPECT_EQ(third.token, "3 me") << "the epoch never goes back";
}

TEST_F(Scripts, ABatchIsCutIntoPartsThatTheServerCarriesOutAtOnce) {
  Changes changes;
  for (int i = 0; i < 2500; ++i) changes.push_back(Change::put("d/e" + std::to_string(i), "T", "x", i));
  changes.push_back(Change::put("d/big", "T", "x", std::string(kBytesPerWrite, 'x')));
  changes.push_back(Change::put("d/after", "T", "x", 1));
  const auto parts = partsOf(changes);
  ASSERT_EQ(parts.size(), 5U);
  EXPECT_EQ(parts[0].size(), kRowsPerWrite);
  EXPECT_EQ(parts[3].size(), 1U);
  for (const Changes& part : parts) {
    EXPECT_EQ(write(Durability::stored, part).refusal(), Refusal::none);
    read(stored);
  }
  EXPECT_EQ(stored.rows.all().size(), changes.size());
}

}  // namespace
