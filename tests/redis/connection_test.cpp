#include "host/store/redis/connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/un.h>

#include "server.h"

namespace {

using namespace Host::Redis;
using RedisTest::Client;
using RedisTest::runUntil;
using RedisTest::Server;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(RedisReply, IsCutFromBytesHoweverTheyAreDivided) {
  const std::string bytes = "*3\r\n$2\r\nab\r\n:-7\r\n*2\r\n$-1\r\n*1\r\n+OK\r\n-NOPERM no\r\n";
  for (std::size_t size = 1; size <= bytes.size(); ++size) {
    ReplyReader reader;
    std::vector<Reply> replies;
    for (std::size_t i = 0; i < bytes.size(); i += size) {
      ASSERT_TRUE(reader.feed(std::string_view(bytes).substr(i, size)));
      while (auto reply = reader.next()) replies.push_back(std::move(*reply));
    }
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0][0].text, "ab");
    EXPECT_EQ(replies[0][1].number, -7);
    EXPECT_EQ(replies[0][2][0].kind, Reply::Kind::null);
    EXPECT_EQ(replies[0][2][1][0].text, "OK");
    EXPECT_EQ(replies[0][2][7].kind, Reply::Kind::null);
    EXPECT_EQ(replies[1].refusal(), Refusal::noPerm);
  }
}

