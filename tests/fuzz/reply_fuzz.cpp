// The lines that a host sends to pinlampctl: they are shown, or refused.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "ctl/appliance.h"
#include "ctl/configuration.h"
#include "ctl/processes.h"
#include "ctl/why.h"
#include "tests/fuzz/files.h"
#include "tests/host/client.h"

namespace {

// A socket whose next client gets these bytes, and then the end.
class Listening {
 public:
  Listening() : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = addressOf(path());
    ::unlink(address.sun_path);
    Fuzz::check(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    Fuzz::check(::listen(descriptor_, 1) == 0);
  }
  static std::string path() { return Fuzz::fileOf("reply"); }

  // The descriptor is the caller's.
  int answer(std::string_view bytes) const {
    const int peer = ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    static_cast<void>(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    ::shutdown(peer, SHUT_WR);
    return peer;
  }

 private:
  const int descriptor_;
};

// Every command that shows something reads in one of these ways.
void use(Ctl::Client& client, unsigned kind) {
  if (kind == 0) {
    const Ctl::Mirror mirror = Ctl::readAppliance(client);
    for (const auto& lamp : Ctl::lampsOf(mirror)) lamp.settingText();
    Ctl::pinsOf(mirror);
  } else if (kind == 1) {
    Ctl::LiveAppliance live(client);
    while (const auto notification = client.notification()) live.take(*notification);
  } else if (kind == 2) {
    const Ctl::Reasons reasons = Ctl::reasonsFor(client, "A");
    Ctl::because(reasons);
    Ctl::phaseText(reasons);
  } else if (kind == 3) {
    const Ctl::Json status = Ctl::wholeStatus(client);
    Ctl::filledPaths(status);
    for (const auto& claim : Ctl::claimsOf(status)) Ctl::text(claim);
  } else {
    Ctl::ConfigurationWriter writer(client.filled());
    client.readBase({""}, writer);
    writer.text();
    client.attributesOf("Hardware::Led::LedConfig");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Listening listening;
  if (size == 0 || size > 65536) return 0;
  Ctl::Client client(Listening::path(), std::chrono::seconds(1));
  const int peer = listening.answer({reinterpret_cast<const char*>(data) + 1, size - 1});
  Fuzz::refusable<Ctl::Refusal, Ctl::Json::exception>([&] { use(client, data[0] % 5); });
  ::close(peer);
  return 0;
}
