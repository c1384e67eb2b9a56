// The connection to pinlampd: JSON-RPC 2.0 over its control socket, one message a line.
#pragma once

#include <chrono>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "ctl/refusal.h"

namespace Ctl {

using Json = nlohmann::json;

// There is no pinlampd to talk to, or there no longer is.
class ConnectionLost : public Refusal {
 public:
  // `remedy` is what a person may do about it; may be empty.
  explicit ConnectionLost(const std::string& reason, const std::string& remedy = "")
      : Refusal(reason + remedy), reason_(reason) {}
  const std::string& reason() const { return reason_; }

 private:
  std::string reason_;
};

class Client {
 public:
  // What the host takes in one message.
  static constexpr std::size_t kMessageLimit = 1 << 20;

  // Longest message taken from the host, so that an endless one cannot fill the memory.
  static constexpr std::size_t kLongestLine = std::size_t{1} << 30;

  // Throws ConnectionLost where nobody listens at `socketPath`; the text says how to start the host.
  // `patience` is how long the host may take for an answer, or to take a request.
  explicit Client(const std::string& socketPath, std::chrono::seconds patience = std::chrono::seconds(10));
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Calls a method and returns its result. Notifications that arrive meanwhile are kept. Throws Refusal with
  // the host's own lines where it refuses, ConnectionLost where it goes away or its time for an answer is
  // over.
  Json call(const std::string& method, Json parameters = Json::object());

  // The entity at a path and all under it, sorted by path.
  Json read(const std::string& path);
  // All of the changes, or none.
  void write(Json changes);
  // The paths that agents fill, of this host or of others: nobody else writes at or under them.
  std::vector<std::string> filled();
  // The types of entities that the host knows.
  Json types();
  // The names of a type's attributes; none for an unknown type.
  std::vector<std::string> attributesOf(const std::string& typeName);

  // The oldest notification that has not been taken; none where none has arrived.
  std::optional<Json> notification();
  // Takes in what has arrived. REQUIRES: the descriptor is readable, or this blocks.
  void receive();
  // To wait on.
  int descriptor() const { return descriptor_; }

 private:
  void send(const std::string& line);
  void waitReadable(std::chrono::steady_clock::time_point deadline);
  void takeLine(const std::string& line);
  [[noreturn]] void lost(const std::string& why) const;

  const std::string socketPath_;
  const std::chrono::seconds patience_;
  int descriptor_ = -1;
  int lastId_ = 0;
  std::string buffer_;
  std::deque<Json> notifications_;
  std::deque<Json> replies_;
};

}  // namespace Ctl
