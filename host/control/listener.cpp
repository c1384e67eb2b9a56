#include "host/control/listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "host/io/starterror.h"

namespace Host {

namespace {

constexpr int kBacklog = 64;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw StartError("control socket '" + path + "': " + why);
}
[[noreturn]] void refuseErrno(const std::string& path) {
  refuse(path, std::generic_category().message(errno));
}
[[noreturn]] void refuseLive(const std::string& path, const std::string& holder) {
  throw StartError("another pinlampd" + holder + " is listening on '" + path +
                   "'; stop it, or give this one a --socket of its own");
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    refuse(path, "the path has " + std::to_string(path.size()) + " bytes; a socket's path has 1 to " +
                     std::to_string(sizeof address.sun_path - 1));
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

FileLock lockFor(const std::string& path) {
  addressOf(path);
  const auto folder = std::filesystem::path(path).parent_path();
  std::error_code ignored;
  if (!folder.empty() && !std::filesystem::is_directory(folder, ignored))
    refuse(path, "the folder '" + folder.string() +
                     "' does not exist; create it as root, or give another path, such as --socket "
                     "./pinlamp.sock, here "
                     "and to pinlampctl (or set PINLAMP_SOCKET for both)");
  const std::string lockFile = path + ".lock";
  try {
    if (auto lock = FileLock::tryTake(lockFile)) return std::move(*lock);
  } catch (const std::system_error& error) {
    refuse(path, "'" + lockFile + "' can't be opened: " + error.code().message());
  }
  refuseLive(path, FileLock::holderText(lockFile));
}

int newSocket(const std::string& path) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) refuseErrno(path);
  return descriptor;
}

bool isListening(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  const int descriptor = newSocket(path);
  const int result = ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const bool refused = result != 0 && errno == ECONNREFUSED;
  ::close(descriptor);
  return !refused;
}

void removeStaleSocket(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode)) refuse(path, "exists and is not a socket; remove it or give another path");
  if (isListening(path)) refuseLive(path, "");
  ::unlink(path.c_str());
}

}  // namespace

Listener::Listener(Loop& loop, const std::string& path, const Report& report)
    : path_(path), lock_(lockFor(path)) {
  removeStaleSocket(path);
  const int descriptor = bound();
  static_cast<void>(::lstat(path.c_str(), &made_));
  pipe_.reset(new uv_pipe_t);
  uv_pipe_init(loop.uv(), pipe_.get(), 0);
  pipe_->data = this;
  uv_pipe_open(pipe_.get(), descriptor);
  guard_.emplace(loop, path, [path, report](bool isThere) {
    report("control socket '" + path + "': " +
           (isThere ? "is back" : "was removed or replaced; no new client reaches this host, restart it"));
  });
}

Listener::~Listener() {
  guard_.reset();
  struct stat there {};
  const bool isOwn =
      ::lstat(path_.c_str(), &there) == 0 && there.st_dev == made_.st_dev && there.st_ino == made_.st_ino;
  if (isOwn) ::unlink(path_.c_str());
}

int Listener::bound() const {
  const sockaddr_un address = addressOf(path_);
  const int descriptor = newSocket(path_);
  const mode_t before = ::umask(0117);
  const int result = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ::umask(before);
  if (result == 0) return descriptor;
  const int error = errno;
  ::close(descriptor);
  errno = error;
  refuseErrno(path_);
}

void Listener::start(std::function<void(uv_stream_t*)> accept) {
  accept_ = std::move(accept);
  const auto connected = [](uv_stream_t* stream, int status) {
    if (status < 0) return;
    Loop::guard(stream->loop, [&] { static_cast<Listener*>(stream->data)->accept_(stream); });
  };
  const int result = uv_listen(reinterpret_cast<uv_stream_t*>(pipe_.get()), kBacklog, connected);
  if (result != 0) refuse(path_, uv_strerror(result));
}

}  // namespace Host
