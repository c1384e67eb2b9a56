// The path of the control socket where neither the command line nor PINLAMP_SOCKET gives one. Shared by
// pinlampd and pinlampctl, so that they find each other.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace Host {

inline constexpr char kSystemSocket[] = "/run/pinlamp/control.sock";
inline constexpr char kSocketVariable[] = "PINLAMP_SOCKET";

// The user's own socket, in $XDG_RUNTIME_DIR; empty for root, and where there is no such folder.
inline std::string userSocket() {
  const char* folder = std::getenv("XDG_RUNTIME_DIR");
  if (::geteuid() == 0 || !folder || *folder != '/') return {};
  return std::string(folder) + "/pinlamp.sock";
}

// The socket that a host takes: the user's own, or else the system's.
inline std::string hostSocket() {
  const std::string own = userSocket();
  return own.empty() ? kSystemSocket : own;
}

// The socket that a client connects to: the user's own if a host made it or if there is none of the system,
// or else the system's.
inline std::string clientSocket() {
  const std::string own = userSocket();
  const bool useOwn =
      !own.empty() && (::access(own.c_str(), F_OK) == 0 || ::access(kSystemSocket, F_OK) != 0);
  return useOwn ? own : kSystemSocket;
}

}  // namespace Host
