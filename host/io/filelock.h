// Sole ownership of a file for as long as a process lives.
#pragma once

#include <optional>
#include <string>

namespace Host {

// An advisory lock, gone with the process however it ends.
class FileLock {
 public:
  // Opens the file and locks it. Nothing where another holds it. Throws std::system_error where the file
  // can't be opened. The lock is on the file that has the path once it is taken: one that is renamed takes it
  // along.
  enum class Missing { make, fail };
  static std::optional<FileLock> tryTake(const std::string& path, Missing missing = Missing::make);
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&&) = delete;
  ~FileLock();

  int descriptor() const { return descriptor_; }

  // " (pid N)" for the process that holds the lock on the file; empty where it can't be told.
  static std::string holderText(const std::string& path);

 private:
  explicit FileLock(int descriptor) : descriptor_(descriptor) {}

  int descriptor_;
};

}  // namespace Host
