#include "host/store/redis/connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "host/control/listener.h"
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
  EXPECT_EQ((Reply{Reply::Kind::error, 0, "ERR unknown command", {}}.refusal()), Refusal::other);
  EXPECT_EQ((Reply{Reply::Kind::error, 0, "", {}}.refusal()), Refusal::other);
}

TEST(RedisReply, HasLimits) {
  const auto errorOf = [](const std::string& bytes, std::size_t times = 1) {
    ReplyReader reader;
    for (std::size_t i = 0; i < times && reader.feed(bytes); ++i) reader.next();
    return reader.error();
  };
  const std::string deep = "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n";
  for (const std::string& bytes : {std::string("*70000\r\n"), std::string("*2\r\n*-5\r\n:1\r\n"), deep})
    EXPECT_THAT(errorOf(bytes), HasSubstr("what arrives is not a reply"));
  EXPECT_THAT(errorOf("$900000000\r\n" + std::string(1 << 20, 'x'), 70), HasSubstr("a reply is longer than"));
  EXPECT_EQ(errorOf("$5\r\nabcde\r\n", 20'000), "");
}

struct RedisConnection : ::testing::Test {
  Host::Loop loop;
};

TEST_F(RedisConnection, CarriesRequestsOfAnySizeInOrder) {
  const std::uint16_t port = RedisTest::freePort();
  Server server(RedisTest::onPort(port));
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
    EXPECT_THAT(client({"CLIENT", "INFO"}).text, HasSubstr(url == server.url() ? " db=0 " : " db=2 "));
  }
}

TEST_F(RedisConnection, SaysWhyThereIsNone) {
  using Kind = Loss::Kind;
  Server server("requirepass secret\n");
  const auto passwordIn = [&](const char* file, const std::string& content) {
    contentIs(server.at(file), content);
    return "&passwordFile=" + server.at(file);
  };
  Client client(loop, server.url(passwordIn("password", "secret\nnotes\n")));
  client.connect();
  client({"ACL", "SETUSER", "led", "on", ">pw", "~*", "+@all", "-select"});
  const std::string led = passwordIn("led", "pw\r\n");

  // Not a Redis server, or one that sends what nobody asked for.
  const char* sent = nullptr;
  Host::Listener listener(loop, server.at("impostor"));
  Host::UvHandle<uv_pipe_t> accepted;
  listener.start([&](uv_stream_t* stream) {
    accepted.reset(new uv_pipe_t);
    uv_pipe_init(loop.uv(), accepted.get(), 0);
    auto* to = reinterpret_cast<uv_stream_t*>(accepted.get());
    const uv_buf_t bytes = uv_buf_init(const_cast<char*>(sent), static_cast<unsigned>(std::strlen(sent)));
    EXPECT_EQ(uv_accept(stream, to), 0);
    EXPECT_EQ(uv_try_write(to, &bytes, 1), static_cast<int>(bytes.len));
  });
  const std::string impostor = "redis-unix:" + server.at("impostor");

  struct Case {
    std::string url;
    Kind kind;
    Refusal refusal;
    const char* text;
    const char* sent = nullptr;
  };
  const Case cases[] = {
      {"redis-unix:" + server.at("nothing"), Kind::unreachable, Refusal::none, "no such file or directory"},
      {"redis://127.0.0.1:1", Kind::unreachable, Refusal::none, "connection refused"},
      {server.url(), Kind::refused, Refusal::noAuth, "name the file that holds it with passwordFile"},
      {server.url(passwordIn("wrong", "guess")), Kind::refused, Refusal::wrongPass, "compare"},
      {server.url(led), Kind::refused, Refusal::wrongPass, "compare"},
      {server.url("&passwordFile=" + server.at("none")), Kind::password, Refusal::none, "can't be read"},
      {server.url(passwordIn("empty", "\n")), Kind::password, Refusal::none, "empty first line"},
      {server.url(passwordIn("long", std::string(600, 'x'))), Kind::password, Refusal::none,
       "than 512 bytes"},
      {impostor, Kind::invalid, Refusal::none, "what arrives is not a reply",
       "HTTP/1.1 400 Bad Request\r\n\r\n"},
      {impostor, Kind::invalid, Refusal::none, "a reply to nothing that was requested", "+PONG\r\n+PONG\r\n"},
      {impostor, Kind::refused, Refusal::other, "max number of clients",
       "-ERR max number of clients reached\r\n"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.url);
    sent = each.sent;
    Client tried(loop, each.url);
    tried.connection.open();
    runUntil(loop, [&] { return !tried.losses.empty(); });
    EXPECT_EQ(tried.losses.at(0).kind, each.kind);
    EXPECT_EQ(tried.losses[0].refusal, each.refusal);
    EXPECT_THAT(tried.losses[0].text, HasSubstr(each.text));
  }
  Client user(loop, server.url("&user=led" + led));
  user.connect();
  EXPECT_EQ(user({"SELECT", "1"}).refusal(), Refusal::noPerm);
}

TEST_F(RedisConnection, AServerThatIsStoppedOrKilledIsReachedAgain) {
  Server server;
  Client client(loop, "redis-unix:" + server.socket() + "?timeout=300ms");
  client.connect();
  server.signal(SIGSTOP);
  EXPECT_EQ(client({"PING"}).kind, Reply::Kind::null);
  client.connection.open();  // connects to a stopped server, and gets no answer
  runUntil(loop, [&] { return client.losses.size() == 2; });
  for (const Loss& loss : client.losses) {
    EXPECT_EQ(loss.kind, Loss::Kind::silent);
    EXPECT_THAT(loss.text, HasSubstr("no answer within 300 ms; the server is stopped"));
  }
  server.signal(SIGCONT);
  client.connect();
  EXPECT_EQ(client({"PING"}).text, "PONG");
  server.end(SIGKILL);
  runUntil(loop, [&] { return !client.losses.empty(); });
  EXPECT_EQ(client.losses.at(0).kind, Loss::Kind::closed);
  EXPECT_EQ(client({"PING"}).kind, Reply::Kind::null);
  server.start();
  client.connect();
  EXPECT_EQ(client({"PING"}).text, "PONG");
}

// Saboteurs: owners that end the connection from within its calls.
TEST_F(RedisConnection, MayBeDestroyedFromWithinItsCalls) {
  Server server;
  struct Saboteur : Connection::Owner {
    Saboteur(Host::Loop& loop, const std::string& url)
        : connection(new Connection(loop, parseUrl(url), *this)) {}
    // Returns whether it did.
    bool endIn(std::string_view call) {
      if (call == when) connection.reset();
      return call == when;
    }
    void onReady() override {
      if (endIn("ready")) return;
      connection->subscribe("c", [this](const Reply&) { endIn("reply"); });
      connection->request({"PING"}, [this](const Reply&) { subscribed = true; });
      connection->flush();
    }
    void onMessage(std::string_view, std::string_view) override { endIn("message"); }
    void onLost(const Loss&) override {
      if (!endIn("lost")) connection->openLater();
    }
    std::unique_ptr<Connection> connection;
    std::string_view when;
    bool subscribed = false;
  };
  Client client(loop, server.url());
  client.connect();
  for (const char* when : {"ready", "reply", "message", "lost"}) {
    Saboteur saboteur(loop, server.url());
    saboteur.when = when;
    saboteur.connection->open();
    runUntil(loop, [&] { return saboteur.subscribed || !saboteur.connection; });
    if (saboteur.when == "message") client({"PUBLISH", "c", "m"});
    if (saboteur.when == "lost") client({"CLIENT", "KILL", "TYPE", "pubsub"});
    runUntil(loop, [&] { return !saboteur.connection; });
  }
  Saboteur early(loop, server.url());
  early.connection->open();
  early.connection.reset();
  loop.runOnce();
}

}  // namespace
