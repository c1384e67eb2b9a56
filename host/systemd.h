// Notifies the service manager that started this process, if one did.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Host {

class ServiceManager {
 public:
  // From NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID. Keeps one socket open, so that a notification needs
  // no free file descriptor. Throws StartError if there is none left for it.
  ServiceManager();
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  bool isThere() const { return descriptor_ >= 0; }
  // Sends one state ("READY=1"); does nothing without a service manager. Waits up to a second for room in
  // the manager's queue: a lost READY=1 or STOPPING=1 is never repeated.
  void notify(const std::string& state) const;
  // Sends "WATCHDOG=1", or drops it where the manager's queue is full: the next one is due soon.
  void notifyWatchdog() const;
  // Sends "STATUS=TEXT" for `systemctl status` if it differs from the last one; dropped where the queue is
  // full.
  void statusIs(const std::string& text);
  // Watchdog interval in ms; nullopt when off.
  std::optional<std::uint64_t> watchdogInterval() const { return watchdog_; }

 private:
  void send(const std::string& state, int flags) const;

  const std::string path_;
  const int descriptor_;  // -1: no service manager
  const std::optional<std::uint64_t> watchdog_;
  std::string status_{};
};

}  // namespace Host
