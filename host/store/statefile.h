// Checks, locks and creates the file of a state database before SQLite opens it.
//
// Creation is atomic: FILE.new is written, synced and renamed. A killed process leaves at most FILE.new,
// which the next one overwrites.
#pragma once

#include <string>

#include "host/io/filelock.h"

namespace Host {

[[noreturn]] void refuseStateFile(const std::string& file, const std::string& why);

// SQL that creates the tables in an empty database, in one transaction.
std::string stateFileSchema();

// Locks the file for its lifetime, and creates it if it is missing or empty. The file is then of this
// application and of a readable version. Throws StoreError if the folder is missing, another process owns the
// file, or it is something else; a refused file is not changed.
//
// Must outlive the connection: closing any descriptor of the file drops SQLite's own (POSIX) locks on it.
class StateFile {
 public:
  explicit StateFile(const std::string& file);

  // Absolute, links followed.
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  const FileLock lock_;
};

}  // namespace Host
