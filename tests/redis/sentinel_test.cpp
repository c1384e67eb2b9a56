#include "host/store/redis/sentinel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server.h"

namespace {

using namespace Host::Redis;
using RedisTest::Client;
using RedisTest::freePort;
using RedisTest::runUntil;
using RedisTest::Sentinel;
using RedisTest::Server;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

struct Asking : Locator::Owner {
  Asking(Host::Loop& theLoop, const std::string& url)
      : loop(theLoop), sentinels(loop, parseUrl(url), *this) {}

  // The address; empty where there is none, with the reason in `loss`.
  std::string operator()() {
    isOver = false;
    sentinels.find();
    runUntil(loop, [this] { return isOver; });
    return master;
  }
  void onAddress(const Address& address) override {
    master = addressText(address);
    isOver = true;
  }
  void onNoAddress(const Loss& theLoss) override {
    master.clear();
    loss = theLoss;
    isOver = true;
  }

  Host::Loop& loop;
  bool isOver = false;
  std::string master;
  Loss loss;
  Sentinels sentinels;
};

void waitFor(Host::Loop& loop, const Server& server) { Client(loop, server.url()).connect(); }

struct RedisSentinel : ::testing::Test {
  Host::Loop loop;
};

TEST_F(RedisSentinel, AnAnswerThatIsNotProvedLeadsToTheNextSentinel) {
  const Sentinel one("sentinel monitor leds 127.0.0.1 1001 1\n"),
      two("sentinel monitor leds 127.0.0.1 1002 1\n");
  waitFor(loop, one);
  waitFor(loop, two);
  Asking ask(loop,
             "redis+sentinel://127.0.0.1:1," + one.address() + "," + two.address() + "/leds?timeout=5s");
  EXPECT_EQ(ask(), "127.0.0.1:1001");
  EXPECT_EQ(ask(), "127.0.0.1:1002");
  ask.sentinels.proved();
  EXPECT_EQ(ask(), "127.0.0.1:1002") << "the one that was right goes first";
  EXPECT_EQ(ask(), "127.0.0.1:1001") << "past the one that can't be reached";
}

TEST_F(RedisSentinel, SaysWhatEachSentinelAnswered) {
  const Server server("bind 127.0.0.1\nport " + std::to_string(freePort()) + "\nrequirepass secret\n");
  const std::uint16_t port = freePort();
  const Server plain("bind 127.0.0.1\nport " + std::to_string(port) + "\n");
  const Sentinel open("sentinel monitor leds 127.0.0.1 1001 1\nsentinel monitor fans 127.0.0.1 1002 1\n");
  const Sentinel locked("requirepass secret\nsentinel monitor leds 127.0.0.1 1001 1\n"), empty("");
  for (const Server* each : {static_cast<const Server*>(&plain), static_cast<const Server*>(&open),
                             static_cast<const Server*>(&empty)})
    waitFor(loop, *each);
  contentIs(server.at("right"), "secret\n");
  contentIs(server.at("wrong"), "guess\n");
  Client(loop, locked.url("&passwordFile=" + server.at("right"))).connect();
  const std::string right = "?timeout=5s&passwordFile=" + server.at("right");
  const std::string wrong = "?timeout=5s&passwordFile=" + server.at("wrong");
  const std::string none = "?timeout=5s";

  struct Case {
    std::string sentinels;
    std::string rest;
    const char* master;
    std::vector<std::string> texts{};
  };
  const Case cases[] = {
      {open.address(), "/leds" + none, "127.0.0.1:1001"},
      {open.address(), "/leds" + wrong, "127.0.0.1:1001"},  // it is sent only where it is asked for
      {locked.address(), "/leds" + right, "127.0.0.1:1001"},
      {locked.address(), "/leds" + none, "", {"the server wants a password; name the file"}},
      {locked.address(), "/leds" + wrong, "", {"user or password are wrong"}},
      {open.address(), "/rack" + none, "", {"no master of that name, but 'fans', 'leds'; correct the name"}},
      {empty.address(), "/leds" + none, "", {"it knows no master; write 'sentinel monitor NAME"}},
      {"127.0.0.1:" + std::to_string(port), "/leds" + none, "", {"it is a server, not a sentinel"}},
      {"127.0.0.1:1,127.0.0.1:2," + empty.address(),
       "/leds" + none,
       "",
       {"no sentinel names the master (127.0.0.1:1, 127.0.0.1:2: connection refused; ",
        " (" + empty.address() + ": it knows no master;"}},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.sentinels + each.rest);
    Asking ask(loop, "redis+sentinel://" + each.sentinels + each.rest);
    EXPECT_EQ(ask(), each.master) << ask.loss.text;
    EXPECT_EQ(ask(), each.master) << "again";
    for (const std::string& text : each.texts) EXPECT_THAT(ask.loss.text, HasSubstr(text));
    EXPECT_THAT(ask.loss.text, AllOf(Not(HasSubstr("secret")), Not(HasSubstr("guess"))));
  }
}

