#include "host/store/redis/sentinel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server.h"

namespace {

using namespace Host::Redis;
using RedisTest::Client;
using RedisTest::freePort;
using RedisTest::monitor;
using RedisTest::onPort;
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
  const Sentinel one(monitor(1001)), two(monitor(1002));
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
  const std::uint16_t port = freePort();
  const Server plain(onPort(port));
  const Sentinel open(monitor(1001) + "sentinel monitor fans 127.0.0.1 1002 1\n"),
      locked("requirepass secret\n" + monitor(1001)), empty("");
  for (const Server* each : std::initializer_list<const Server*>{&plain, &open, &empty}) waitFor(loop, *each);
  const auto password = [&](const char* content) {
    contentIs(plain.at(content), content);
    return "&passwordFile=" + plain.at(content);
  };
  Client(loop, locked.url(password("secret"))).connect();
  const std::string none = "?timeout=5s", right = none + password("secret"), wrong = none + password("guess");

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
  const Sentinel one(monitor(1001));
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

}  // namespace
