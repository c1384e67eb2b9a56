// What the host tells the service manager that started it, where one did.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Host {

class ServiceManager {
 public:
  // From NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
  ServiceManager();

  // Sends one state ("READY=1"); does nothing where nobody listens.
  void tell(const std::string& state) const;
  // How often, in milliseconds, it must hear "WATCHDOG=1" for being content; nothing where it does not watch.
  std::optional<std::uint64_t> watchdogInterval() const { return watchdog_; }

 private:
  std::string socket_;
  std::optional<std::uint64_t> watchdog_;
};

}  // namespace Host