TEST_F(RedisSentinel, MayBeDestroyedFromWithinItsCalls) {
  struct Saboteur : Locator::Owner {
    void onAddress(const Address&) override { sentinels.reset(); }
    void onNoAddress(const Loss&) override { sentinels.reset(); }
    std::unique_ptr<Sentinels> sentinels;
  };
  const Sentinel one("sentinel monitor leds 127.0.0.1 1001 1\n");
  waitFor(loop, one);
  for (const std::string& url :
       {"redis+sentinel://" + one.address() + "/leds", "redis+sentinel://" + one.address() + "/x",
        std::string("redis+sentinel://127.0.0.1:1/x")}) {
    Saboteur saboteur;
    saboteur.sentinels = std::make_unique<Sentinels>(loop, parseUrl(url), saboteur);
    saboteur.sentinels->find();
    runUntil(loop, [&] { return !saboteur.sentinels; });
  }
}

TEST_F(RedisSentinel, AFailoverIsFound) {
  const std::uint16_t first = freePort(), second = freePort();
  const auto server = [](std::uint16_t port) {
    return "bind 127.0.0.1\nport " + std::to_string(port) + "\n";
  };
  Server master(server(first) + "repl-diskless-sync-delay 0\n");
  waitFor(loop, master);
  const Server replica(server(second) + "replicaof 127.0.0.1 " + std::to_string(first) + "\n");
  const std::string monitor = "sentinel monitor leds 127.0.0.1 " + std::to_string(first) +
                              " 2\nsentinel down-after-milliseconds leds 1000\n"
                              "sentinel failover-timeout leds 1000\n";
  const Sentinel sentinels[] = {Sentinel(monitor), Sentinel(monitor), Sentinel(monitor)};
  std::string url = "redis+sentinel://";
  for (const Sentinel& each : sentinels) {
    url += (url.ends_with('/') ? "" : ",") + each.address();
    Client client(loop, each.url());
    client.connect();
    // Their usual periods would make the test last for half a minute.
    EXPECT_EQ(client({"SENTINEL", "DEBUG", "INFO-PERIOD", "200", "PING-PERIOD", "300", "ASK-PERIOD", "100",
                      "PUBLISH-PERIOD", "100", "ELECTION-TIMEOUT", "1000"})
                  .text,
              "OK");
  }
  for (const Sentinel& each : sentinels) {
    Client client(loop, each.url());
    client.connect();
    const auto knows = [&](const char* list) { return client({"SENTINEL", list, "leds"}).list.size(); };
    runUntil(loop, [&] { return knows("REPLICAS") == 1 && knows("SENTINELS") == 2; });
  }
  Client client(loop, replica.url());
  client.connect();
  runUntil(loop, [&] { return client({"ROLE"})[3].text == "connected"; });
  Asking ask(loop, url + "/leds?timeout=5s");
  EXPECT_EQ(ask(), "127.0.0.1:" + std::to_string(first));
  ask.sentinels.proved();
  master.end(SIGKILL);
  runUntil(loop, [&] {
    const bool isFound = ask() == "127.0.0.1:" + std::to_string(second);
    if (isFound) ask.sentinels.proved();
    return isFound;
  });
  client.connect();  // sentinels end the connections to a server whose role they change
  EXPECT_EQ(client({"ROLE"})[0].text, "master");
}

}  // namespace
