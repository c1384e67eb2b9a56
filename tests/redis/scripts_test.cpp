// The scripts on a real server.
#include "host/store/redis/scripts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "platform/statedb/store/memorystore.h"
#include "server.h"
#include "tests/support.h"

namespace {

using namespace Host::Redis;
using RedisTest::Client;
using RedisTest::kStored;
using RedisTest::kVolatile;
using RedisTest::runUntil;
using RedisTest::Seen;
using RedisTest::seenIn;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Support::errorOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

Change put(Path path, Zel::Name attribute, Zel::Value value) {
  return Change::put(path, "T", attribute, value);
}
Change put(Path path, Zel::Name type) { return Change::put(path, type, {}, {}); }

class Scripts : public RedisTest::OnServer {
 protected:
  Reply call(Call what) { return call(client, caller, std::move(what)); }
  static Reply call(Client& of, Caller& by, Call what) {
    return of.replyTo([&](auto then) { by.call(std::move(what), then); });
  }

  struct Space {
    const Durability durability;
    const Keys keys{"p", durability};
    Rows rows{};  // as the log has them
    State state{};
    Revision readUpTo = 0;
  };

  Call writing(const Space& to, const Changes& changes, const WriteOptions& options) const {
    return writeCall("p", to.durability, changes, options,
                     {stored.rows, volatile_.rows, covers.rows, to.state.tip});
  }
  // As a writer that read this generation.
  WriteOptions of(const std::string& generation, std::vector<Claimed> claims = {}) {
    return {.generation = generation,
            .newGeneration = "g",
            .uuid = "me",
            .sequence = ++sequence,
            .claims = std::move(claims)};
  }
  Reply write(const Space& to, const Changes& changes, std::vector<Claimed> claims = {}) {
    return call(writing(to, changes, of(to.state.timeline.generation, std::move(claims))));
  }
  // The log since the last time, and what it makes of the rows.
  void read(Space& from) {
    from.state = serverState(call(stateCall({&from.keys}))).state;
    while (from.readUpTo < from.state.tip) {
      const Reply reply = call(logCall(from.keys, from.readUpTo, 7));
      for (const Entry& entry : logPage(reply).entries) {
        ASSERT_EQ(entry.revision, ++from.readUpTo);
        from.rows.carry(changesOf(entry.delta));
      }
    }
  }
  Rows scan(const Space& from) { return RedisTest::scan(client, from.keys); }

  Caller caller{client.connection};
  Space stored{kStored}, volatile_{kVolatile}, covers{Durability::cover};
  Sequence sequence = 0;
};

TEST_F(Scripts, RowsAndEntriesStandWhereTheyAreDocumented) {
  Client reader(loop, server.url());
  reader.connect();
  reader.replyTo([&](auto then) { reader.connection.subscribe(stored.keys.channel(), then); });
  const Path path = "hardware/led/Ethernet3%2F1";
  const Reply reply = write(stored, {put(path, "theme", "night"), put(path, "limit", 2)});
  EXPECT_EQ(written(reply).revision, 1U);
  EXPECT_EQ(written(reply).generation, "g");
  const auto field = [&](const char* name) { return client({"HGET", "{p}:s:d:hardware/led", name}).text; };
  EXPECT_EQ(field("Ethernet3%2F1"), "T\ttheme\tlimit");
  EXPECT_EQ(field("Ethernet3%2F1/theme"), "\"night\"");
  EXPECT_EQ(client({"ZRANGE", "{p}:s:dirs", "0", "-1"})[0].text, "hardware/led");
  const ServerState state = serverState(call(stateCall({&stored.keys})));
  EXPECT_EQ(state.state.tip, 1U);
  EXPECT_EQ(state.state.timeline.generation, "g");
  EXPECT_EQ(state.state.timeline.server.size(), 40U);
  EXPECT_EQ(state.role + " " + state.policy, "master noeviction");
  EXPECT_THAT(client({"INFO", "server"}).text, HasSubstr("run_id:" + state.runId));
  read(stored);
  write(stored, {put(path, "limit", 3)});  // of an entity that it knows: the fast path
  runUntil(loop, [&] { return reader.messages.size() == 2; });
  EXPECT_THAT(reader.messages, ElementsAre("{p}:s:changes g 1 me:1\n@hardware/led\n:T\n"
                                           "+Ethernet3%2F1\ttheme\t\"night\"\n+Ethernet3%2F1\tlimit\t2\n",
                                           "{p}:s:changes g 2 me:2\n@hardware/led\n:T\n"
                                           "+Ethernet3%2F1\tlimit\t3\n"));
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
    if (below(5) == 0) return put(path, type);
    return Change::put(path, type, attribute, static_cast<int>(random() % 100));
  };
  int refused = 0;
  Statedb::MemoryStore reference;
  for (int round = 0; round < 500 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const Space& space = below(2) == 0 ? stored : volatile_;
    Changes changes;
    for (std::size_t i = 1 + below(6); i > 0; --i) changes.push_back(step());
    const bool isRefused = errorOf<Statedb::RefusedError>([&] {
                             reference.write(changes, space.durability);
                             reference.flush();
                           }) != "none";
    refused += isRefused;
    const Reply reply = write(space, changes);
    EXPECT_EQ(reply.refusal(), isRefused ? Refusal::notStored : Refusal::none) << reply.text;
    for (Space* each : {&stored, &volatile_}) {
      read(*each);
      EXPECT_EQ(seenIn(scan(*each).all()), seenIn(each->rows.all())) << "the log tells what was done";
    }
    EXPECT_EQ(seenIn(volatile_.rows.all(), seenIn(stored.rows.all())), seenIn(reference.read({})));
  }
  EXPECT_GT(refused, 10);
}

