// Exclusive ownership of a file.
#pragma once

#include <optional>
#include <string>

namespace Host {

// An advisory lock (flock). The kernel releases it when the process ends, however that happens.
class FileLock {
 public:
  // Opens and locks the file; nullopt if another process holds the lock. Throws std::system_error if the file
  // can't be opened. The locked file is the one at `path` on return; renaming it keeps the lock.
  enum class Missing { make, fail };
  static std::optional<FileLock> tryTake(const std::string& path, Missing missing = Missing::make);
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&&) = delete;
  ~FileLock();

  int descriptor() const { return descriptor_; }

  // " (pid N)" of the process that holds the lock on the file; empty if unknown.
  static std::string holderText(const std::string& path);

 private:
  explicit FileLock(int descriptor) : descriptor_(descriptor) {}

  int descriptor_;
};

}  // namespace Host
