#include "host/store/redis/servercheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>

#include "host/store/redis/serverprobe.h"
#include "server.h"
#include "tests/places.h"

namespace {

using namespace Host::Redis;
using RedisTest::Client;
using RedisTest::freePort;
using RedisTest::Sentinel;
using RedisTest::Server;
using Result = Finding::Result;
using ::testing::HasSubstr;

// A server as it should be.
ServerFacts goodFacts() {
  ServerFacts facts;
  facts.user = "default";
  facts.info.values = {{"redis_version", "7.0.15"},
                       {"redis_mode", "standalone"},
                       {"role", "master"},
                       {"aof_enabled", "1"},
                       {"aof_last_write_status", "ok"},
                       {"rdb_last_bgsave_status", "ok"},
                       {"maxmemory_policy", "noeviction"},
                       {"maxmemory", "1073741824"},
                       {"used_memory", "1000000"},
                       {"connected_slaves", "1"},
                       {"maxclients", "10000"},
                       {"connected_clients", "12"}};
  facts.config.values = {
      {"appendonly", "yes"},
      {"appendfsync", "everysec"},
      {"save", ""},
      {"client-output-buffer-limit", "normal 0 0 0 slave 268435456 67108864 60 pubsub 33554432 8388608 60"},
      {"min-replicas-to-write", "1"},
      {"min-replicas-max-lag", "2"},
      {"protected-mode", "yes"},
      {"bind", "* -::*"},
      {"port", "6379"},
      {"stop-writes-on-bgsave-error", "yes"}};
  for (const Need& each : needsOf("p"))
    facts.rights.push_back({each.role, each.words[0] + " " + each.words.back()});
  facts.directories = {{"a", true}, {"b", true}};
  facts.stored = {"g1", 11, 20, ""};
  facts.pings = {0.1, 0.2, 0.1};
  return facts;
}

TEST(RedisServerCheck, FindsWhatIsWrong) {
  const auto config = [](const char* name, const char* value) {
    return [=](ServerFacts& facts) { facts.config.values[name] = value; };
  };
  const auto info = [](const char* name, const char* value) {
    return [=](ServerFacts& facts) { facts.info.values[name] = value; };
  };
  const auto may = [](Role role, const char* command, ServerFacts::May whether) {
    return [=](ServerFacts& facts) { facts.rights.push_back({role, command, whether}); };
  };
  using May = ServerFacts::May;
  struct Case {
    std::function<void(ServerFacts&)> change;
    Result result;
    const char* name;
    const char* found;
    const char* remedy;
    const char* url = "redis://db1";
  };
  const Case cases[] = {
      {info("redis_version", "6.2.1"), Result::wrong, "version", "6.2.1: ", "7.0 or later"},
      {info("role", "slave"), Result::wrong, "role", "a replica of ", "redis+sentinel://"},
      {may(Role::reader, "INFO", May::no), Result::wrong, "rights to read", "may not: INFO", "complete"},
      {may(Role::writer, "XADD {pinlamp}:s:log *", May::no), Result::note, "rights to write", "none: ", ""},
      {may(Role::publisher, "HSET x", May::noCommand), Result::wrong, "rights to publish", "has no HSET",
       "rename"},
      {info("aof_enabled", "0"), Result::wrong, "appendonly", "no: ", "appendonly yes"},
      {config("appendfsync", "no"), Result::wrong, "appendfsync", "no: ", "appendfsync everysec"},
      {info("aof_last_write_status", "err"), Result::wrong, "append-only file", "MISCONF", "room"},
      {info("maxmemory", "0"), Result::note, "maxmemory", "976 KiB used of any", "maxmemory"},
      {info("used_memory", "1000000000"), Result::note, "maxmemory", "953 MiB used of 1024 MiB: ", "higher"},
      {config("client-output-buffer-limit", "pubsub 1048576 0 0"), Result::note, "client-output-buffer-limit",
       "pubsub 1024 KiB: ", "pubsub 32mb 8mb 60"},
      {config("min-replicas-to-write", "0"), Result::wrong, "min-replicas-to-write", "0: ", "1",
       "redis+sentinel://h/leds"},
      {info("connected_slaves", "0"), Result::wrong, "min-replicas-to-write",
       "0 connected: writes are refused", "start the replicas"},
      {config("protected-mode", "no"), Result::note, "protected-mode", "everybody", "requirepass"},
      {info("connected_clients", "9000"), Result::note, "maxclients", "9000 connected", "20000"},
      {[](ServerFacts& facts) { facts.stored.refused = "WRONGTYPE Operation"; }, Result::wrong, "stored rows",
       "other data", "prefix="},
      {[](ServerFacts& facts) { facts.pings[1] = 400; }, Result::note, "latency", "400 ms at most",
       "timeout"},
      {[](ServerFacts& facts) {
         facts.info = {{}, "NOPERM"};
       },
       Result::wrong, "INFO", "must", "+info"},
  };
  const auto unusual = [](const ServerFacts& facts, const char* url) {
    std::vector<Finding> findings = findingsIn(facts, parseUrl(url));
    std::erase_if(findings, [](const Finding& each) { return each.result == Result::ok; });
    return findings;
  };
  ASSERT_EQ(unusual(goodFacts(), "redis://db1").size(), 0U);
  EXPECT_EQ(wrongText(findingsIn(goodFacts(), parseUrl("redis://db1"))), "");
  for (const Case& each : cases) {
    SCOPED_TRACE(std::string(each.name) + " " + each.found);
    ServerFacts facts = goodFacts();
    each.change(facts);
    const auto findings = unusual(facts, each.url);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].result, each.result);
    EXPECT_EQ(findings[0].name, each.name);
    EXPECT_THAT(findings[0].found, HasSubstr(each.found));
    EXPECT_THAT(findings[0].remedy, HasSubstr(each.remedy));
    EXPECT_EQ(wrongText(findings).empty(), each.result != Result::wrong);
  }
}