// Everything that a database holds.
std::map<std::string, std::string> dump(Client& client) {
  std::map<std::string, std::string> all;
  for (const Reply& each : client({"KEYS", "*"}).list) all[each.text] = client({"DUMP", each.text}).text;
  return all;
}

TEST_F(Scripts, AWriteThatIsRefusedChangesNothing) {
  write(stored, {put("a", "x", 1), put("a/b", "x", 1), put("s/t", "x", 1)});
  write(volatile_, {put("v/w", "x", 1), put("a/b/c", "x", 1)});
  read(stored);
  read(volatile_);
  client({"ACL", "SETUSER", "writer", "on", ">pw", "&*", "+@all", "%R~*", "~{p}:s:log", "~{p}:s:meta",
          "~{p}:s:dirs", "~{p}:v:dirs", "~{p}:?:d:", "~{p}:?:d:new"});
  contentIs(server.at("pw"), "pw");
  Client other(loop, server.url("&user=writer&passwordFile=" + server.at("pw")));
  other.connect();
  Caller limited(other.connection);
  client({"HSET", "{p}:v:meta", "claim:v", "3 he"});
  client({"HSET", "{p}:s:meta", "fence:me", "1 0"});
  client({"HSET", "{p}:s:d:", "hidden", "T"});
  client({"HSET", "{p}:v:d:", "shadow", "T"});

  struct Case {
    Refusal refusal;
    const char* text;
    const Space& to;
    Change change;
    WriteOptions options;
  };
  sequence = 8;
  const Change fine = put("new/n", "x", 2);
  const WriteOptions mine = of("g");
  const Case cases[] = {
      {Refusal::generation, "GENERATION g", stored, fine, of("old")},
      {Refusal::generation, "GENERATION g", stored, fine, of("")},
      {Refusal::claimed, "CLAIMED v 3 he", volatile_, fine, of("g", {{"v", "2 me"}})},
      {Refusal::claimed, "CLAIMED w ", volatile_, fine, of("g", {{"v", "3 he"}, {"w", "1 me"}})},
      {Refusal::fenced, "FENCED", stored, fine, {.generation = "g", .uuid = "me", .sequence = 1}},
      {Refusal::otherType, "TYPE hidden", stored, put("hidden", "U"), mine},
      {Refusal::otherType, "TYPE shadow", stored, put("shadow", "U"), mine},
      {Refusal::notStored, "STORED a", volatile_, put("a", "U"), mine},
      // Of the limited user: a directory, one under a del, a volatile one, the other log, an unset.
      {Refusal::noPerm, "", stored, put("a/n", "T"), mine},
      {Refusal::noPerm, "", stored, Change::del("s"), mine},
      {Refusal::noPerm, "", stored, Change::del("v"), mine},
      {Refusal::noPerm, "", stored, Change::del("shadow"), mine},
      {Refusal::noPerm, "", stored, Change::unset("a/b", "x"), mine},
  };
  const auto before = dump(client);
  for (const Case& each : cases) {
    SCOPED_TRACE(each.text + (" " + each.change.row.path.text()));
    const Call asked = writing(each.to, {fine, each.change}, each.options);
    const Reply reply = each.refusal == Refusal::noPerm ? call(other, limited, asked) : call(asked);
    EXPECT_EQ(reply.refusal(), each.refusal);
    EXPECT_THAT(reply.text, StartsWith(each.text));
    EXPECT_EQ(dump(client), before);
  }
  WriteOptions known = mine;
  known.inTheWay = {"hidden"};
  EXPECT_EQ(call(writing(stored, {put("hidden", "U")}, known)).refusal(), Refusal::none);
}

