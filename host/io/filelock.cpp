#include "host/io/filelock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

namespace Host {

namespace {

bool isAt(int descriptor, const std::string& path) {
  struct stat held {};
  struct stat there {};
  return ::fstat(descriptor, &held) == 0 && ::stat(path.c_str(), &there) == 0 &&
         held.st_ino == there.st_ino && held.st_dev == there.st_dev;
}

// Leaves the owner's access alone: any process that can open the file can lock it and so prevent a start.
// Fails for a file of another user; holderText() then names the mode.
void narrow(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && (status.st_mode & 0077) != 0)
    static_cast<void>(::fchmod(descriptor, status.st_mode & 0700) == 0);
}

std::string modeText(mode_t mode) {
  if ((mode & 0077) == 0) return {};
  std::ostringstream text;
  text << "; its mode " << std::oct << (mode & 0777) << " lets others lock it, make it 600";
  return text.str();
}

}  // namespace

// Retries if another process renames or removes the file between open and flock.
std::optional<FileLock> FileLock::tryTake(const std::string& path, Missing missing) {
  const int make = missing == Missing::make ? O_CREAT : 0;
  for (;;) {
    const int descriptor = ::open(path.c_str(), O_RDWR | make | O_CLOEXEC | O_NOCTTY, 0600);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category());
    FileLock lock(descriptor);
    narrow(descriptor);
    if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
      if (isAt(descriptor, path)) return lock;
      continue;
    }
    if (errno != EWOULDBLOCK) throw std::system_error(errno, std::generic_category());
    return std::nullopt;
  }
}

FileLock::FileLock(FileLock&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

FileLock::~FileLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

std::string FileLock::holderText(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  const std::string inode = ":" + std::to_string(status.st_ino);
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, strictness, access, pid, file;
    words >> number >> kind >> strictness >> access >> pid >> file;
    if (kind == "FLOCK" && file.ends_with(inode)) return " (pid " + pid + modeText(status.st_mode) + ")";
  }
  return {};
}

}  // namespace Host
