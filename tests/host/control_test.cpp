// The control socket: a real server and raw clients, on one thread.
#include "host/control/control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>

#include "controlfixture.h"
#include "host/io/starterror.h"
#include "host/plugin.h"
#include "platform/model/paths.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/core/trace.h"
#include "tests/places.h"
#include "tests/platform/storemodel.h"
#include "tests/servedstore.h"
#include "tests/support.h"

namespace {

using Host::ControlTest;
using Host::Json;
using Host::kRed;
using ::testing::HasSubstr;

TEST_F(ControlTest, RequestsMayArriveInFragmentsOfAnySize) {
  std::string bytes;
  for (int id = 0; id < 20; ++id) bytes += request(id % 2 == 0 ? "read" : "hello", Json::object(), id);
  for (const std::size_t size : {std::size_t{1}, std::size_t{7}, std::size_t{64}, bytes.size()}) {
    Client client(socket);
    for (std::size_t at = 0; at < bytes.size(); at += size)
      send(client, std::string_view(bytes).substr(at, size));
    for (int id = 0; id < 20; ++id) EXPECT_EQ(next(client)["id"], id) << "in pieces of " << size;
  }
}

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

TEST_F(ControlTest, InvalidRequestsAreAnsweredAndTheConnectionStays) {
  const Json wrongOp = {{{"op", "del"}, {"path", "a"}}, {{"op", "pu"}, {"path", "a"}}};
  Zel::TraceFacility::named("Pinlamp");
  const auto announce = [](const Json& wrong) {
    Json parameters = {{"pid", 1}, {"socket", ""}, {"agents", Json::array()}, {"publishes", Json::array()}};
    parameters.update(wrong);
    return request("announce", parameters);
  };
  const std::tuple<std::string, int, const char*> cases[] = {
      {"{\"jsonrpc\":\n", -32700, "not JSON at byte"},
      {"\n", -32700, "not JSON"},
      {"\xff\xfe\n", -32700, "not JSON"},
      {std::string(100000, '[') + '\n', -32700, "nested deeper than 64"},
      {"[]\n", -32600, "found an array of 0 requests, expected 1 to 100"},
      {'[' + repeated("1,", 100) + "1]\n", -32600, "found an array of 101 requests"},
      {"{\"id\": 1, \"method\": \"hello\"}\n", -32600, "'jsonrpc' must be \"2.0\""},
      {"{\"jsonrpc\": \"2.0\", \"id\": {}}\n", -32600, "'id': found an object"},
      {"{\"jsonrpc\": \"2.0\", \"method\": 7}\n", -32600, "'method' must be a string"},
      {request("helo"), -32601, "there are hello, read, write"},
      {request("read", Json::array()), -32602, "found an array, expected an object"},
      {request("read", {{"path", 1}}), -32602, "'path': found a whole number"},
      {request("read", {{"path", "a//b"}}), -32602, "empty component"},
      {request("read", {{"pat", "a"}}), -32602, "'pat' is unknown; known: path"},
      {request("write"), -32602, "'changes' is missing"},
      {request("write", {{"changes", wrongOp}}), -32602, "'changes'[1]: 'op': found \"pu\""},
      {request("unwatch", {{"watch", 3}}), -32602, "no watch 3"},
      {request("read", {{"path", std::string(300000, '/')}}), -32602, "is longer than 4096 bytes"},
      {request("watch", {{"path", std::string(300000, 'x')}}), -32602, "(300000 bytes)"},
      {request(std::string(300000, 'm').c_str()), -32601, "(300000 bytes)'; there are hello"},
      {request("hello", {{std::string(300000, 'p'), 1}}), -32602, "(300000 bytes)' is unknown"},
      {request("trace", {{"levels", "F123/"}}), 1, "there is no facility 'F123'; there is Pinlamp"},
      {request("trace", {{"levels", "Pinlamp/32"}}), 1, "Pinlamp/32"},
      {announce({{"pid", 0}}), -32602, "'pid': expected"},
      {announce({{"publishes", {""}}}), -32602, "'publishes': a path is empty"},
      {announce({{"publishes", std::vector<std::string>(65, "a")}}), -32602, "more than 64 entries"},
      {announce({{"ends", {"a"}}}), -32602, "'ends': 'a' is not among 'publishes'"},
      {announce({{"socket", std::string(4097, 'x')}}), -32602, "longer than 4096 bytes"},
  };
  Client client(socket);
  for (const auto& [line, code, text] : cases) {
    send(client, line);
    const Json reply = next(client);
    EXPECT_EQ(reply["error"]["code"], code) << line.substr(0, 80);
    EXPECT_THAT(reply["error"]["message"].get<std::string>(), HasSubstr(text));
    EXPECT_LT(reply.dump().size(), 1000U);
  }
  EXPECT_EQ(call(client, "hello")["result"]["protocol"], 1);
}

TEST_F(ControlTest, AnOversizedMessageClosesOnlyItsConnection) {
  Client other(socket);
  Client client(socket);
  std::string longest = request("hello");
  longest.insert(longest.size() - 1, Host::Lines::kLimit + 1 - longest.size(), ' ');
  send(client, longest);
  EXPECT_TRUE(next(client).contains("result"));
  send(client, std::string(Host::Lines::kLimit + 1, ' '));
  EXPECT_EQ(next(client)["error"]["code"], -32700);
  EXPECT_EQ(next(client), nullptr);
  EXPECT_TRUE(call(other, "hello").contains("result"));
}

TEST_F(ControlTest, AClientThatNeverReadsIsDisconnectedAndDelaysNoOther) {
  Client other(socket);
  Client silent(socket);
  ASSERT_EQ(call(other, "status")["result"]["clients"], 2);
  for (int i = 0; i < 100000 && !silent.ended(); ++i) {
    send(silent, request("types"));
    EXPECT_TRUE(call(other, "hello").contains("result"));
  }
  EXPECT_TRUE(silent.ended());
  EXPECT_EQ(call(other, "status")["result"]["clients"], 1);
}

TEST_F(ControlTest, AClientBeyondTheLimitIsRefusedUntilAnotherEnds) {
  host.listen(loop, socket, {.clients = 2});
  Client first(socket);
  std::optional<Client> second(std::in_place, socket);
  for (Client* client : {&first, &*second}) EXPECT_TRUE(call(*client, "hello").contains("result"));
  Client third(socket);
  EXPECT_THAT(next(third)["error"]["message"].get<std::string>(), HasSubstr("serves 2 clients at most"));
  EXPECT_EQ(next(third), nullptr);
  second.reset();
  EXPECT_TRUE(call(first, "hello").contains("result"));
  Client fourth(socket);
  EXPECT_TRUE(call(fourth, "hello").contains("result"));
}

TEST_F(ControlTest, TheClientThatHoldsTheMostMemoryIsDisconnectedFirst) {
  host.listen(loop, socket, {.memory = 1'000'000});
  Client large(socket);
  send(large, std::string(900'000, ' '));
  std::vector<std::unique_ptr<Client>> small;
  for (int i = 0; i < 6; ++i) {
    EXPECT_FALSE(large.line() || large.ended());
    small.push_back(std::make_unique<Client>(socket));
    send(*small.back(), std::string(190'000, ' '));
  }
  EXPECT_EQ(next(large), nullptr);
  for (const auto& client : small) EXPECT_TRUE(call(*client, "hello").contains("result"));
}

TEST_F(ControlTest, AClientWithManyRequestsLetsOthersGoFirst) {
  host.listen(loop, socket, {.round = 0});
  Client flooder(socket);
  Client other(socket);
  std::string flood;
  for (int id = 0; id < 100; ++id) flood += request("hello", Json::object(), id);
  ASSERT_EQ(flooder.send(flood), flood.size());
  EXPECT_TRUE(call(other, "hello").contains("result"));
  int answered = 0;
  while (flooder.line()) ++answered;
  EXPECT_LE(answered, 3);
  for (int id = answered; id < 100; ++id) EXPECT_EQ(next(flooder)["id"], id);
}

TEST_F(ControlTest, AClientThatUsedLittleIsServedBeforeThoseThatFlood) {
  host.listen(loop, socket, {.round = 0});  // one request a round
  std::string flood;
  for (int id = 0; id < 100; ++id) flood += request("hello", Json::object(), id);
  std::deque<Client> flooders;
  for (int i = 0; i < 16; ++i) ASSERT_EQ(flooders.emplace_back(socket).send(flood), flood.size());
  const auto answered = [&] {
    int all = 0;
    for (Client& each : flooders)
      while (each.line()) ++all;
    return all;
  };
  Client other(socket);
  for (int i = 0; i < 3; ++i) {
    for (int round = 0; round < 300; ++round) loop.runOnce();
    EXPECT_GE(answered(), 290);
    EXPECT_TRUE(call(other, "hello").contains("result"));
    EXPECT_LE(answered(), 1);
  }
}

TEST_F(ControlTest, RequestsBeforeTheEndOfInputAreExecuted) {
  host.listen(loop, socket, {.round = 0});
  {
    Client client(socket);
    for (const char* name : {"A", "B", "C"})
      client.send(request("write", {{"changes", {putDir(), putLed(name, kRed)}}}));
  }
  Client other(socket);
  for (int round = 0; round < 10; ++round) loop.runOnce();
  EXPECT_EQ(call(other, "read")["result"]["entities"].size(), 4U);
  EXPECT_EQ(call(other, "status")["result"]["clients"], 1);
}

TEST_F(ControlTest, DisconnectingDuringARequestLeavesNothingBehind) {
  {
    Client client(socket);
    send(client,
         request("watch") + request("write", {{"changes", {putDir()}}}) + R"({"jsonrpc": "2.0", "me)");
  }
  Client other(socket);
  EXPECT_EQ(call(other, "read")["result"]["entities"].size(), 1U);
  EXPECT_EQ(call(other, "status")["result"]["clients"], 1);
}

TEST_F(ControlTest, WritesOfOneRoundShareACommitAndFailTogether) {
  Client a(socket);
  Client b(socket);
  ASSERT_TRUE(write(a, {putDir()}).contains("result"));
  ASSERT_TRUE(call(b, "hello").contains("result"));
  for (const bool fails : {false, true}) {
    const auto before = StoreModel::rowsOf(store.read(""));
    store.fails = fails;
    store.commits = 0;
    const auto change = [&](const char* name) {
      return request("write", {{"changes", {putLed(name, {{"red", !fails}})}}});
    };
    a.send(change("A") + change("B") + request("hello"));
    const Json published = {{"changes", {putLed("V", {{"red", true}})}}, {"durability", "volatile"}};
    b.send(change("C") + request("write", published));
    for (Client* client : {&a, &a, &b})
      EXPECT_EQ(next(*client).value("error", Json{{"message", ""}})["message"],
                fails ? "the disk is full" : "");
    EXPECT_TRUE(next(a).contains("result")) << "a request that wrote nothing succeeds";
    EXPECT_TRUE(next(b).contains("result")) << "volatile rows need no disk";
    EXPECT_EQ(store.commits, 1);
    EXPECT_EQ(StoreModel::rowsOf(store.read("")) == before, fails);
  }
}

TEST_F(ControlTest, AnswersWaitForTheirFlushAndKeepTheOrderOfTheirConnection) {
  Client writer(socket);
  Client other(socket);
  ASSERT_TRUE(call(writer, "hello").contains("result"));
  for (const char* failure : {"", "the server refuses it"}) {
    store.outcome = std::make_shared<Statedb::Ticket::Outcome>();
    const auto outcome = store.outcome;
    writer.send(request("write", {{"changes", {putDir()}}}, 1) + request("hello", Json::object(), 2));
    EXPECT_TRUE(call(other, "hello").contains("result")) << "nobody else waits";
    EXPECT_FALSE(writer.line());
    store.outcome = nullptr;
    outcome->failure = failure;
    outcome->isDone = true;
    ASSERT_TRUE(call(other, "hello").contains("result"));
    const Json written = next(writer);
    EXPECT_EQ(written["id"], 1);
    EXPECT_EQ(written.value("error", Json{{"message", ""}})["message"], failure);
    EXPECT_EQ(next(writer)["id"], 2);
  }
}

TEST_F(ControlTest, AClientWhoseAnswersWaitIsReadUpToALimit) {
  Client writer(socket);
  store.outcome = std::make_shared<Statedb::Ticket::Outcome>();
  const auto outcome = store.outcome;
  const std::string line = request("write", {{"changes", {putDir()}}});
  std::size_t sent = 0;
  constexpr std::size_t kMuch = 20'000'000;
  for (int refused = 0; refused < 100 && sent < kMuch; loop.runOnce()) {
    const std::size_t taken = writer.send(std::string_view(line).substr(sent % line.size()));
    refused = taken == 0 ? refused + 1 : 0;
    sent += taken;
  }
  EXPECT_LT(sent, kMuch);
  store.outcome = nullptr;
  outcome->isDone = true;
  for (std::size_t i = 0; i < sent / line.size(); ++i) ASSERT_TRUE(next(writer).contains("result")) << i;
}

TEST_F(ControlTest, AReadSeesDurableWritesOnly) {
  Client client(socket);
  store.fails = true;
  send(client, request("write", {{"changes", {putDir()}}}) + request("read"));
  EXPECT_EQ(next(client)["error"]["code"], 2);
  EXPECT_EQ(next(client)["result"]["entities"], Json::array());
  store.fails = false;
  send(client, request("write", {{"changes", {putDir()}}}) + request("read"));
  EXPECT_EQ(next(client)["result"]["written"], 1);
  EXPECT_EQ(next(client)["result"]["entities"][0]["path"], Paths::kLeds);
}

// Look-ups and refused requests of clients must not grow the name tables.
TEST_F(ControlTest, RequestsThatChangeNothingInternNothing) {
  Client client(socket);
  ASSERT_TRUE(write(client, {putDir(), putLed("A", kRed)}).contains("result"));
  int last = 0;
  const auto fresh = [&] { return "fresh" + std::to_string(++last); };
  const auto freshPath = [&] { return fresh() + '/' + fresh(); };
  const auto put = [&](const std::string& path, const std::string& type,
                       const Json& attributes = Json::object()) {
    return Json{{"changes", {{{"op", "put"}, {"path", path}, {"type", type}, {"attributes", attributes}}}}};
  };
  const auto del = [&] { return Json{{{"op", "del"}, {"path", freshPath()}}}; };
  const auto object = [&](const char* operation) {
    return Json{{"operation", operation}, {"path", freshPath()}, {"arguments", {fresh()}}};
  };
  const Json pins = {{"gpioRedName", {fresh(), fresh()}}, {"ready", 7}};
  std::vector<std::pair<const char*, Json>> requests = {
      {"read", {{"path", freshPath()}}},
      {"watch", {{"path", freshPath()}}},
      {"unwatch", {{"watch", fresh()}}},
      {"trace", {{"levels", fresh() + "/3"}}},
      {"trace", {{"levels", fresh() + "/"}}},
      {"announce",
       {{"pid", 1},
        {"socket", fresh()},
        {"publishes", {freshPath()}},
        {"agents", {{{"name", fresh()}, {"library", fresh()}}}}}},
      {"hello", {{fresh(), 1}}},
      {"hello", Json::object()},
      {"status", Json::object()},
      {"types", Json::object()},
      {"object", {{"operation", "get"}, {"path", led(fresh().c_str())}}},
      {"write", put(freshPath(), fresh())},
      {"write", put(freshPath(), "Hardware::Gpio::GpioLedConfig", pins)},
      {"write", put(led("A") + '/' + freshPath(), "Zel::Dir")},
      {"write", put(led("A"), "Hardware::Led::LedConfig", {{fresh(), 1}})},
      {"write", {{"changes", del()}}},
      {"write", {{"changes", del()}, {"durability", "volatile"}}},
      {"write", {{"changes", {{{"op", fresh()}}}}, {"durability", fresh()}}},
      {"fresh method", {{"path", freshPath()}}},
  };
  for (const char* operation : {"get", "list", "tree", "iterate", "set", "delete", "invoke", "lift"})
    requests.emplace_back("object", object(operation));
  for (int round = 0; round < 2; ++round) {
    for (const auto& [method, parameters] : requests) {
      const std::size_t names = Zel::Name::count();
      const std::size_t paths = Statedb::Path::count();
      const std::size_t facilities = Zel::TraceFacility::all().size();
      call(client, method, parameters);
      EXPECT_EQ(Zel::Name::count(), names) << method << ' ' << parameters;
      EXPECT_EQ(Statedb::Path::count(), paths) << method << ' ' << parameters;
      EXPECT_EQ(Zel::TraceFacility::all().size(), facilities) << method << ' ' << parameters;
    }
  }
}

TEST_F(ControlTest, AClientHasALimitedNumberOfWatches) {
  Client watcher(socket);
  for (std::size_t i = 0; i < Host::Watches::kMost; ++i)
    ASSERT_TRUE(call(watcher, "watch", {{"path", "yet/to/come"}, {"own", i % 2 == 0}}).contains("result"));
  EXPECT_THAT(call(watcher, "watch")["error"]["message"].get<std::string>(), HasSubstr("has 256 watches"));
  ASSERT_TRUE(call(watcher, "unwatch", {{"watch", 1}}).contains("result"));
  EXPECT_TRUE(call(watcher, "watch").contains("result"));
}

TEST_F(ControlTest, WatchesReportTheirPathAndOwnWritesOnlyOnRequest) {
  Client writer(socket);
  Client watcher(socket);
  ASSERT_TRUE(write(writer, {putDir()}).contains("result"));
  EXPECT_EQ(call(writer, "watch", {{"own", false}})["result"]["entities"].size(), 1U);
  const Json own = call(watcher, "watch", {{"path", led("B")}})["result"];
  EXPECT_EQ(own["entities"], Json::array());

  ASSERT_EQ(write(writer, {putLed("A", kRed)})["result"]["written"], 1);
  ASSERT_EQ(write(writer, {putLed("B", kRed)})["result"]["written"], 1);
  Json change = putLed("B", kRed);
  change["type"] = "Hardware::Led::LedConfig";
  const Json notification = next(watcher);
  EXPECT_EQ(notification["method"], "changed");
  EXPECT_EQ(notification["params"], (Json{{"watch", own["watch"]}, {"changes", {change}}}));

  const Json removed = {{{"op", "del"}, {"path", Paths::kLeds}}};
  send(watcher, request("write", {{"changes", removed}}));
  EXPECT_EQ(next(writer)["params"]["changes"], removed);
  const Json removedHere = {{{"op", "del"}, {"path", led("B")}}};
  EXPECT_EQ(next(watcher)["params"]["changes"], removedHere);
  EXPECT_EQ(next(watcher)["result"]["written"], 1);

  EXPECT_EQ(call(watcher, "unwatch", {{"watch", own["watch"]}})["result"], Json::object());
  ASSERT_TRUE(write(writer, {putDir(), putLed("B", kRed)}).contains("result"));
  EXPECT_TRUE(call(watcher, "hello").contains("result")) << "and no notification before it";
}

TEST_F(ControlTest, TheFirstEntityUnderAMountStoresARowForTheMount) {
  Host::Plugin plugin(Host::AgentOption::parse(Places::testAgents() + ":Plain"));
  plugin.start(host.manager);
  for (int pass = 0; pass < 3; ++pass) activity.step();
  Client client(socket);
  const Json ofProcess = {{"changes", {putLed("A", kRed)}}, {"durability", "volatile"}};
  ASSERT_TRUE(call(client, "write", ofProcess).contains("result"));
  EXPECT_EQ(store.typeAt(Paths::kLeds), "Hardware::Led::LedSystemConfigDir");
  EXPECT_EQ(store.stored, 1U) << "the mount's row alone";
  EXPECT_TRUE(host.manager->entityAt(led("A")));
}

TEST_F(ControlTest, AProcessOwnsThePathsItFillsWhileConnected) {
  const std::string self = std::to_string(::getpid());
  const std::string pins = "hardware/corvel/gpio/config";
  const auto announcement = [](const Json& publishes) {
    Json made = Json::parse(R"({"pid": 7, "socket": "/led", "agents": [{"name": "a", "library": "l"}]})");
    made["publishes"] = publishes;
    return made;
  };
  const auto refusal = [](const Json& reply) { return reply["error"]["message"].get<std::string>(); };
  const auto put = [](const std::string& path, const char* type) {
    return Json{{"op", "put"}, {"path", path}, {"type", type}};
  };
  const Json pin = put(pins + "/g", "Hardware::Gpio::CorvelPinConfig");
  const auto del = [](const char* path) { return Json{{"op", "del"}, {"path", path}}; };
  Client other(socket);
  {
    Client led(socket);
    ASSERT_EQ(call(led, "announce", announcement({pins}))["result"], Json::object());
    ASSERT_TRUE(write(led, {put("hardware", "Zel::Dir"), pin}).contains("result"));
    const Json status = call(other, "status")["result"];
    EXPECT_EQ(status["types"]["Hardware::Gpio::CorvelPinConfig"]["entities"], 1) << "whoever has the object";
    const Json& processes = status["processes"];
    Json listed = announcement({pins});
    listed["pid"] = ::getpid();
    EXPECT_EQ(processes, Json::array({listed})) << "the pid is the kernel's, not the announced one";

    const std::pair<Json, std::string> refused[] = {
        {put(pins + "/g", "Zel::Dir"),
         "is under 'hardware/corvel/gpio/config', which process " + self + " ('/led') publishes"},
        {put(pins, "Zel::Dir"), "is under"},
        {pin, "is under"},
        {del((pins + "/g").c_str()), "is under"},
        {del("hardware"), "holds 'hardware/corvel/gpio/config'"},
        {put("hardware/corvel", "Hardware::Led::LedSystemConfigDir"), "put a Zel::Dir there"},
    };
    for (const auto& [change, why] : refused)
      EXPECT_THAT(refusal(write(other, {change})), HasSubstr(why)) << change;
    for (const char* path :
         {"hardware/corvel", "hardware/corvel/gpio/config", "hardware/corvel/gpio/config/g"})
      EXPECT_THAT(refusal(call(other, "announce", announcement({"x", path}))), HasSubstr("process " + self));
    EXPECT_TRUE(write(other, {put("hardware/corvel/gpio/config2", "Zel::Dir")}).contains("result"));
    EXPECT_TRUE(call(other, "announce", announcement({"x"})).contains("result"))
        << "a refused announcement has no effect";
    EXPECT_TRUE(write(led, {del((pins + "/g").c_str())}).contains("result"));
  }
  ASSERT_TRUE(call(other, "hello").contains("result"));  // by now the loop has seen the connection end
  ASSERT_EQ(call(other, "status")["result"]["processes"].size(), 1U);
  EXPECT_TRUE(write(other, {pin}).contains("result"));
}

TEST_F(ControlTest, VolatileRowsStayWithoutTheirProcessWhereItDidNotAnnounceThatTheyEnd) {
  const auto put = [](const char* path) {
    return Json{{"op", "put"}, {"path", path}, {"type", "Hardware::Gpio::CorvelPinConfig"}};
  };
  Client other(socket), watching(socket);
  ASSERT_TRUE(write(other, {put("facts/stored")}).contains("result"));
  ASSERT_TRUE(call(watching, "watch", {{"path", "facts"}}).contains("result"));
  const auto announcement = [](const Json& publishes, const Json& ends) {
    return Json{
        {"pid", 7}, {"socket", "/f"}, {"agents", Json::array()}, {"publishes", publishes}, {"ends", ends}};
  };
  const auto there = [&] {
    std::vector<std::string> paths;
    const Json read = call(other, "read");
    for (const Json& each : read["result"]["entities"]) paths.push_back(each["path"]);
    return paths;
  };
  {
    Client facts(socket);
    ASSERT_TRUE(
        call(facts, "announce", announcement({"facts", "old", "pins"}, {"facts", "old"})).contains("result"));
    const Json rows = {put("facts/link"), put("facts/stored"), put("old/g"), put("pins/g")};
    ASSERT_TRUE(call(facts, "write", {{"changes", rows}, {"durability", "volatile"}}).contains("result"));
    EXPECT_THAT(there(), testing::ElementsAre("facts/link", "facts/stored", "old/g", "pins/g"));
    ASSERT_TRUE(call(facts, "announce", announcement({"facts", "pins"}, {"facts"})).contains("result"));
    EXPECT_THAT(there(), testing::ElementsAre("facts/link", "facts/stored", "pins/g"));
    EXPECT_EQ(next(watching)["params"]["changes"][0]["op"], "put");
  }
  EXPECT_EQ(next(watching)["params"]["changes"], Json::parse(R"([{"op": "del", "path": "facts/link"}])"));
  EXPECT_THAT(there(), testing::ElementsAre("facts/stored", "pins/g"));
}

TEST_F(ControlTest, CoversEndWithTheConnectionThatAnnouncedThem) {
  const auto announcement = [](const Json& publishes, const Json& covers) {
    return Json{{"pid", 7},
                {"socket", "/p"},
                {"agents", Json::array()},
                {"publishes", publishes},
                {"covers", covers}};
  };
  const auto refusal = [](const Json& reply) { return reply["error"]["message"].get<std::string>(); };
  Client other(socket);
  const auto settingIn = [&](const char* layer) {
    const Json read = call(other, "read", {{"path", led("A")}, {"layer", layer}})["result"]["entities"];
    return read.empty() ? Json() : read[0]["attributes"]["lightSetting"];
  };
  const Json green = {{"green", true}};
  ASSERT_TRUE(write(other, {putDir(), putLed("A", kRed)}).contains("result"));
  {
    Client policy(socket);
    const auto cover = [&](const Json& change) {
      return call(policy, "write", {{"changes", {change}}, {"durability", "cover"}});
    };
    EXPECT_THAT(refusal(cover(putLed("A", green))),
                HasSubstr("is not under a path that this process announced to cover"));
    ASSERT_TRUE(call(policy, "announce", announcement(Json::array(), Json::array({Paths::kLeds})))
                    .contains("result"));
    for (const std::string& path : {std::string(Paths::kLeds), std::string("hardware"), led("A")}) {
      EXPECT_THAT(refusal(call(other, "announce", announcement(Json::array(), Json::array({path})))),
                  HasSubstr("('/p') covers; nobody else publishes or covers there"));
      EXPECT_THAT(refusal(call(other, "announce", announcement(Json::array({path}), Json::array()))),
                  HasSubstr("covers"));
    }
    EXPECT_TRUE(cover(putLed("A", green)).contains("result"));
    Json unborn = putLed("B", green);
    unborn["type"] = "Hardware::Led::LedConfig";
    EXPECT_TRUE(cover(unborn).contains("result"));
    EXPECT_THAT(refusal(cover(putLed("A", 7))), HasSubstr("lightSetting"));
    EXPECT_EQ(settingIn("effective"), green);
    EXPECT_EQ(settingIn("base"), kRed);
    EXPECT_EQ(settingIn("covers"), green);
    const std::size_t stored = store.stored;
    EXPECT_TRUE(write(other, {putLed("A", {{"yellow", true}})}).contains("result")) << "others may write";
    EXPECT_EQ(store.stored, stored + 1);
    EXPECT_EQ(settingIn("effective"), green);
    ASSERT_TRUE(call(other, "watch", {{"path", led("A")}}).contains("result"));
  }
  const Json revealed = next(other);
  EXPECT_EQ(revealed["params"]["changes"][0]["attributes"], (Json{{"lightSetting", {{"yellow", true}}}}));
  EXPECT_EQ(settingIn("covers"), Json());
  EXPECT_TRUE(
      call(other, "announce", announcement(Json::array(), Json::array({"hardware"}))).contains("result"));
  EXPECT_THAT(refusal(call(other, "read", {{"layer", "top"}})), HasSubstr("expected \"effective\""));
}

TEST(Listener, ReplacesAStaleSocketAndRefusesALiveOne) {
  const Folder folder;
  const std::string path = folder.at("socket");
  Host::Loop loop;
  const auto refusal = [&](const std::string& at) {
    return Support::errorOf<Host::StartError>([&] { return Host::Listener(loop, at).path(); });
  };
  {
    const Host::Listener first(loop, path);
    EXPECT_THAT(refusal(path),
                HasSubstr("another pinlampd (pid " + std::to_string(::getpid()) + ") is listening on"));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    std::filesystem::rename(path, folder.at("left behind"));
    contentIs(path, "of another process");
  }
  EXPECT_EQ(contentOf(path), "of another process");
  std::filesystem::rename(folder.at("left behind"), path);
  EXPECT_EQ(refusal(path), "none") << "the socket is stale";

  contentIs(folder.at("letter"), "dear");
  EXPECT_THAT(refusal(folder.at("letter")), HasSubstr("exists and is not a socket"));
  EXPECT_EQ(contentOf(folder.at("letter")), "dear");
  EXPECT_THAT(refusal(folder.at("no/folder")), HasSubstr("does not exist"));
  EXPECT_THAT(refusal(folder.at(std::string(200, 'x'))), HasSubstr("a socket's path has 1 to 107"));
}

}  // namespace