// A write of values alone, by a writer that has not seen yet what others did to the entity.
TEST_F(Scripts, AWriterThatIsBehindLeavesRowsAndLogTheSame) {
  struct Case {
    Durability durability;  // of the change that it has not seen
    Change unseen;
  };
  const Case cases[] = {{kVolatile, Change::del("a/b")},        {kVolatile, Change::del("a")},
                        {kVolatile, Change::unset("a/b", "x")}, {kVolatile, put("a/b", "y", 1)},
                        {kStored, Change::del("a/b")},          {kStored, Change::unset("a/b", "x")}};
  for (const Case& each : cases) {
    SCOPED_TRACE(static_cast<int>(&each - cases));
    write(stored, {Change::del({}), put("a/b", "x", 0)});
    read(stored);
    read(volatile_);
    write(volatile_, {put("a/b", "x", 1), put("a/c", "x", 1)});
    read(volatile_);
    if (each.durability == kVolatile) write(stored, {Change::unset("a/b", "x"), Change::del("a/b")});
    if (each.durability == kVolatile) write(volatile_, {put("a/b", "x", 1), put("a/c", "x", 1)});
    read(stored);
    read(volatile_);
    const WriteOptions mine = of("g");
    const Call late = writing(volatile_, {put("a/b", "x", 2), put("a/c", "x", 2)}, mine);
    write(each.durability == kStored ? stored : volatile_, {each.unseen});
    EXPECT_EQ(call(late).refusal(), Refusal::none);
    for (Space* space : {&stored, &volatile_}) {
      read(*space);
      EXPECT_EQ(seenIn(scan(*space).all()), seenIn(space->rows.all()));
    }
  }
}

TEST_F(Scripts, VolatileRowsStayOutOfTheFile) {
  write(stored, {put("a", "x", 1)});
  write(volatile_, {put("a", "y", 1)});
  read(stored);
  read(volatile_);
  const auto fileSize = [&] {
    const std::string info = client({"INFO", "persistence"}).text;
    return std::stoul(info.substr(info.find("aof_current_size:") + 17));
  };
  const std::size_t before = fileSize();
  for (int i = 0; i < 100; ++i) write(volatile_, {put("a", "y", i), put("b/c", "y", i)});
  read(volatile_);
  write(volatile_, {put("b/c", "y", 1)});
  write(volatile_, {Change::del("b")});
  EXPECT_EQ(serverState(call(fenceCall(volatile_.keys, "me", 1))).role, "master");
  EXPECT_TRUE(isOwnedBy(claim(call(takeCall(volatile_.keys, "m", {.generation = "g"}, "me", "", ""))), "me"));
  EXPECT_EQ(fileSize(), before);
  write(stored, {put("a", "x", 2)});
  EXPECT_GT(fileSize(), before);

  server.restart();
  client.connect();
  caller.lost();
  EXPECT_EQ(seenIn(scan(volatile_).all()), Seen());
  EXPECT_EQ(seenIn(scan(stored).all()), (Seen{{"a", "T"}, {"a x", "2"}}));
  EXPECT_EQ(serverState(call(stateCall({&volatile_.keys}))).state.timeline.generation, "");
  const State after = serverState(call(stateCall({&stored.keys}))).state;
  EXPECT_EQ(after.tip, 2U);
  EXPECT_NE(after.timeline, stored.state.timeline) << "a restart is another timeline";
}

