// A pinlampd as a process of its own, and clients of its control socket.
#pragma once

#include <sys/types.h>

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/rpc/rpc.h"
#include "tests/torture/scene.h"

namespace Torture {

using Host::Json;

// A file of the build that this program is from: "bin/pinlampd".
std::string built(const std::string& file);

// A running pinlampd with a control socket in the round's folder; killed by the destructor. Its standard
// error is appended to a file there.
class Daemon {
 public:
  struct Surroundings {
    std::map<std::string, std::string> environment{};
    unsigned long descriptors = 0;  // RLIMIT_NOFILE; 0: as it is
  };
  // `name` is that of its socket and log in the folder.
  Daemon(const Round& round, const std::string& name, std::vector<std::string> arguments)
      : Daemon(round, name, std::move(arguments), Surroundings()) {}
  Daemon(const Round& round, const std::string& name, std::vector<std::string> arguments,
         const Surroundings& surroundings);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const std::string& socket() const { return socket_; }
  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // Ends it as by kill -9, and waits for its end.
  void kill();
  // Its exit status, waiting for at most so long; nullopt if it runs. Throws Failure if a signal ended it.
  std::optional<int> status(double seconds);
  // Waits until it answers. Throws Failure if it ends or takes 20 s.
  void waitReady();
  // SIGTERM. Throws Failure unless it exits with 0.
  void stop();
  // The end of its log.
  std::string log() const;
  // Bytes of memory.
  std::uint64_t memory() const;

 private:
  const std::string name_, socket_, log_;
  pid_t pid_;
};

// The other side has ended the connection, or does not answer in time.
class Lost : public Failure {
 public:
  using Failure::Failure;
};

class Client {
 public:
  // Throws Lost if nobody listens.
  explicit Client(const std::string& socket);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Bytes as they are, as many as the socket accepts at once; returns their number. -1: the connection ended.
  ssize_t sendRaw(std::string_view bytes);
  // A request; returns its id. Waits while the socket is full. Does nothing where the connection has ended.
  std::int64_t send(const char* method, const Json& parameters = Json::object());
  // The next message, an answer or a notification; nullopt if none arrives in time or the connection ended.
  std::optional<Json> next(double seconds);
  // Drops everything that has arrived. Returns the number of messages.
  std::size_t drop();
  bool hasEnded() const { return ended_; }
  // Waits for the answer, for 20 s; drops what arrives before it. Throws Lost.
  Json answer(const char* method, const Json& parameters = Json::object());
  // The result. Throws Failure for an error.
  Json call(const char* method, const Json& parameters = Json::object());
  // Entities at and under a path: their attributes, by path, with the type as attribute "".
  std::map<std::string, std::map<std::string, Json>> rows(const std::string& path);

  int descriptor() const { return descriptor_; }

 private:
  bool receive(double seconds);

  const int descriptor_;
  std::int64_t lastId_ = 0;
  bool ended_ = false;
  std::string arrived_;
  std::size_t begin_ = 0;  // of what was not read yet
};

using Rows = std::map<std::string, std::map<std::string, Json>>;
Rows rowsOf(const Json& entities);

Json put(const std::string& path, const char* type, Json attributes = Json::object());
Json del(const std::string& path);
inline Json batch(Json changes) { return {{"changes", std::move(changes)}}; }
inline Json volatileBatch(Json changes) {
  return {{"changes", std::move(changes)}, {"durability", "volatile"}};
}

inline constexpr const char* kPin = "Hardware::Gpio::CorvelPinConfig";
inline constexpr const char* kText = "Hardware::Gpio::GpioLineStatus";

}  // namespace Torture
