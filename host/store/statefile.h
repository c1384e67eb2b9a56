// The file of a state database before SQLite opens it: whether it is one, who owns it, and how it is made.
//
// A file comes into being as a whole: it is made as FILE.new, synced to the disk, and renamed. A process that
// is killed meanwhile leaves at most FILE.new, which the next one makes from the start.
#pragma once

#include <string>

#include "host/io/filelock.h"

namespace Host {

[[noreturn]] void refuseStateFile(const std::string& file, const std::string& why);

// What a file of this application begins with, as SQL for an empty database; one transaction.
std::string stateFileSchema();

// Owns the file at `file` for as long as it lives, and makes it where it is not there or holds nothing. It is
// of this application then, and of a version that can be read; its table is missing where a process was
// killed that made it in place. Throws StoreError where the folder is missing, another process owns the file,
// or it is something else; a file that is refused is left as it was.
//
// Closing any descriptor of the file drops SQLite's own locks on it: the owner outlives the connection.
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
