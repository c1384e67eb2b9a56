#include "host/io/traceoutput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

#include "host/io/starterror.h"

namespace Host {

namespace {

mode_t typeOf(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

bool isPipe(const std::string& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

}  // namespace

// A pipe is opened for reading too: else it can't be opened before its reader, and breaks when that goes.
TraceOutput TraceOutput::appendingTo(const std::string& file) {
  const int access = isPipe(file) ? O_RDWR : O_WRONLY;
  const int descriptor =
      ::open(file.c_str(), access | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600);
  if (descriptor < 0)
    throw StartError("trace file '" + file + "' can't be opened: " + std::generic_category().message(errno));
  return {descriptor, Kind::nonBlocking, true};
}

// O_NONBLOCK belongs to the open file, which other processes may share, so a pipe or terminal is opened once
// more where that is permitted. A regular file never blocks for a reader, and keeps its offset.
TraceOutput TraceOutput::sharing(int descriptor) {
  const mode_t type = typeOf(descriptor);
  if (type == S_IFSOCK) return {descriptor, Kind::socket, false};
  if (type == S_IFREG) return {descriptor, Kind::nonBlocking, false};
  const std::string self = "/proc/self/fd/" + std::to_string(descriptor);
  const int own = ::open(self.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (own < 0) return {descriptor, Kind::blocking, false};
  return {own, Kind::nonBlocking, true};
}

TraceOutput& TraceOutput::standardError() {
  static TraceOutput& output = *new TraceOutput(sharing(STDERR_FILENO));
  return output;
}

TraceOutput::TraceOutput(TraceOutput&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), kind_(other.kind_), isOwn_(other.isOwn_) {}

TraceOutput::~TraceOutput() {
  if (isOwn_ && descriptor_ >= 0) ::close(descriptor_);
}

// A pipe that polls as writable takes PIPE_BUF bytes without blocking.
long TraceOutput::put() {
  if (kind_ == Kind::socket)
    return ::send(descriptor_, pending_.data(), pending_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (kind_ == Kind::nonBlocking) return ::write(descriptor_, pending_.data(), pending_.size());
  pollfd ready{descriptor_, POLLOUT, 0};
  if (::poll(&ready, 1, 0) > 0)
    return ::write(descriptor_, pending_.data(), std::min<std::size_t>(pending_.size(), PIPE_BUF));
  errno = EAGAIN;
  return -1;
}

TraceOutput::Outcome TraceOutput::drain() {
  while (!pending_.empty()) {
    const long written = put();
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN) return Outcome::full;
    if (written <= 0) return pending_.clear(), Outcome::failed;
    pending_.erase(0, static_cast<std::size_t>(written));
  }
  return Outcome::written;
}

void TraceOutput::reportDropped() {
  const std::size_t dropped = std::exchange(dropped_, 0);
  pending_ = "lines dropped here: " + std::to_string(dropped) + "; they could not be written\n";
  if (drain() == Outcome::failed) dropped_ = dropped;
}

void TraceOutput::write(std::string_view record) {
  const std::lock_guard lock(mutex_);
  if (drain() == Outcome::written && dropped_ > 0) reportDropped();
  if (!pending_.empty()) {
    ++dropped_;
    return;
  }
  pending_ = std::string(record) + '\n';
  if (drain() == Outcome::failed) ++dropped_;
}

}  // namespace Host
