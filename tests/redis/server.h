// A Redis server of a test's own: on a socket in a folder of its own, ended with the test.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "host/io/loop.h"
#include "host/rpc/json.h"
#include "host/store/redis/connection.h"
#include "host/store/redis/rows.h"
#include "tests/host/folder.h"

namespace RedisTest {

inline constexpr auto kStored = Statedb::Durability::stored, kVolatile = Statedb::Durability::volatile_,
                      kCover = Statedb::Durability::cover;

// A port of the loopback that is free at the moment.
inline std::uint16_t freePort() {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(listener, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(listener);
  return ntohs(address.sin_port);
}

// Lines of configuration: a server on this port of the loopback, and a sentinel's master "leds" there.
inline std::string onPort(std::uint16_t port) {
  return "bind 127.0.0.1\nport " + std::to_string(port) + "\n";
}
inline std::string monitor(std::uint16_t port, int quorum = 1) {
  return "sentinel monitor leds 127.0.0.1 " + std::to_string(port) + " " + std::to_string(quorum) + "\n";
}

class Server {
 public:
  // `options` are lines of the server's configuration.
  explicit Server(const std::string& options = "", const char* program = "redis-server") : program_(program) {
    contentIs(at("conf"), "port 0\nappendonly yes\nappendfsync always\nsave \"\"\nunixsocket " + socket() +
                              "\nlogfile " + at("log") + "\ndir " + at("") + "\n" + options);
    start();
  }
  ~Server() { end(SIGKILL); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string socket() const { return folder_.at("redis.sock"); }
  std::string at(const std::string& name) const { return folder_.at(name); }
  std::string url(const std::string& options = "") const {
    return "redis-unix:" + socket() + "?timeout=5s" + options;
  }

  void start() {
    const std::string conf = at("conf");
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ != 0) return;
    ::setpgid(0, 0);  // with the child that rewrites its file
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // One binary with the server, chosen by argv[0]. It is in a package that starts no service.
    if (::getppid() == parent) ::execl("/usr/bin/redis-check-rdb", program_, conf.c_str(), nullptr);
    ::_exit(127);
  }
  void restart() {
    end(SIGKILL);
    start();
  }
  void signal(int number) const { ::kill(pid_, number); }
  void end(int number) {
    if (pid_ <= 0) return;
    ::kill(-pid_, number);
    signal(number);  // where it has not got its group yet
    signal(SIGCONT);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  const Folder folder_;
  const char* const program_;
  pid_t pid_ = 0;
};

// A sentinel that watches masters on the loopback.
class Sentinel : public Server {
 public:
  // `options`: "sentinel monitor NAME 127.0.0.1 PORT QUORUM", and more.
  explicit Sentinel(const std::string& options) : Sentinel(options, freePort()) {}
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  Sentinel(const std::string& options, std::uint16_t port)
      : Server(onPort(port) + options, "redis-sentinel"), port_(port) {}

  const std::uint16_t port_;
};

// Runs a loop until something has come about, or fails the test. A busy machine takes its time.
template <class Condition>
void runUntil(Host::Loop& loop, Condition condition) {
  const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition() && std::chrono::steady_clock::now() < latest) loop.runOnce();
  EXPECT_TRUE(condition());
}

// A connection that waits for its replies.
class Client final : public Host::Redis::Connection::Owner {
 public:
  using Reply = Host::Redis::Reply;

  Client(Host::Loop& loop, const std::string& url)
      : connection(loop, Host::Redis::parseUrl(url), *this), loop_(loop) {}

  // Connects, however long the server takes to start.
  void connect() {
    again = true;
    connection.open();
    runUntil(loop_, [this] { return connection.isReady(); });
    again = false;
    losses.clear();
  }
  // Of a command without spaces in its words.
  Reply run(const std::string& command) {
    std::istringstream in(command);
    Host::Redis::Words words;
    for (std::string word; in >> word;) words.add(word);
    return (*this)(words);
  }
  // Its reply; null where the connection is lost meanwhile.
  Reply operator()(const Host::Redis::Words& words) {
    return replyTo([&](auto then) { connection.request(words, then); });
  }
  template <class Request>
  Reply replyTo(Request&& request) {
    std::optional<Reply> reply;
    request([&](const Reply& got) { reply = got; });
    connection.flush();
    runUntil(loop_, [&] { return reply || !connection.isReady(); });
    return reply.value_or(Reply());
  }

  void onReady() override {}
  void onMessage(std::string_view channel, std::string_view payload) override {
    messages.push_back(std::string(channel) + " " + std::string(payload));
  }
  void onLost(const Host::Redis::Loss& loss) override {
    losses.push_back(loss);
    if (again) connection.openLater();
  }

  bool again = false;
  std::vector<std::string> messages;
  std::vector<Host::Redis::Loss> losses;
  Host::Redis::Connection connection;

 private:
  Host::Loop& loop_;
};

// A test with a server and a connected client.
class OnServer : public ::testing::Test {
 protected:
  OnServer() { client.connect(); }

  Host::Loop loop;
  Server server;
  Client client{loop, server.url()};
};

// "PATH" with the type, and "PATH ATTRIBUTE" with the value as text; added to what was seen before.
using Seen = std::map<std::string, std::string>;
inline Seen seenIn(const Statedb::Records& records, Seen seen = {}) {
  for (const Statedb::Record* record : records) {
    seen[record->path.text()] = record->type.stdString();
    for (const Statedb::Attribute& each : record->attributes)
      seen[record->path.text() + " " + each.name.stdString()] = Host::jsonText(each.value);
  }
  return seen;
}
inline Seen seenIn(const Host::Redis::Rows& rows) { return seenIn(rows.all()); }

// The rows of a space as they stand on the server.
inline Host::Redis::Rows scan(Client& client, const Host::Redis::Keys& keys) {
  Host::Redis::Rows rows;
  for (const auto& each : client({"ZRANGE", keys.directories(), "0", "-1"}).list) {
    const auto hash = client({"HGETALL", keys.directory(each.text)});
    EXPECT_FALSE(hash.list.empty()) << "'" << each.text << "' is listed, and empty";
    for (std::size_t i = 0; i < hash.list.size(); i += 2)
      rows.scanned(Host::Redis::Directory(each.text), hash[i].text, hash[i + 1].text);
  }
  rows.endScan();
  return rows;
}

}  // namespace RedisTest
