// The control socket: a real server and raw clients, on one thread.
#include "host/control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "client.h"
#include "folder.h"
#include "host/starterror.h"
#include "platform/warden/cagent.h"
#include "platform/zel/activity.h"

namespace {

using Host::Json;
using Statedb::Durability;
using Statedb::StoreError;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* kLeds = "hardware/led/config";
constexpr const char* kLed = "hardware/led/config/leds/Ethernet3%2F1";

// Counts its commits, and fails them while it is told to.
class TestStore : public Statedb::MemoryStore {
 public:
  int commits = 0;
  bool fails = false;

 protected:
  void commit() override {
    ++commits;
    if (fails) throw StoreError("the disk is full");
  }
};

class ControlTest : public ::testing::Test {
 protected:
  ControlTest() {
    loop.turnIs([this] {
      control->commit();
      control->send();
      return Zel::Clock::kNever;
    });
  }
  ~ControlTest() override { control.reset(); }

  // The next message for the client; null where the connection has ended without one.
  Json next(Client& client) {
    for (int rounds = 0; rounds < 100000; ++rounds) {
      if (const auto line = client.line()) return Json::parse(*line);
      if (client.ended()) return nullptr;
      loop.runOnce();
    }
    throw std::runtime_error("no message for the client");
  }
  void send(Client& client, std::string_view bytes) {
    while (!bytes.empty() && !client.ended()) {
      bytes.remove_prefix(client.send(bytes));
      loop.runOnce();
    }
  }
  static std::string request(const char* method, const Json& parameters = Json::object(), int id = 1) {
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", parameters}}.dump() + '\n';
  }
  Json call(Client& client, const char* method, const Json& parameters = Json::object()) {
    send(client, request(method, parameters));
    return next(client);
  }
  static Json putLed(const Json& setting, const char* path = kLed) {
    return {{"op", "put"},
            {"path", path},
            {"type", "Hardware::Led::LedConfig"},
            {"attributes", {{"lightSetting", setting}}}};
  }
  static Json putDir() {
    return {{"op", "put"}, {"path", kLeds}, {"type", "Hardware::Led::LedSystemConfigDir"}};
  }

  const Folder folder;
  Host::Loop loop;
  Zel::ActivityManager activity;
  TestStore store;
  Zel::Ptr<Statedb::EntityManager> manager = Zel::allocate<Statedb::EntityManager>(store);
  Host::Served served{.store = store, .manager = *manager};
  Host::Listener listener{loop, folder.at("socket")};
  std::unique_ptr<Host::Control> control = std::make_unique<Host::Control>(loop, listener, served);
};

TEST_F(ControlTest, RequestsArriveHoweverTheyAreDivided) {
  std::string bytes;
  for (int id = 0; id < 20; ++id) bytes += request(id % 2 == 0 ? "read" : "hello", Json::object(), id);
  for (const std::size_t size : {std::size_t{1}, std::size_t{7}, std::size_t{64}, bytes.size()}) {
    Client client(listener.path());
    for (std::size_t at = 0; at < bytes.size(); at += size)
      send(client, std::string_view(bytes).substr(at, size));
    for (int id = 0; id < 20; ++id) EXPECT_EQ(next(client)["id"], id) << "in pieces of " << size;
  }
}

TEST_F(ControlTest, WhatIsNoRequestIsAnsweredAndTheConnectionGoesOn) {
  const struct {
    std::string line;
    int code;
    const char* text;
  } cases[] = {
      {"{\"jsonrpc\":", -32700, "not JSON at byte"},
      {"", -32700, "not JSON"},
      {"\xff\xfe", -32700, "not JSON"},
      {std::string(100000, '['), -32700, "nested deeper than 64"},
      {"[]", -32600, "found a list, wanted one request a line"},
      {R"({"id": 1, "method": "hello"})", -32600, "'jsonrpc' must be \"2.0\""},
      {R"({"jsonrpc": "2.0", "id": {}, "method": "hello"})", -32600, "'id': found fields"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": 7})", -32600, "'method' must be a text"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "helo"})", -32601, "there are hello, read, write"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "read", "params": []})", -32602,
       "found a list, wanted fields"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "read", "params": {"path": 1}})", -32602,
       "'path': found a number"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "read", "params": {"path": "a//b"}})", -32602,
       "empty component"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "read", "params": {"pat": "a"}})", -32602,
       "'pat' is unknown; known: path"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "write"})", -32602, "'changes' is missing"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "write", "params": {"changes": [{"op": "del", "path": "a"}, {"op": "pu", "path": "a"}]}})",
       -32602, "'changes'[1]: 'op': found \"pu\""},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "unwatch", "params": {"watch": 3}})", -32602, "no watch 3"},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "trace", "params": {"levels": "Pinlamp/32"}})", 1,
       "Pinlamp/32"},
  };
  Client client(listener.path());
  for (const auto& [line, code, text] : cases) {
    send(client, line + '\n');
    const Json reply = next(client);
    EXPECT_EQ(reply["error"]["code"], code) << line.substr(0, 80);
    EXPECT_THAT(reply["error"]["message"].get<std::string>(), HasSubstr(text));
  }
  EXPECT_EQ(call(client, "hello")["result"]["protocol"], 1);
}

