// The control socket's place in the file system.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/io/filelock.h"
#include "host/io/loop.h"

namespace Host {

// Listens on a Unix socket of mode 0660 while it lives, then takes the socket away. The socket of a process
// that has died is taken over; PATH.lock says who owns it.
class Listener {
 public:
  // Throws StartError where the path is too long, its folder is missing, something else stands there, or
  // another process listens there.
  Listener(Loop& loop, const std::string& path);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  const std::string& path() const { return path_; }
  // Calls `accept` for every client that connects.
  void start(std::function<void(uv_stream_t*)> accept);

 private:
  int bound() const;

  const std::string path_;
  const FileLock lock_;
  UvHandle<uv_pipe_t> pipe_;
  std::function<void(uv_stream_t*)> accept_;
};

}  // namespace Host
