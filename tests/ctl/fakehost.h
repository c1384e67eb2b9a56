// A host that keeps entities and speaks the control socket's protocol, without agents, types or a loop of its
// own.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ctl/client.h"
#include "tests/host/folder.h"

namespace Ctl {

class FakeHost {
 public:
  FakeHost();
  ~FakeHost();
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  const std::string& socket() const { return socket_; }

  // Stores an entity and notifies its watchers.
  void put(const std::string& path, const std::string& type, const Json& attributes);
  // An entity's attributes; null if there is none.
  Json attributes(const std::string& path) const;
  std::size_t size() const;
  // Refuses the next write with these lines.
  void refuse(std::vector<std::string> lines);
  // Called with each method's name before it is answered; may put.
  std::function<void(const std::string& method)> onCall;
  std::function<void(const Json& changes)> onWrite;
  // Returns the results of methods that it does not implement.
  std::function<Json(const std::string& method, const Json& parameters)> answers;

 private:
  void serve();
  void serveConnection(int connection);
  Json answer(const std::string& method, const Json& parameters);
  Json read(const std::string& path) const;
  Json write(const Json& changes);
  void store(const Json& change);

  const Folder folder_;
  const std::string socket_ = folder_.at("control.sock");
  int listener_ = -1;
  mutable std::recursive_mutex lock_;  // everything below
  std::map<std::string, Json> entities_;
  std::vector<std::string> refusal_;
  std::vector<std::string> watches_;
  int connection_ = -1;
  std::thread thread_;
};

// The outcome of one run of pinlampctl.
struct Outcome {
  int status = 0;
  std::string out;
  std::string err;
};
Outcome run(std::vector<std::string> arguments);
// The same against a host.
Outcome run(const FakeHost& host, std::vector<std::string> arguments);

}  // namespace Ctl
