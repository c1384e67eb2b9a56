// Commands on a store that no host has open.
#include <gmock/gmock.h>

#include <future>

#include "ctl/appliance.h"
#include "host/store/redis/redisstore.h"
#include "host/store/sqlitestore.h"
#include "tests/ctl/testhost.h"
#include "tests/host/folder.h"
#include "tests/places.h"
#include "tests/redis/server.h"

namespace Ctl {
namespace {

using testing::HasSubstr;

const std::string kExample = Places::sourceFolder() + "/examples/switch-1u.json";

class AStateFile : public testing::Test {
 protected:
  AStateFile() { open(); }
  std::unique_ptr<Host::SqliteStore> open() const {
    return std::make_unique<Host::SqliteStore>(folder.at("db"), [](const std::string&) {});
  }
  Outcome ctl(std::vector<std::string> words) const {
    words.insert(words.begin(), {"--store", store});
    return run(std::move(words));
  }

  const Folder folder;
  const std::string store = "sqlite:" + folder.at("db");
};

TEST_F(AStateFile, IsReadAndWrittenWithoutAHost) {
  EXPECT_EQ(ctl({"load", kExample}).err, "");
  EXPECT_TRUE(ctl({"dump"}).out == contentOf(kExample));
  EXPECT_EQ(ctl({"led", "set", "Beacon", "red"}).status, 0);
  EXPECT_THAT(ctl({"led", "list", "Beacon"}).out, HasSubstr("Beacon  red"));
  EXPECT_THAT(ctl({"led", "list", "Beacon"}).err, HasSubstr("no LED agent runs"));
  EXPECT_THAT(ctl({"map", "set", "Beacon", "--red", "x"}).err, HasSubstr("--rewire"));
  EXPECT_THAT(ctl({"why", "Beacon"}).out, HasSubstr("no LED agent runs"));
  EXPECT_THAT(ctl({"watch", "--for", "0"}).status, 0);
  EXPECT_THAT(ctl({"status"}).out, testing::AllOf(HasSubstr("host      none"), HasSubstr("58 configured")));
  EXPECT_EQ(Json::parse(ctl({"status", "--json"}).out).at("host"), false);
  EXPECT_EQ(run({"complete", "--store=" + store, "led", "off", "Bea"}).out, "Beacon\n");
}

TEST_F(AStateFile, HasEntitiesOfTheTypesOfALibrary) {
  const std::vector<std::string> set{"set", "rack/fan", "rounds", "1200", "--type", "Test::Fan"};
  EXPECT_THAT(ctl(set).err, HasSubstr("'Test::Fan' is unknown"));
  auto withTypes = set;
  withTypes.insert(withTypes.begin(), {"--types", Places::testAgents()});
  EXPECT_EQ(ctl(withTypes).err, "");
  EXPECT_EQ(ctl({"get", "rack/fan", "rounds"}).out, "1200\n") << "reading needs no type";
}

TEST_F(AStateFile, ThatAHostHasOpenIsRefused) {
  const auto host = open();
  const Outcome refused = ctl({"led", "set", "Beacon", "red"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("is in use by another process"));
}

TEST_F(AStateFile, RefusesWhatNeedsAHost) {
  for (const char* command : {"trace", "object tree"}) {
    std::istringstream words(command);
    const Outcome refused = ctl({std::istream_iterator<std::string>(words), {}});
    EXPECT_EQ(refused.status, 2) << command;
    EXPECT_THAT(refused.err, HasSubstr("works on a running pinlampd"));
  }
}

TEST(AStore, ThatACommandCantUseIsRefused) {
  const Folder folder;
  const std::tuple<std::string, int, const char*> cases[] = {
      {"memory:", 2, "would end with this command"},
      {"unix:/run/x", 2, "write --socket /run/x"},
      {"paper:x", 1, "not a known form"},
      {"sqlite:" + folder.at("absent"), 1, "there is no such file"},
      {"sqlite:" + folder.at(""), 1, "is a folder"},
  };
  for (const auto& [store, status, text] : cases) {
    const Outcome refused = run({"--store", store, "led", "list"});
    EXPECT_EQ(refused.status, status) << store;
    EXPECT_THAT(refused.err, HasSubstr(text));
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder.at("")));
}

// Another process on the same server, which publishes the pins.
struct Publisher {
  explicit Publisher(const std::string& url) : store(loop, url, [](const std::string&) {}) {
    loop.turnIs([this] {
      store.flush();
      return Zel::Clock::kNever;
    });
    store.announce({.pid = 4711, .publishes = {Paths::kPins}});
    RedisTest::runUntil(loop, [&] {
      const auto claims = store.state().claims;
      return !claims.empty() && claims[0].isOwn;
    });
  }
  Outcome ctl(std::vector<std::string> words) {
    words.insert(words.begin(), {"--store", store.url()});
    auto outcome = std::async(std::launch::async, [&] { return run(std::move(words)); });
    while (outcome.wait_for(std::chrono::seconds(0)) != std::future_status::ready) loop.runOnce();
    return outcome.get();
  }