TEST(RedisServerCheck, ComparesTheAnswersOfSentinels) {
  const HostAddress a{"h1", 1}, b{"h2", 1};
  const auto wrongIn = [](const std::vector<SentinelAnswer>& answers) {
    return wrongText(findingsIn(answers));
  };
  EXPECT_EQ(wrongIn({{a, a, ""}, {a, {}, "connection refused"}, {b, a, ""}}), "");
  EXPECT_THAT(wrongIn({{a, a, ""}, {a, b, ""}}), HasSubstr("different masters: h1:1, h2:1"));
  EXPECT_THAT(wrongIn({{a, {}, "connection refused"}}), HasSubstr("none of them names the master"));
}

// A user with a complete ACL by this check can do everything.
TEST(RedisServerCheck, KnowsEveryCommandOfTheScripts) {
  std::set<std::string> known;
  for (const Need& each : needsOf("p")) known.insert(each.words[0]);
  const std::regex call("redis\\.p?call\\('([A-Z]+)'");
  std::size_t seen = 0;
  for (const auto& file : std::filesystem::directory_iterator(Places::sourceFolder() + "/host/store/redis")) {
    const std::string text = contentOf(file.path());
    for (std::sregex_iterator each(text.begin(), text.end(), call), end; each != end; ++each, ++seen)
      EXPECT_TRUE(known.contains((*each)[1])) << (*each)[1] << " in " << file.path();
  }
  EXPECT_GT(seen, 20U) << "the scripts were not found";
}

// NAME to "RESULT found", of a real server.
std::map<std::string, std::string> probed(const std::string& url) {
  static constexpr const char* kResults[] = {"ok ", "note ", "wrong "};
  std::map<std::string, std::string> found;
  for (const Finding& each : probe(parseUrl(url)))
    found[each.name] = kResults[static_cast<std::size_t>(each.result)] + each.found;
  return found;
}

