#include "host/systemd.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "host/io/starterror.h"
#include "platform/zel/core/printable.h"

namespace Host {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// Half of the watchdog's timeout, in ms.
std::optional<std::uint64_t> halfOfWatchdog() {
  const std::string pid = environment("WATCHDOG_PID");
  if (!pid.empty() && pid != std::to_string(::getpid())) return std::nullopt;
  const std::uint64_t microseconds = std::strtoull(environment("WATCHDOG_USEC").c_str(), nullptr, 10);
  if (microseconds == 0) return std::nullopt;
  return std::max<std::uint64_t>(microseconds / 2000, 1);
}

int opened(const std::string& path) {
  if (path.empty() || path.size() >= sizeof sockaddr_un{}.sun_path) return -1;
  const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0)
    throw StartError("a socket to notify '" + path +
                     "' can't be opened: " + std::generic_category().message(errno));
  const timeval oneSecond{1, 0};
  ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &oneSecond, sizeof oneSecond);
  return descriptor;
}

}  // namespace

ServiceManager::ServiceManager()
    : path_(environment("NOTIFY_SOCKET")), descriptor_(opened(path_)), watchdog_(halfOfWatchdog()) {}

ServiceManager::~ServiceManager() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void ServiceManager::notify(const std::string& state) const { send(state, 0); }

void ServiceManager::notifyWatchdog() const { send("WATCHDOG=1", MSG_DONTWAIT); }

void ServiceManager::statusIs(const std::string& text) {
  if (descriptor_ < 0 || status_ == text) return;
  status_ = text;
  send("STATUS=" + Zel::printable(text), MSG_DONTWAIT);
}

void ServiceManager::send(const std::string& state, int flags) const {
  if (descriptor_ < 0) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  // An abstract name is written with an '@' in place of its leading NUL.
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_.size());
  ::sendto(descriptor_, state.data(), state.size(), MSG_NOSIGNAL | flags,
           reinterpret_cast<const sockaddr*>(&address), size);
}

}  // namespace Host
