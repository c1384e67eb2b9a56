// The listening control socket and its path.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <optional>
#include <string>

#include "host/io/fileguard.h"
#include "host/io/filelock.h"
#include "host/io/loop.h"

namespace Host {

// Owns a Unix socket of mode 0660, and unlinks it on destruction if nobody has replaced it. Replaces the
// stale socket of a process that died: the holder of the lock on PATH.lock owns the socket.
class Listener {
 public:
  // Throws StartError if the path is too long, its folder is missing, a file that is not a socket exists
  // there, or another process listens on it. Calls `report` when the socket is removed or replaced.
  using Report = std::function<void(const std::string& text)>;
  Listener(
      Loop& loop, const std::string& path, const Report& report = [](const std::string&) {});
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  const std::string& path() const { return path_; }
  // Listens, and calls `accept` for every client that connects.
  void start(std::function<void(uv_stream_t*)> accept);

 private:
  int bound() const;

  const std::string path_;
  const FileLock lock_;
  struct stat made_ {};  // the socket; a path may name another one later
  std::optional<FileGuard> guard_;
  UvHandle<uv_pipe_t> pipe_;
  std::function<void(uv_stream_t*)> accept_;
};

}  // namespace Host
