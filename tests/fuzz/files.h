// The files of the fuzz targets, in memory.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "tests/fuzz/check.h"

namespace Fuzz {

// Of this process alone.
inline std::string fileOf(const char* target) {
  return "/dev/shm/pinlamp-" + std::string(target) + "-" + std::to_string(::getpid());
}

// Replaces the content.
inline void writeFile(const std::string& file, std::string_view bytes) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  check(::write(descriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  ::close(descriptor);
}

}  // namespace Fuzz