TEST_F(ControlTest, AMessageBeyondTheLimitEndsItsConnectionOnly) {
  Client other(listener.path());
  Client client(listener.path());
  std::string longest = request("hello");
  longest.insert(longest.size() - 1, Host::Lines::kLimit + 1 - longest.size(), ' ');
  send(client, longest);
  EXPECT_TRUE(next(client).contains("result"));
  send(client, std::string(Host::Lines::kLimit + 1, ' '));
  EXPECT_EQ(next(client)["error"]["code"], -32700);
  EXPECT_EQ(next(client), nullptr);
  EXPECT_TRUE(call(other, "hello").contains("result"));
}

TEST_F(ControlTest, AClientThatNeverReadsIsCutOffAndHoldsNobodyUp) {
  Client other(listener.path());
  Client deaf(listener.path());
  ASSERT_EQ(call(other, "status")["result"]["clients"], 2);
  const std::string requests = [] {
    std::string text;
    for (int i = 0; i < 100; ++i) text += request("types");
    return text;
  }();
  for (int i = 0; i < 1000 && !deaf.ended(); ++i) {
    send(deaf, requests);
    EXPECT_TRUE(call(other, "hello").contains("result"));
  }
  EXPECT_TRUE(deaf.ended());
  EXPECT_EQ(call(other, "status")["result"]["clients"], 1);
}

TEST_F(ControlTest, ClientsThatHangUpInTheMiddleLeaveNothingBehind) {
  {
    Client client(listener.path());
    send(client,
         request("watch") + request("write", {{"changes", {putDir()}}}) + R"({"jsonrpc": "2.0", "me)");
  }
  Client other(listener.path());
  EXPECT_EQ(call(other, "read")["result"]["entities"].size(), 1U);
  EXPECT_EQ(call(other, "status")["result"]["clients"], 1);
}

TEST_F(ControlTest, WritesOfOneRoundShareACommitAndFailTogether) {
  Client a(listener.path());
  Client b(listener.path());
  ASSERT_TRUE(call(a, "write", {{"changes", {putDir()}}}).contains("result"));
  ASSERT_TRUE(call(b, "hello").contains("result"));
  const auto writeBoth = [&] {
    store.commits = 0;
    a.send(request("write", {{"changes", {putLed({{"green", !store.fails}})}}}) +
           request("write", {{"changes", {putLed({{"red", true}}, "hardware/led/config/leds/B")}}}, 2) +
           request("hello"));
    b.send(request("write", {{"changes", {putLed({{"red", true}}, "hardware/led/config/leds/C")}}}, 3));
  };
  writeBoth();
  for (Client* client : {&a, &a, &a, &b}) EXPECT_TRUE(next(*client).contains("result"));
  EXPECT_EQ(store.commits, 1);

  const auto before = store.read("");
  store.fails = true;
  store.write({Statedb::Change::put("x", "Zel::Dir", "", {})}, Durability::stored);
  writeBoth();
  const Json first = next(a);
  EXPECT_EQ(first["error"]["code"], 2);
  EXPECT_EQ(first["error"]["message"], "the disk is full");
  EXPECT_EQ(store.read(""), before);
}

TEST_F(ControlTest, AReadSeesWhatIsDurableAndNeverWhatIsUndone) {
  Client client(listener.path());
  store.fails = true;
  send(client, request("write", {{"changes", {putDir()}}}) + request("read"));
  EXPECT_EQ(next(client)["error"]["code"], 2);
  EXPECT_EQ(next(client)["result"]["entities"], Json::array());
  store.fails = false;
  send(client, request("write", {{"changes", {putDir()}}}) + request("read"));
  EXPECT_EQ(next(client)["result"]["written"], 1);
  EXPECT_EQ(next(client)["result"]["entities"][0]["path"], kLeds);
}

TEST_F(ControlTest, ABatchIsWrittenWholeOrEveryErrorIsListed) {
  Client client(listener.path());
  const Json refused = call(client, "write",
                            {{"changes",
                              {putDir(),
                               putLed({{"green", true}}),
                               putLed({{"flashInterval", -1}}, "hardware/led/config/leds/A"),
                               putLed({{"flashInterval", "inf"}}, "hardware/led/config/leds/B"),
                               {{"op", "put"}, {"path", "hardware/led/config/leds/C"}, {"existing", true}},
                               {{"op", "put"}, {"path", "hardware/x"}},
                               {{"op", "put"}, {"path", "hardware/x/y/z"}, {"type", "Zel::Dir"}},
                               {{"op", "put"}, {"path", kLeds}, {"type", "Zel::Dir"}},
                               {{"op", "del"}, {"path", "nowhere"}}}}});
  EXPECT_EQ(refused["error"]["code"], 1);
  std::vector<std::string> places;
  for (const auto& error : refused["error"]["data"]["errors"]) {
    const std::string text = error;
    places.push_back(text.substr(0, text.find(':')));
  }
  EXPECT_THAT(places,
              ::testing::UnorderedElementsAre("hardware/led/config/leds/A lightSetting",
                                              "hardware/led/config/leds/B lightSetting",
                                              "hardware/led/config/leds/C", "hardware/x", kLeds, "nowhere"));
  EXPECT_TRUE(store.read("").empty());

  Json untyped = putLed({{"green", true}});
  untyped.erase("type");
  EXPECT_EQ(call(client, "write", {{"changes", {putDir(), untyped}}})["result"]["written"], 2);
  EXPECT_EQ(store.typeAt(kLed), "Hardware::Led::LedConfig");
}

