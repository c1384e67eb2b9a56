// The connection to pinlampd: JSON-RPC 2.0 over its control socket, one message per line.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/refusal.h"

namespace Ctl {

using Json = nlohmann::json;

// pinlampd can't be reached, or the connection broke.
class ConnectionLost : public Refusal {
 public:
  // `remedy` is advice for the user, appended to the reason; may be empty.
  explicit ConnectionLost(const std::string& reason, const std::string& remedy = "")
      : Refusal(reason + remedy), reason_(reason) {}
  const std::string& reason() const { return reason_; }

 private:
  std::string reason_;
};

class EntityReader;
class OwnHost;

class Client {
 public:
  // Bytes that the host accepts in one message.
  static constexpr std::size_t kMessageLimit = 1 << 20;

  class Transfer;

  // Changes as JSON text, in parts that fit into messages. A part is less than a message may be: while the
  // host carries one out, its other clients wait.
  class Batch {
   public:
    // One that is longer than a message is refused when it is written.
    void add(const std::string& change);

   private:
    friend class Client;
    friend class Transfer;
    static constexpr std::size_t kPart = std::size_t{128} << 10;  // bytes
    struct Part {
      std::string text;
      std::size_t changes = 0;
    };
    std::vector<Part> parts_;
  };

  // Bytes accepted in one message from the host; bounds memory.
  static constexpr std::size_t kLongestLine = std::size_t{1} << 30;

  // Throws ConnectionLost, with the command that starts the host, if no process listens on `socketPath`.
  // `timeout` limits the time for accepting a request and for answering it.
  explicit Client(const std::string& socketPath, std::chrono::seconds timeout = std::chrono::seconds(10));
  // Uses a connected pinlampd, which it ends by its own end. `name`: what messages call the other end.
  Client(std::unique_ptr<OwnHost> host, std::string name,
         std::chrono::seconds timeout = std::chrono::seconds(10));
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Calls a method and returns its result. Queues notifications that arrive meanwhile. Throws Refusal with
  // the host's error lines, ConnectionLost if the connection breaks or the host sends nothing for the
  // timeout.
  Json call(const char* method, const Json& parameters = Json::object());

  // The entity at a path and all under it, sorted by path.
  Json read(const std::string& path);
  // The same without covers, for what is written back; and the covers alone.
  Json readBase(const std::string& path);
  Json readCovers(const std::string& path);
  // Gives what is at and under the paths without covers to `reader`, one path after the other: the host makes
  // an answer while the one before is read. `arrived`: called with the bytes of an answer that did so far.
  void readBase(const std::vector<std::string>& paths, EntityReader& reader,
                const std::function<void(std::size_t bytes)>& arrived = {});
  // Called with the number of changes that were sent so far, and whether those are all.
  using Sent = std::function<void(std::size_t changes, bool isAll)>;
  // Applies all of the changes, or none: in one message, or in a transaction if they have several parts.
  // `sent` is called in a transaction only.
  void write(const Json& changes, const Sent& sent = {});
  void write(const Batch& batch, const Sent& sent = {});
  // The same for volatile values, which end with the process that keeps the state.
  void writeVolatile(const Json& changes);
  // The paths that agents of any host fill, see filledPaths(). Writes at and under them by others are
  // refused.
  std::vector<std::string> filled();
  // The types of entities that the host knows.
  Json types();
  // The names of a type's attributes; empty for an unknown type.
  std::vector<std::string> attributesOf(const std::string& typeName);

  // Removes and returns the oldest queued notification; nullopt if there is none.
  std::optional<Json> notification();
  // Reads what has arrived. Blocks unless the descriptor is readable.
  void receive();
  // For poll().
  int descriptor() const { return descriptor_; }

 private:
  Json readLayer(const char* layer, const std::string& path);
  void post(const char* method, const std::string& parameters);
  // The answer to the oldest request that has none.
  Json nextReply(std::chrono::seconds timeout);
  // Its result. Throws as call() does.
  Json reply(std::chrono::seconds timeout);
  void write(const Batch& batch, const std::string& durability, const Sent& sent);
  void receiveEntities(EntityReader& reader, const std::function<void(std::size_t bytes)>& arrived);
  void send(const std::string& line);
  void waitReadable(std::chrono::seconds timeout);
  void takeLine(std::string line);
  Json parsed(const std::string& line) const;
  [[noreturn]] void lost(const std::string& why) const;

  void limitWrites() const;

  const std::string name_;
  const std::chrono::seconds timeout_;
  std::unique_ptr<OwnHost> own_;
  int descriptor_ = -1;
  int lastId_ = 0;
  std::size_t unanswered_ = 0;  // requests
  std::string buffer_;
  std::deque<Json> notifications_;
  std::deque<Json> replies_;
  std::size_t unparsed_ = 0;  // lines to come that go to `lines_`; not among the unanswered
  std::deque<std::string> lines_;
};

// A transaction that is sent as its changes are made: the host reads one part while the next is made. Nothing
// is stored before commit(), and nothing at all if the connection ends before.
//
//   Client::Transfer transfer(client);
//   transfer.send(batch);  // any number of times
//   transfer.commit();
//
// The host's refusal, as Refusal, drops what was sent.
class Client::Transfer {
 public:
  explicit Transfer(Client& client, std::string durability = "", Sent onSent = {})
      : client_(client), durability_(std::move(durability)), onSent_(std::move(onSent)) {}

  void send(const Batch& batch);
  void commit();
  // Drops what was sent.
  void rollback();

 private:
  void send(const Batch::Part& part);
  template <class Step>
  void refusable(Step step);

  Client& client_;
  const std::string durability_;  // the member of the parameters
  const Sent onSent_;
  bool isBegun_ = false;
  std::size_t sent_ = 0;  // changes
};

}  // namespace Ctl
