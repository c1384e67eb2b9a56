// Preloaded into pinlampd: see shim.h. Calls of the C library on other files go through.
#include "tests/torture/shim.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using Torture::ShimControl;
using Torture::ShimRecord;
using Torture::Step;

constexpr int kDescriptors = 4096;

struct Shimmed {
  Shimmed() {
    const char* file = std::getenv("TORTURE_CONTROL");
    const char* record = std::getenv("TORTURE_RECORD");
    const long opened = file ? ::syscall(SYS_openat, AT_FDCWD, file, O_RDWR | O_CLOEXEC) : -1;
    void* mapped =
        opened < 0 ? MAP_FAILED
                   : ::mmap(nullptr, sizeof(ShimControl), PROT_READ | PROT_WRITE, MAP_SHARED, int(opened), 0);
    if (mapped != MAP_FAILED) control = static_cast<ShimControl*>(mapped);
    if (record && *record)
      log = int(::syscall(SYS_openat, AT_FDCWD, record, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    state = std::getenv("TORTURE_STATE");
  }
  bool watches(const char* path) const {
    if (!control || !state) return false;
    const std::size_t folder = static_cast<std::size_t>(std::strrchr(state, '/') - state);
    return std::strncmp(path, state, std::strlen(state)) == 0 ||
           (std::strncmp(path, state, folder) == 0 && path[folder] == '\0');
  }
  ShimControl* control = nullptr;
  const char* state = nullptr;
  int log = -1;
  bool watched[kDescriptors] = {};
};

Shimmed& shim() {
  static Shimmed only;
  return only;
}

bool isWatched(int descriptor) {
  return descriptor >= 0 && descriptor < kDescriptors && shim().watched[descriptor];
}

void record(Step step, int descriptor, std::uint64_t offset, const void* bytes, std::size_t size,
            const char* extra = "") {
  if (shim().log < 0) return;
  const int error = errno;
  ShimRecord head{step, descriptor, offset, std::uint32_t(size), std::uint32_t(std::strlen(extra))};
  const iovec parts[] = {
      {&head, sizeof head}, {const_cast<void*>(bytes), size}, {const_cast<char*>(extra), head.extra}};
  ::syscall(SYS_writev, shim().log, parts, 3);
  errno = error;
}

// Counts a step; returns whether it must fail, with errno set.
bool fails(Step step) {
  ShimControl& control = *shim().control;
  const std::uint32_t number = control.steps++;
  if ((control.kinds & std::uint32_t(step)) == 0 || number < control.from) return false;
  if (control.delay > 0) ::usleep(control.delay);
  if (control.error == 0 || control.count == 0) return false;
  --control.count, ++control.failed;
  errno = control.error;
  return true;
}

int opened(const char* path, int flags, mode_t mode) {
  const bool known = shim().watches(path), writes = (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
  if (known && writes && fails(Step::open)) return -1;
  const int descriptor = int(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
  if (descriptor < 0 || descriptor >= kDescriptors) return descriptor;
  shim().watched[descriptor] = known;
  if (known) record(Step::open, descriptor, std::uint64_t(flags), path, std::strlen(path));
  return descriptor;
}
mode_t modeOf(int flags, va_list words) { return (flags & O_CREAT) != 0 ? va_arg(words, mode_t) : 0; }

ssize_t written(int descriptor, const void* bytes, std::size_t size, off_t offset) {
  ShimControl& control = *shim().control;
  if (fails(Step::write)) {
    if (control.half == 0 || size < 2) return -1;
    control.half = 0, size /= 2;
  }
  const ssize_t done = ::syscall(SYS_pwrite64, descriptor, bytes, size, offset);
  if (done > 0) record(Step::write, descriptor, std::uint64_t(offset), bytes, std::size_t(done));
  return done;
}

int truncated(int descriptor, off_t size) {
  if (fails(Step::truncate)) return -1;
  const int result = int(::syscall(SYS_ftruncate, descriptor, size));
  if (result == 0) record(Step::truncate, descriptor, std::uint64_t(size), "", 0);
  return result;
}

int synced(int descriptor, long call) {
  if (isWatched(descriptor) && fails(Step::sync)) return -1;
  const int result = int(::syscall(call, descriptor));
  if (result == 0 && isWatched(descriptor)) record(Step::sync, descriptor, 0, "", 0);
  return result;
}

}  // namespace

EXPORT int open(const char* path, int flags, ...) {
  va_list words;
  va_start(words, flags);
  const mode_t mode = modeOf(flags, words);
  va_end(words);
  return opened(path, flags, mode);
}
EXPORT int open64(const char* path, int flags, ...) {
  va_list words;
  va_start(words, flags);
  const mode_t mode = modeOf(flags, words);
  va_end(words);
  return opened(path, flags, mode);
}

EXPORT int close(int descriptor) {
  if (isWatched(descriptor)) {
    record(Step::close, descriptor, 0, "", 0);
    shim().watched[descriptor] = false;
  }
  return int(::syscall(SYS_close, descriptor));
}

EXPORT ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset) {
  if (isWatched(descriptor)) return written(descriptor, bytes, size, offset);
  return ::syscall(SYS_pwrite64, descriptor, bytes, size, offset);
}

EXPORT int ftruncate(int descriptor, off_t size) noexcept {
  if (isWatched(descriptor)) return truncated(descriptor, size);
  return int(::syscall(SYS_ftruncate, descriptor, size));
}
EXPORT int ftruncate64(int descriptor, off64_t size) noexcept { return ::ftruncate(descriptor, size); }
EXPORT int fsync(int descriptor) { return synced(descriptor, SYS_fsync); }
EXPORT int fdatasync(int descriptor) { return synced(descriptor, SYS_fdatasync); }

EXPORT int unlink(const char* path) noexcept {
  if (shim().watches(path) && fails(Step::unlink)) return -1;
  const int result = int(::syscall(SYS_unlink, path));
  if (result == 0 && shim().watches(path)) record(Step::unlink, -1, 0, path, std::strlen(path));
  return result;
}

EXPORT int rename(const char* from, const char* to) noexcept {
  if (shim().watches(to) && fails(Step::rename)) return -1;
  const int result = int(::syscall(SYS_rename, from, to));
  if (result == 0 && shim().watches(to)) record(Step::rename, -1, 0, from, std::strlen(from), to);
  return result;
}

// To a client's socket.
EXPORT ssize_t write(int descriptor, const void* bytes, size_t size) {
  const ssize_t done = ::syscall(SYS_write, descriptor, bytes, size);
  struct stat status {};
  if (done > 0 && shim().log >= 0 && ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode))
    record(Step::sent, descriptor, 0, bytes, std::size_t(done));
  return done;
}
EXPORT ssize_t writev(int descriptor, const iovec* parts, int count) {
  ssize_t sum = 0;
  for (int i = 0; i < count; ++i) {
    const ssize_t done = ::write(descriptor, parts[i].iov_base, parts[i].iov_len);
    if (done < 0) return sum > 0 ? sum : done;
    sum += done;
    if (std::size_t(done) < parts[i].iov_len) break;
  }
  return sum;
}