TEST(RedisServerCheck, AsksARealServer) {
  Host::Loop loop;
  Server server("save 3600 1\nmaxmemory-policy allkeys-lru\n");
  Client client(loop, server.url());
  client.connect();
  client({"HSET", "{pinlamp}:s:meta", "generation", "g7"});
  client({"XADD", "{pinlamp}:s:log", "0-41", "o", "u:1", "d", ""});
  client({"ZADD", "{pinlamp}:s:dirs", "0", "a/b"});
  client({"ZADD", "{pinlamp}:s:dirs", "0", "c"});
  client({"SET", "{pinlamp}:v:meta", "x"});
  const auto keys = client({"DBSIZE"}).number;
  auto found = probed(server.url());
  EXPECT_EQ(found["server"], "ok " + server.socket());
  EXPECT_THAT(client({"INFO", "server"}).text,
              HasSubstr("\nredis_version:" + found["version"].substr(3) + "\r"));
  EXPECT_EQ(found["appendonly"], "ok yes");
  EXPECT_THAT(found["save"], HasSubstr("note 3600 1: "));
  EXPECT_THAT(found["maxmemory-policy"], HasSubstr("wrong allkeys-lru: "));
  EXPECT_EQ(found["rights to publish"], "ok all");
  EXPECT_EQ(found["rights to read"], "ok all");
  EXPECT_EQ(found["stored rows"], "ok generation g7, revision 41, the log has 1 entries");
  EXPECT_THAT(found["volatile rows"], HasSubstr("wrong other data"));
  EXPECT_THAT(found["latency"], HasSubstr(" of 50 pings"));
  EXPECT_EQ(client({"DBSIZE"}).number, keys) << "it changes nothing";

  contentIs(server.at("led"), "pw\n");
  client({"ACL", "SETUSER", "led", "on", ">pw", "%R~{pinlamp}:*", "%RW~{pinlamp}:s:d:c", "%RW~{pinlamp}:v:*",
          "&{pinlamp}:v:changes", "&{pinlamp}:s:changes", "+@all", "-config"});
  found = probed(server.url("&user=led&passwordFile=" + server.at("led")));
  EXPECT_EQ(found["user"], "ok led, with a password");
  EXPECT_THAT(found["rights to write"], HasSubstr("note none: "));
  EXPECT_EQ(found["rights to publish"], "ok all");
  EXPECT_EQ(found["directories"], "ok 1 of 2 writable: c");
  EXPECT_THAT(found["CONFIG GET"], HasSubstr("NOPERM"));
  EXPECT_EQ(found["appendonly"], "ok yes") << "INFO shows it";
  client({"ACL", "SETUSER", "led", "-evalsha_ro"});
  EXPECT_THAT(probed(server.url("&user=led&passwordFile=" + server.at("led")))["scripts"],
              HasSubstr("NOPERM"));

  const Server renamed("rename-command HGETALL \"\"\n");
  Client(loop, renamed.url()).connect();
  EXPECT_EQ(probed(renamed.url())["rights to write"], "wrong the server has no HGETALL");

  EXPECT_THAT(probed("redis-unix:" + server.at("none"))["server"],
              HasSubstr("wrong " + server.at("none") + ": no such file"));
}

TEST(RedisServerCheck, AsksEachSentinelAndThenTheMaster) {
  Host::Loop loop;
  const std::uint16_t port = freePort();
  const Server server(RedisTest::onPort(port));
  const Sentinel sentinel(RedisTest::monitor(port));
  for (const Server* each : {&server, static_cast<const Server*>(&sentinel)})
    Client(loop, each->url()).connect();
  auto found = probed("redis+sentinel://127.0.0.1:1," + sentinel.address() + "/leds?timeout=5s");
  EXPECT_THAT(found["sentinel 127.0.0.1:1"], HasSubstr("note connection refused"));
  EXPECT_EQ(found["sentinel " + sentinel.address()], "ok names 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(found["server"], "ok 127.0.0.1:" + std::to_string(port));
  EXPECT_THAT(found["min-replicas-to-write"], HasSubstr("wrong 0: "));
}

}  // namespace
