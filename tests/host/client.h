// A raw client of a Unix socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

inline sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

class Client {
 public:
  explicit Client(const std::string& path) : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    const sockaddr_un address = addressOf(path);
    connected_ = ::connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~Client() { ::close(descriptor_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return connected_; }
  bool ended() const { return ended_; }

  // Sends as much as the socket accepts; returns the number of bytes.
  std::size_t send(std::string_view bytes) {
    const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN) ended_ = true;
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  // A line that has arrived; nullopt if none has yet.
  std::optional<std::string> line() {
    char bytes[65536];
    const ssize_t size = ::recv(descriptor_, bytes, sizeof bytes, 0);
    if (size > 0) arrived_.append(bytes, static_cast<std::size_t>(size));
    if (size == 0 || (size < 0 && errno != EAGAIN)) ended_ = true;
    const std::size_t end = arrived_.find('\n');
    if (end == std::string::npos) return std::nullopt;
    std::string text = arrived_.substr(0, end);
    arrived_.erase(0, end + 1);
    return text;
  }

 private:
  const int descriptor_;
  bool connected_ = false;
  bool ended_ = false;
  std::string arrived_;
};
