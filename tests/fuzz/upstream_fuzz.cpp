// The lines that a host sends to another one that keeps its state there (unix:), in the order in which it
// would send them. A subscriber never sees anything that is no valid row.
#include <cstdint>
#include <string>
#include <string_view>

#include "host/store/unixstore.h"
#include "tests/fuzz/files.h"
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

// The other host: takes a connection for each execution, and sends a line for each turn.
class Other {
 public:
  Other() {
    ::unlink(path_.c_str());
    const sockaddr_un address = addressOf(path_);
    Fuzz::check(::bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    Fuzz::check(::listen(listening_, 1) == 0);
  }
  const std::string& path() const { return path_; }

  bool accept() {
    peer_ = ::accept4(listening_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    return peer_ >= 0;
  }
  void send(std::string_view line) const {
    const std::string whole = std::string(line) + '\n';
    static_cast<void>(::send(peer_, whole.data(), whole.size(), MSG_NOSIGNAL));
  }
  // Also of the connections that a store made after it had lost the first.
  void close() {
    do ::close(peer_);
    while (accept());
  }

 private:
  const std::string path_ = Fuzz::fileOf("upstream");
  const int listening_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int peer_ = -1;
};

void run(Host::Loop& loop, Other& other, std::string_view lines) {
  Host::UnixStore store(loop, other.path(), [](const std::string&) {});
  Everything everything;
  store.subscribe("", everything);
  store.write({Statedb::Change::put("out/p", "T", "x", 1)}, Statedb::Durability::volatile_, nullptr);
  store.announce({.pid = 1});
  for (int round = 0; round < 10 && !other.accept(); ++round) loop.runOnce();
  Fuzz::forEachLine(lines, [&](std::string_view line) {
    other.send(line);
    for (int round = 0; round < 2; ++round) loop.runOnce();
    store.flush();
  });
  store.unsubscribe(everything);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 65536) return 0;
  static Host::Loop& loop = *new Host::Loop;
  static Other& other = *new Other;
  run(loop, other, {reinterpret_cast<const char*>(data), size});
  other.close();
  loop.runOnce();  // frees what was closed
  return 0;
}