TEST_F(ControlTest, WatchersHearOfTheirPathAndNotOfThemselvesUnlessTheyWant) {
  Client writer(listener.path());
  Client watcher(listener.path());
  ASSERT_TRUE(call(writer, "write", {{"changes", {putDir()}}}).contains("result"));
  EXPECT_EQ(call(writer, "watch", {{"own", false}})["result"]["entities"].size(), 1U);
  const Json own = call(watcher, "watch", {{"path", kLed}})["result"];
  EXPECT_EQ(own["entities"], Json::array());

  ASSERT_EQ(call(writer, "write",
                 {{"changes", {putLed({{"red", true}}, "hardware/led/config/leds/A")}}})["result"]["written"],
            1);
  ASSERT_EQ(call(writer, "write", {{"changes", {putLed({{"red", true}})}}})["result"]["written"], 1);
  const Json heard = next(watcher);
  EXPECT_EQ(heard["method"], "changed");
  EXPECT_EQ(heard["params"], (Json{{"watch", own["watch"]}, {"changes", {putLed({{"red", true}})}}}));

  send(watcher, request("write", {{"changes", {{{"op", "del"}, {"path", kLeds}}}}}));
  const Json removed = {{{"op", "del"}, {"path", kLeds}}};
  EXPECT_EQ(next(writer)["params"]["changes"], removed);
  EXPECT_EQ(next(watcher)["params"]["changes"], removed);
  EXPECT_EQ(next(watcher)["result"]["written"], 1);

  EXPECT_EQ(call(watcher, "unwatch", {{"watch", own["watch"]}})["result"], Json::object());
  ASSERT_TRUE(call(writer, "write", {{"changes", {putDir(), putLed({{"red", true}})}}}).contains("result"));
  EXPECT_TRUE(call(watcher, "hello").contains("result")) << "and no notification before it";
}

struct MountingAgent : Zel::Described<MountingAgent, Warden::CAgent> {
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::MountingAgent");
    return type;
  }
  explicit MountingAgent(Zel::Name name) : Described(name) {}
};

TEST_F(ControlTest, TheFirstEntityUnderAMountBringsARowForTheMountThatLivesOn) {
  const auto group = manager->getMountGroup(Zel::allocate<MountingAgent>(Zel::Name("agent")));
  group->doMount(Statedb::Mount(kLeds, "Hardware::Led::LedSystemConfigDir", "r"));
  group->doClose(false, "", 0.0);
  activity.step();
  activity.step();

  Client client(listener.path());
  Json untyped = putLed({{"green", true}});
  untyped.erase("type");
  ASSERT_TRUE(call(client, "write", {{"changes", {untyped}}, {"durability", "derived"}}).contains("result"));
  EXPECT_EQ(store.typeAt(kLeds), "Hardware::Led::LedSystemConfigDir");
  EXPECT_EQ(store.commits, 1) << "of a stored row";
  EXPECT_TRUE(manager->entityAt(kLed));
}

TEST(Listener, TakesOverFromTheDeadAndRefusesTheLiving) {
  const Folder folder;
  const std::string path = folder.at("socket");
  Host::Loop loop;
  const auto refusal = [&](const std::string& at) -> std::string {
    try {
      const Host::Listener listener(loop, at);
    } catch (const Host::StartError& error) {
      return error.what();
    }
    return "none";
  };
  {
    const Host::Listener first(loop, path);
    EXPECT_THAT(refusal(path),
                HasSubstr("another pinlampd (pid " + std::to_string(::getpid()) + ") is listening on"));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    std::filesystem::rename(path, folder.at("left behind"));
  }
  std::filesystem::rename(folder.at("left behind"), path);
  EXPECT_EQ(refusal(path), "none") << "nobody listens there any more";

  contentIs(folder.at("letter"), "dear");
  EXPECT_THAT(refusal(folder.at("letter")), HasSubstr("no socket stands there"));
  EXPECT_EQ(contentOf(folder.at("letter")), "dear");
  EXPECT_THAT(refusal(folder.at("no/folder")), HasSubstr("is not there"));
  EXPECT_THAT(refusal(folder.at(std::string(200, 'x'))), HasSubstr("a socket's has 1 to 107"));
}

}  // namespace
