// The lines that a host sends to another one that keeps its state there (unix:), in the order in which it
// would send them. A subscriber never sees anything that is no valid row.
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/store/unixstore.h"
#include "tests/fuzz/check.h"
#include "tests/host/client.h"

namespace {

struct Everything : Statedb::Subscriber {
  void onSnapshot(const Statedb::Records& records) override {
    for (const auto* each : records) Fuzz::check(!each->type.empty());
  }
  void onChanges(const Statedb::Changes& changes) override {
    for (const auto& each : changes) static_cast<void>(each.row.path.text());
  }
};

// The other host: takes one connection, and sends a line for each turn.
class Other {
 public:
  Other() : listening_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    ::unlink(path().c_str());
    const sockaddr_un address = addressOf(path());
    Fuzz::check(::bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    Fuzz::check(::listen(listening_, 1) == 0);
  }
  ~Other() {
    ::close(peer_);
    ::close(listening_);
  }
  Other(const Other&) = delete;
  Other& operator=(const Other&) = delete;
  static std::string path() { return FUZZ_FOLDER "/upstream-" + std::to_string(::getpid()); }

  bool accept() {
    peer_ = ::accept4(listening_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    return peer_ >= 0;
  }
  void send(std::string_view line) const {
    const std::string whole = std::string(line) + '\n';
    static_cast<void>(::send(peer_, whole.data(), whole.size(), MSG_NOSIGNAL));
  }

 private:
  const int listening_;
  int peer_ = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 65536) return 0;
  Other other;
  Host::Loop loop;
  Host::UnixStore store(loop, Other::path(), [](const std::string&) {});
  Everything everything;
  store.subscribe("", everything);
  store.write({Statedb::Change::put("out/p", "T", "x", 1)}, Statedb::Durability::volatile_, nullptr);
  store.announce({.pid = 1});
  for (int round = 0; round < 10 && !other.accept(); ++round) loop.runOnce();
  Fuzz::forEachLine({reinterpret_cast<const char*>(data), size}, [&](std::string_view line) {
    other.send(line);
    for (int round = 0; round < 2; ++round) loop.runOnce();
    store.flush();
  });
  store.unsubscribe(everything);
  return 0;
}
