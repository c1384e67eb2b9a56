// The users of the example file, on a real server with real stores.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "host/store/stores.h"
#include "server.h"
#include "tests/places.h"

namespace {

using RedisTest::runUntil;
using RedisTest::Server;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using ::testing::HasSubstr;
using Kind = Statedb::Ticket::Kind;

constexpr const char* kPins = "hardware/corvel/gpio/config";

// The example, with "secret" as everybody's password.
std::string users() {
  constexpr const char* kHash = "#2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
  return std::regex_replace(contentOf(Places::sourceFolder() + "/packaging/examples/pinlamp.acl"),
                            std::regex("#[0-9a-f]{64}"), kHash);
}

struct RedisUsers : ::testing::Test {
  RedisUsers() {
    contentIs(server.at("password"), "secret");
    contentIs(server.at("acl"), users());
    server.end(SIGKILL);
    contentIs(server.at("conf"), contentOf(server.at("conf")) + "aclfile " + server.at("acl") + "\n");
    server.start();
  }
  std::unique_ptr<Statedb::Store> open(const std::string& user) {
    const std::string as = "&user=" + user + "&passwordFile=" + server.at("password");
    auto store =
        Host::makeStore(server.url(as), loop, [this](const std::string& text) { reports.push_back(text); });
    runUntil(loop, [&] { return store->state().isReached; });
    reports.clear();
    return store;
  }
  // Runs until what was written is stored or refused.
  Kind stored(Statedb::Store& store, const Change& change) {
    store.write({change}, Durability::stored);
    const Statedb::Ticket ticket = store.flush();
    runUntil(loop, [&] { return ticket.isDone(); });
    const bool isTaken = ticket.kind() == Kind::taken;
    EXPECT_THAT(ticket.failure(), isTaken ? HasSubstr("") : HasSubstr("NOPERM"));
    return ticket.kind();
  }

  Host::Loop loop;
  Server server;
  std::vector<std::string> reports;
};

Change put(const std::string& path) { return Change::put(path, "T", "x", 1); }

TEST_F(RedisUsers, WriteWhatTheirRoleNeedsAndNothingElse) {
  const std::string led = "hardware/led/config/leds/Status",
                    mapping = "hardware/gpio/config/led/gpioLeds/Status",
                    wiring = "hardware/corvel/gpio/init/sys_g", pin = std::string(kPins) + "/sys_g",
                    other = "elsewhere/x";
  struct Case {
    const char* user;
    std::vector<std::string> may, mayNot;
  };
  const Case cases[] = {
      {"admin", {led, mapping, wiring, pin, other}, {}},
      {"host", {led, mapping, wiring, pin}, {other, "hardware/x"}},
      {"line", {"hardware/corvel/gpio/status/sys_g"}, {led, mapping, wiring, pin, other}},
      {"operator", {led, mapping, wiring}, {pin, other}},
      {"monitor", {}, {led, mapping, wiring, pin, other}},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.user);
    const auto store = open(each.user);
    for (const std::string& path : each.may) {
      EXPECT_EQ(stored(*store, put(path)), Kind::taken) << path;
      EXPECT_EQ(stored(*store, Change::unset(path, "x")), Kind::taken) << path;
      EXPECT_EQ(stored(*store, Change::del(path)), Kind::taken) << path;
    }
    for (const std::string& path : each.mayNot) EXPECT_EQ(stored(*store, put(path)), Kind::failed) << path;
    EXPECT_TRUE(store->state().isReached);
    EXPECT_EQ(reports, std::vector<std::string>());
  }
}

TEST_F(RedisUsers, PublishUnderTheirMounts) {
  const auto reader = open("monitor");
  for (const auto& [user, mount] : {std::pair{"host", kPins}, {"line", "hardware/corvel/gpio/status"}}) {
    const auto store = open(user);
    store->announce({.pid = 1, .publishes = {mount}});
    const std::string path = mount + std::string("/p");
    store->write({put(path)}, Durability::volatile_);
    runUntil(loop, [&] {
      store->flush();
      return !reader->table()->typeAt(path).empty();
    });
    EXPECT_EQ(reports, std::vector<std::string>()) << user;
  }
}

TEST_F(RedisUsers, CoverLedsAsAHostAndRemoveTheCoversOfOneThatIsGone) {
  const std::string led = "hardware/led/config/leds/Status", leds = "hardware/led/config";
  const auto reader = open("monitor"), line = open("line");
  auto store = open("host");
  EXPECT_EQ(stored(*store, put(led)), Kind::taken);
  store->announce({.pid = 1, .covers = {leds}});
  store->write({Change::put(led, "T", "x", 2)}, Durability::cover);
  const auto until = [&](int value) {
    runUntil(loop, [&] {
      if (store) store->flush();
      const auto records = reader->table()->read(Statedb::Path(led));
      return !records.empty() && *records[0]->find("x") == Zel::Value(value);
    });
  };
  until(2);
  store = nullptr;
  until(1);
  EXPECT_EQ(reports, std::vector<std::string>());
}

}  // namespace
