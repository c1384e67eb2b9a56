// Clients that flood.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/torture/daemon.h"

namespace Torture {

// Sends the same bytes without end, and drops the answers.
class Flooder {
 public:
  Flooder(const std::string& socket, const std::string& request, bool reads = true)
      : client_(socket), bytes_(repeated(request)), reads_(reads) {}
  void act() {
    if (client_.hasEnded()) return;
    const ssize_t sent = client_.sendRaw(std::string_view(bytes_).substr(at_));
    if (sent > 0) at_ = (at_ + static_cast<std::size_t>(sent)) % bytes_.size();
    if (reads_) answers_ += client_.drop();
  }
  std::uint64_t answers() const { return answers_; }
  bool hasEnded() const { return client_.hasEnded(); }

 private:
  static std::string repeated(const std::string& request) {
    std::string all;
    while (all.size() < 16'384) all += request + "\n";
    return all;
  }
  Client client_;
  const std::string bytes_;
  const bool reads_;
  std::size_t at_ = 0;
  std::uint64_t answers_ = 0;
};

using Flooders = std::vector<std::unique_ptr<Flooder>>;

inline std::string requestOf(const char* method, const Json& parameters = Json::object()) {
  return Host::requestText(1, method, parameters.dump());
}

// 16 that send these requests in turn.
inline Flooders flooders(const std::string& socket, const std::vector<std::string>& requests) {
  Flooders flooders;
  for (std::size_t i = 0; i < 16; ++i)
    flooders.push_back(std::make_unique<Flooder>(socket, requests[i % requests.size()]));
  return flooders;
}

// Good and bad ones, among them stored writes and reads of what clientsRound stores.
inline std::vector<std::string> anything() {
  const auto write = [](const char* path) { return Json::array({put(path, kPin, {{"value", 1}})}); };
  return {requestOf("hello"),
          requestOf("read", {{"path", "some"}}),
          requestOf("write", volatileBatch(write("flood/v"))),
          requestOf("nonsense"),
          "{",
          requestOf("write", batch(write("flood/s")))};
}

// Serves a client beside 16 that flood, all in this process, and reports the processor time that the host
// takes between a request and its answer: unlike the time on the clock, it does not depend on the machine's
// load.
void serveBesideFlooders(Round& round);

}  // namespace Torture