TEST(RedisReply, HasLimits) {
  const auto errorOf = [](const std::string& bytes, std::size_t times = 1) {
    ReplyReader reader;
    for (std::size_t i = 0; i < times && reader.feed(bytes); ++i) reader.next();
    return reader.error();
  };
  EXPECT_THAT(errorOf("HTTP/1.1 400\r\n"), HasSubstr("what arrives is not a reply"));
  EXPECT_THAT(errorOf("*70000\r\n"), HasSubstr("what arrives is not a reply"));
  EXPECT_THAT(errorOf("*2\r\n*-5\r\n:1\r\n"), HasSubstr("what arrives is not a reply"));
  std::string deep;
  for (int i = 0; i < 20; ++i) deep += "*1\r\n";
  EXPECT_THAT(errorOf(deep), HasSubstr("what arrives is not a reply"));
  EXPECT_THAT(errorOf("$900000000\r\n" + std::string(1 << 20, 'x'), 70), HasSubstr("a reply is longer than"));
  EXPECT_EQ(errorOf("$5\r\nabcde\r\n", 20'000), "");
}

TEST(RedisReply, RefusalsAreKnownByTheirFirstWord) {
  const auto refusalOf = [](const char* text) { return Reply{Reply::Kind::error, 0, text, {}}.refusal(); };
  EXPECT_EQ(refusalOf("LOADING Redis is loading the dataset in memory"), Refusal::loading);
  EXPECT_EQ(refusalOf("OOM command not allowed when used memory > 'maxmemory'."), Refusal::outOfMemory);
  EXPECT_EQ(refusalOf("ERR unknown command"), Refusal::other);
  EXPECT_EQ(refusalOf(""), Refusal::other);
}

TEST(RedisBackOff, DoublesUpToItsLongestAndVaries) {
  BackOff backOff(7);
  for (std::uint64_t expected : {50, 100, 200, 400, 800, 1600, 2000, 2000}) {
    const std::uint64_t after = backOff.next();
    EXPECT_GE(after, expected * 3 / 4);
    EXPECT_LE(after, expected * 5 / 4);
  }
  backOff.reset();
  EXPECT_LE(backOff.next(), 63U);
}

class RedisConnection : public ::testing::Test {
 protected:
  Loss lossOf(Client& client) {
    client.connection.open();
    runUntil(loop, [&] { return !client.losses.empty() || client.connection.isReady(); });
    return client.losses.empty() ? Loss{} : client.losses.back();
  }
  Host::Loop loop;
};

TEST_F(RedisConnection, CarriesRequestsOfAnySizeInOrder) {
  const std::uint16_t port = RedisTest::freePort();
  Server server({"--port", std::to_string(port), "--bind", "127.0.0.1"});
  for (const std::string& url :
       {server.url(), "redis://localhost:" + std::to_string(port) + "/2?timeout=5s"}) {
    Client client(loop, url);
    client.connect();
    const std::string big(5'000'000, 'x');
    std::vector<std::size_t> sizes;
    for (int i = 0; i < 4; ++i) {
      client.connection.request({"SET", "k", i % 2 ? "small" : big},
                                [&](const Reply&) { sizes.push_back(0); });
      client.connection.request({"GET", "k"},
                                [&](const Reply& reply) { sizes.push_back(reply.text.size()); });
    }
    client.connection.flush();
    runUntil(loop, [&] { return sizes.size() == 8; });
    EXPECT_THAT(sizes, ElementsAre(0, big.size(), 0, 5, 0, big.size(), 0, 5)) << url;
  }
}

TEST_F(RedisConnection, DeliversWhatIsPublished) {
  Server server;
  Client reader(loop, server.url()), writer(loop, server.url());
  reader.connect();
  writer.connect();
  bool subscribed = false, ponged = false;
  reader.connection.subscribe("news", [&](const Reply&) { subscribed = true; });
  reader.connection.flush();
  runUntil(loop, [&] { return subscribed; });
  writer({"PUBLISH", "news", "one"});
  reader.connection.request({"PING"}, [&](const Reply& reply) { ponged = reply[0].text == "pong"; });
  reader.connection.flush();
  writer({"PUBLISH", "news", "two"});
  runUntil(loop, [&] { return ponged && reader.messages.size() == 2; });
  EXPECT_THAT(reader.messages, ElementsAre("news one", "news two"));
}

TEST_F(RedisConnection, SaysWhyItCantConnect) {
  Server server({"--requirepass", "secret"});
  Client ready(loop, server.url("&passwordFile=" + server.at("password")));
  contentIs(server.at("password"), "secret\nnotes\n");
  ready.connect();
  ready({"ACL", "SETUSER", "led", "on", ">pw", "~*", "+@all", "-select"});
  contentIs(server.at("empty"), "\n");
  contentIs(server.at("wrong"), "guess");
  contentIs(server.at("led"), "pw\r\n");
  contentIs(server.at("long"), std::string(600, 'x'));

  struct Case {
    std::string url;
    Loss::Kind kind;
    Refusal refusal;
    const char* text;
  };
  const std::string port = std::to_string(RedisTest::freePort());
  const Case cases[] = {
      {"redis-unix:" + server.at("nothing"), Loss::Kind::unreachable, Refusal::none,
       "no such file or directory"},
      {"redis://127.0.0.1:" + port, Loss::Kind::unreachable, Refusal::none, "connection refused"},
      {server.url(), Loss::Kind::refused, Refusal::noAuth, "name the file that holds it with passwordFile"},
      {server.url("&passwordFile=" + server.at("wrong")), Loss::Kind::refused, Refusal::wrongPass, "compare"},
      {server.url("&passwordFile=" + server.at("led")), Loss::Kind::refused, Refusal::wrongPass, "compare"},
      {server.url("&user=led&passwordFile=" + server.at("none")), Loss::Kind::password, Refusal::none,
       "can't be read"},
      {server.url("&passwordFile=" + server.at("empty")), Loss::Kind::password, Refusal::none,
       "empty first line"},
      {server.url("&passwordFile=" + server.at("long")), Loss::Kind::password, Refusal::none,
       "more than 512 bytes"},
  };
  for (const Case& each : cases) {
    Client client(loop, each.url);
    const Loss loss = lossOf(client);
    EXPECT_EQ(loss.kind, each.kind) << each.url << ": " << loss.text;
    EXPECT_EQ(loss.refusal, each.refusal) << each.url << ": " << loss.text;
    EXPECT_THAT(loss.text, HasSubstr(each.text)) << each.url;
  }
  Client led(loop, server.url("&user=led&passwordFile=" + server.at("led")));
  led.connect();
  EXPECT_EQ(led({"SELECT", "1"}).refusal(), Refusal::noPerm);
}

TEST_F(RedisConnection, AStoppedServerCountsAsSilent) {
  Server server;
  Client client(loop, "redis-unix:" + server.socket() + "?timeout=300ms");
  client.connect();
  client({"SET", "k", "old"});
  server.signal(SIGSTOP);
  EXPECT_EQ(client({"GET", "k"}).kind, Reply::Kind::null);
  ASSERT_EQ(client.losses.size(), 1U);
  EXPECT_EQ(client.losses[0].kind, Loss::Kind::silent);
  EXPECT_THAT(client.losses[0].text, HasSubstr("no answer within 300 ms; the server is stopped"));
  EXPECT_EQ(lossOf(client).kind, Loss::Kind::silent) << "it connects to a stopped server, and gets no answer";
  server.signal(SIGCONT);
  client.connect();
  EXPECT_EQ(client({"PING"}).text, "PONG");
}

TEST_F(RedisConnection, AServerThatIsKilledAndComesBackIsReachedAgain) {
  Server server;
  Client client(loop, server.url());
  client.connect();
  server.end(SIGKILL);
  runUntil(loop, [&] { return !client.losses.empty(); });
  EXPECT_EQ(client.losses[0].kind, Loss::Kind::closed);
  EXPECT_EQ(client({"PING"}).kind, Reply::Kind::null);
  server.start();
  client.connect();
  EXPECT_EQ(client({"PING"}).text, "PONG");
}

// The other end is not a Redis server, or one that sends what nobody asked for.
TEST_F(RedisConnection, EndsWhereWhatArrivesIsNoReply) {
  struct Case {
    const char* sent;
    Loss::Kind kind;
    const char* text;
  };
  const Case cases[] = {
      {"HTTP/1.1 400 Bad Request\r\n\r\n", Loss::Kind::invalid, "what arrives is not a reply"},
      {"+PONG\r\n+PONG\r\n", Loss::Kind::invalid, "a reply to nothing that was requested"},
      {"-ERR max number of clients reached\r\n", Loss::Kind::refused, "max number of clients reached"},
  };
  for (const Case& each : cases) {
    const Folder folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    folder.at("s").copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    Client client(loop, "redis-unix:" + folder.at("s"));
    client.connection.open();
    const int accepted = ::accept(listener, nullptr, nullptr);
    ASSERT_EQ(::send(accepted, each.sent, std::string_view(each.sent).size(), 0),
              static_cast<ssize_t>(std::string_view(each.sent).size()));
    runUntil(loop, [&] { return !client.losses.empty(); });
    ::close(accepted);
    ::close(listener);
    ASSERT_FALSE(client.losses.empty());
    EXPECT_EQ(client.losses[0].kind, each.kind);
    EXPECT_THAT(client.losses[0].text, HasSubstr(each.text));
  }
}

// Saboteurs: owners that end the connection from within its calls.
TEST_F(RedisConnection, MayBeDestroyedFromWithinItsCalls) {
  Server server;
  struct Saboteur : Connection::Owner {
    Saboteur(Host::Loop& loop, const std::string& url)
        : connection(new Connection(loop, parseUrl(url), *this)) {}
    void end() { connection.reset(); }
    void onReady() override {
      if (when == "ready") return end();
      connection->subscribe("c", [this](const Reply&) {
        if (when == "reply") return end();
      });
      connection->request({"PING"}, [this](const Reply&) { subscribed = true; });
      connection->flush();
    }
    void onMessage(std::string_view, std::string_view) override { end(); }
    void onLost(const Loss&) override { when == "lost" ? end() : connection->openLater(); }
    std::unique_ptr<Connection> connection;
    std::string when;
    bool subscribed = false;
  };
  Client client(loop, server.url());
  client.connect();
  for (const char* when : {"ready", "reply", "message", "lost"}) {
    Saboteur saboteur(loop, server.url());
    saboteur.when = when;
    saboteur.connection->open();
    if (saboteur.when == "message" || saboteur.when == "lost") {
      runUntil(loop, [&] { return saboteur.subscribed; });
      if (saboteur.when == "lost")
        client({"CLIENT", "KILL", "TYPE", "pubsub"});
      else
        client({"PUBLISH", "c", "m"});
    }
    runUntil(loop, [&] { return !saboteur.connection; });
  }
  Saboteur early(loop, server.url());
  early.connection->open();
  early.end();
  loop.runOnce();
}

}  // namespace
