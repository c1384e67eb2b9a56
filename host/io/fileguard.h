// Notices that a file which this process has open was removed or replaced under its path.
//
//     FileGuard guard(loop, path, [](bool isThere) { if (!isThere) log("the file is gone"); });
//
// Activity thread only.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>

#include "host/io/loop.h"

namespace Host {

// Compares device and inode of the file at the path with those at the construction: when inotify reports a
// change of the file, and at most once a second when the loop is awake for another reason. A process that
// idles is not woken; inotify alone misses a folder that was renamed or mounted over.
class FileGuard {
 public:
  // `loop` must outlive it. Calls `onChange` from the loop, once for each change. A link at the path counts
  // as a file of its own. Watches nothing if there is no file at the path.
  FileGuard(Loop& loop, std::string path, std::function<void(bool isThere)> onChange);
  ~FileGuard();
  FileGuard(const FileGuard&) = delete;
  FileGuard& operator=(const FileGuard&) = delete;

 private:
  void watch(Loop& loop);
  void check();

  const std::string path_;
  const std::function<void(bool)> onChange_;
  struct stat guarded_ {};
  bool isThere_;
  std::uint64_t checked_ = 0;  // milliseconds, by the loop's clock
  int inotify_ = -1;
  UvHandle<uv_check_t> onRound_;
  UvHandle<uv_poll_t> onEvent_;
};

}  // namespace Host