TEST_F(Scripts, AFenceKeepsWhatWasGivenUpFromBeingCarriedOut) {
  write(stored, {put("a", "x", 1)});
  read(stored);
  client({"HSET", stored.keys.meta(), "fence:he", "9 1000"});  // of a writer in the last century
  EXPECT_EQ(serverState(call(fenceCall(stored.keys, "me", 5))).state.tip, 1U);
  EXPECT_EQ(client({"HEXISTS", stored.keys.meta(), "fence:he"}).number, 0);
  sequence = 4;
  EXPECT_EQ(write(stored, {put("a", "x", 5)}).refusal(), Refusal::fenced);
  EXPECT_EQ(write(stored, {put("a", "x", 6)}).refusal(), Refusal::none);
}

TEST_F(Scripts, CallsKeepTheirOrderWhereTheServerForgetsTheScripts) {
  std::vector<Revision> revisions;
  const auto send = [&](int value) {
    caller.call(writing(stored, {put("a", "x", value)}, of("g")),
                [&](const Reply& reply) { revisions.push_back(written(reply).revision); });
    client.connection.flush();
  };
  write(stored, {put("a", "x", 0)});
  read(stored);
  client({"SCRIPT", "FLUSH"});
  for (int i = 1; i <= 9; ++i) {
    send(i);
    if (i > 5) loop.runOnce();
  }
  runUntil(loop, [&] { return revisions.size() == 9; });
  EXPECT_TRUE(std::ranges::is_sorted(revisions));
  EXPECT_EQ(client({"HGET", stored.keys.directory(""), "a/x"}).text, "9");
  client({"ACL", "SETUSER", "default", "-script"});
  client({"SCRIPT", "FLUSH"});
  caller.lost();
  EXPECT_EQ(write(stored, {put("a", "x", 0)}).refusal(), Refusal::noPerm);
}

TEST_F(Scripts, AClaimHasOneOwnerAndALaterOneFencesIt) {
  const auto look = [&] { return claimsOf(call(claimsCall(volatile_.keys))).claims["m/n"]; };
  const auto take = [&](const Claim& seen, const char* uuid) {
    return claim(call(takeCall(volatile_.keys, "m/n", seen, uuid, "pinlampd on rack 3", "g1")));
  };
  const auto writeAs = [&](const Token& token) {
    read(volatile_);
    const Refusal refusal = write(volatile_, {put("m/n/o", "x", 1)}, {{"m/n", token}}).refusal();
    read(stored);
    EXPECT_EQ(write(stored, {put("m/n/p", "x", 1)}, {{"m/n", token}}).refusal(), refusal);
    return refusal;
  };
  const auto beat = [&](const Token& token) {
    return call(beatCall(volatile_.keys, "m/n", token, "timeline"));
  };
  const auto release = [&](const Token& token) { return call(releaseCall(volatile_.keys, "m/n", token)); };
  const Claim free = look();
  EXPECT_TRUE(free.isFree());
  const Claim first = take(free, "me");
  EXPECT_TRUE(isOwnedBy(first, "me"));
  EXPECT_EQ(first.generation + " " + first.who, "g1 pinlampd on rack 3");
  EXPECT_FALSE(isOwnedBy(take(free, "he"), "he")) << "it saw the claim free, and it no longer is";
  EXPECT_EQ(writeAs(first.token), Refusal::none);

  const Claim beaten = claim(beat(first.token));
  EXPECT_EQ(beaten.beat, first.beat + 1);
  EXPECT_EQ(look().synced, "timeline");
  EXPECT_FALSE(isOwnedBy(take(first, "he"), "he")) << "the owner has given a sign of life since";
  const Claim second = take(beaten, "he");
  EXPECT_TRUE(isOwnedBy(second, "he"));
  EXPECT_EQ(second.synced, "");
  EXPECT_EQ(writeAs(first.token), Refusal::claimed);
  for (const Reply& reply : {beat(first.token), release(first.token)}) {
    EXPECT_EQ(claim(reply).token, second.token);
    EXPECT_EQ(claim(reply).beat, second.beat);
  }
  EXPECT_EQ(writeAs(second.token), Refusal::none);

  const Claim released = claim(release(second.token));
  EXPECT_TRUE(released.isFree());
  EXPECT_EQ(writeAs(second.token), Refusal::claimed);
  EXPECT_EQ(take(released, "me").token, "3 me") << "the epoch never goes back";
}