  Host::Loop loop;
  Zel::ActivityManager activity;
  Host::Redis::RedisStore store;
};

TEST(ASharedStore, IsReadAndWrittenWithoutAHostButForWhatAnotherPublishes) {
  RedisTest::Server server;
  EXPECT_EQ(run({"--store", server.url(), "--wait", "20", "load", kExample}).err, "");
  EXPECT_TRUE(run({"--store", server.url(), "dump"}).out == contentOf(kExample));

  Publisher publisher(server.url());
  EXPECT_EQ(publisher.ctl({"led", "set", "Status", "red"}).err, "");
  EXPECT_EQ(publisher.ctl({"get", ledPath("Status"), "lightSetting"}).out, "{\"red\": true}\n");
  EXPECT_THAT(publisher.ctl({"set", std::string(Paths::kPins) + "/x", "value", "1", "--type", kPinType}).err,
              HasSubstr("published by pinlampd 4711 on "));
  EXPECT_THAT(publisher.ctl({"status"}).out, HasSubstr("published by pinlampd 4711 on "));
  EXPECT_THAT(publisher.ctl({"why", "Beacon"}).out, HasSubstr("runs in pinlampd 4711 on "));
  EXPECT_EQ(publisher.ctl({"led", "list"}).err, "") << "an LED agent runs";
}

TEST(ASharedStore, ThatIsNotReachedIsRefusedWithTheReason) {
  const Folder folder;
  const Outcome refused = run({"--store", "redis-unix:" + folder.at("none"), "led", "list"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, testing::StartsWith("pinlampctl: state database redis-unix:" + folder.at("none") +
                                               ": not reached: "));
  EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
}

TEST(Claims, AreShownWithTheirHoldersWhoseRowsAreNotDumped) {
  TestHost host;
  host.put(ledPath("A"), kLedType, {{"lightSetting", {{"green", true}}}});
  host.put(mapPath("A"), kMapType, {{"gpioGreenName", {"g"}}, {"ready", true}});
  host.pinIs("g", 1);
  host.put("rack/fan", kPinType, Json::object());
  const std::string led = "pinlampd 4711 on box2";
  const std::tuple<Statedb::StoreState::Claim, const char*, const char*> cases[] = {
      {{Paths::kPins, led}, "pinlampd 4711 on box2\n", "runs in pinlampd 4711 on box2"},
      {{Paths::kPins, led, false, true},
       "nobody: pinlampd 4711 on box2 is gone, its rows stay",
       "no LED agent runs"},
      {{Paths::kPins, led, true}, "this host\n", ""},
      {{Paths::kPins}, "nobody\n", "no LED agent runs"},
  };
  for (const auto& [claim, status, why] : cases) {
    host.host.store.claims = {claim, {"rack", claim.who}};
    EXPECT_THAT(host.ctl({"status"}).out,
                HasSubstr(std::string("claims\n   hardware/corvel/gpio/config  published by ") + status));
    EXPECT_THAT(host.ctl({"why", "A"}).out, HasSubstr(why));
    EXPECT_EQ(host.ctl({"dump"}).out.find("rack/fan") != std::string::npos, claim.who.empty());
  }
}

}  // namespace
}  // namespace Ctl
