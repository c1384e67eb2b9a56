#include "host/io/fileguard.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace Host {

namespace {

constexpr std::uint64_t kInterval = 1000;  // milliseconds

void drain(int inotify) {
  alignas(inotify_event) std::array<char, 4096> events;
  while (::read(inotify, events.data(), events.size()) > 0) {
  }
}

}  // namespace

FileGuard::FileGuard(Loop& loop, std::string path, std::function<void(bool)> onChange)
    : path_(std::move(path)),
      onChange_(std::move(onChange)),
      isThere_(::lstat(path_.c_str(), &guarded_) == 0) {
  if (isThere_) watch(loop);
}

FileGuard::~FileGuard() {
  onEvent_.reset();
  if (inotify_ >= 0) ::close(inotify_);
}

// Goes on without inotify where the user's instances are used up.
void FileGuard::watch(Loop& loop) {
  onRound_.reset(new uv_check_t);
  uv_check_init(loop.uv(), onRound_.get());
  onRound_->data = this;
  uv_check_start(onRound_.get(), [](uv_check_t* handle) {
    auto& self = *static_cast<FileGuard*>(handle->data);
    if (uv_now(handle->loop) - self.checked_ < kInterval) return;
    self.checked_ = uv_now(handle->loop);
    Loop::guard(handle->loop, [&] { self.check(); });
  });
  uv_unref(reinterpret_cast<uv_handle_t*>(onRound_.get()));
  inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  constexpr std::uint32_t kEvents = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;
  if (inotify_ < 0 || ::inotify_add_watch(inotify_, path_.c_str(), kEvents) < 0) return;
  onEvent_.reset(new uv_poll_t);
  uv_poll_init(loop.uv(), onEvent_.get(), inotify_);
  onEvent_->data = this;
  uv_poll_start(onEvent_.get(), UV_READABLE, [](uv_poll_t* handle, int, int) {
    auto& self = *static_cast<FileGuard*>(handle->data);
    drain(self.inotify_);
    Loop::guard(handle->loop, [&] { self.check(); });
  });
}

void FileGuard::check() {
  struct stat there {};
  const bool isThere = ::lstat(path_.c_str(), &there) == 0 && there.st_dev == guarded_.st_dev &&
                       there.st_ino == guarded_.st_ino;
  if (std::exchange(isThere_, isThere) != isThere) onChange_(isThere);
}

}  // namespace Host