TEST_F(Scripts, ASweepRemovesWhatADeadOwnerPublishedAndNothingElse) {
  const auto take = [&](const char* mount, const Claim& seen) {
    return claim(call(takeCall(volatile_.keys, mount, seen, "he", "pinlampd", "g")));
  };
  const auto sweep = [&](const Claim& seen) {
    return claim(call(sweepCall(volatile_.keys, "m/n", seen, "me", 10)));
  };
  const Claim seen = take("m/n", {});
  take("\n", seen);  // no path, so no mount
  read(volatile_);
  const Changes published{put("m/n", "x", 1), put("m/n/o", "x", 1), put("m/n/o/p", "x", 1)};
  const Changes others{put("m/nn", "x", 1), put("m/nn/o", "x", 1)};
  write(volatile_, published, {{"m/n", seen.token}});
  write(volatile_, others);
  write(stored, {put("m/n/s", "x", 1)});
  Client reader(loop, server.url("&user=reader&passwordFile=" + server.at("pw")));
  contentIs(server.at("pw"), "pw");
  client({"ACL", "SETUSER", "reader", "on", ">pw", "&*", "+@all", "%R~*", "~{p}:v:log", "~{p}:v:meta",
          "~{p}:v:dirs", "~{p}:v:claim:*", "~{p}:v:d:m", "~{p}:v:d:m/n"});
  reader.connect();
  Caller limited(reader.connection);

  const Claim beaten = claim(call(beatCall(volatile_.keys, "m/n", seen.token, "")));
  const auto before = dump(client);
  EXPECT_EQ(sweep(seen).beat, beaten.beat) << "the owner lives";
  EXPECT_EQ(call(reader, limited, sweepCall(volatile_.keys, "m/n", beaten, "me", 10)).refusal(),
            Refusal::noPerm);
  EXPECT_EQ(dump(client), before);

  const Claim swept = sweep(beaten);
  EXPECT_EQ(swept.token, "1 ");
  EXPECT_EQ(swept.beat, 0U);
  EXPECT_EQ(claimsOf(call(claimsCall(volatile_.keys))).claims.size(), 1U);
  read(volatile_);
  Rows left;
  left.carry(others);
  for (const Rows& rows : {volatile_.rows, scan(volatile_)})
    EXPECT_EQ(seenIn(rows.all()), seenIn(left.all()));
  EXPECT_EQ(scan(stored).all().size(), 1U);
  EXPECT_EQ(client({"XREVRANGE", volatile_.keys.log(), "+", "-", "COUNT", "1"})[0][1][1].text, "me:0");
  EXPECT_EQ(write(volatile_, published, {{"m/n", seen.token}}).refusal(), Refusal::claimed);

  const Revision tip = volatile_.state.tip;
  EXPECT_EQ(take("m/n", sweep(take("m/n", swept))).token, "3 he") << "the epoch never goes back";
  read(volatile_);
  EXPECT_EQ(volatile_.state.tip, tip) << "an entry for nothing";
}

TEST_F(Scripts, ABatchIsCutIntoPartsThatTheServerCarriesOutAtOnce) {
  Changes changes;
  for (int i = 0; i < 2500; ++i) changes.push_back(put("d/e" + std::to_string(i), "x", i));
  changes.push_back(put("d/big", "x", std::string(kBytesPerWrite, 'x')));
  changes.push_back(put("d/after", "x", 1));
  std::vector<std::size_t> sizes;
  for (const Changes& part : partsOf(changes)) sizes.push_back(part.size());
  EXPECT_THAT(sizes, ElementsAre(kRowsPerWrite, kRowsPerWrite, 2500 - 2 * kRowsPerWrite, 1, 1));

  // A batch that must be one step may be longer than a part.
  Changes whole;
  for (int i = 0; i < 2 * static_cast<int>(kRowsPerWrite); ++i)
    for (const char* attribute : {"x", "y"}) whole.push_back(put("f/e" + std::to_string(i), attribute, i));
  EXPECT_EQ(write(stored, whole).refusal(), Refusal::none);
  read(stored);
  EXPECT_EQ(scan(stored).all().size(), whole.size() / 2);
  EXPECT_EQ(*stored.rows.find("f/e999")->find("y"), Zel::Value(999));
}

}  // namespace
