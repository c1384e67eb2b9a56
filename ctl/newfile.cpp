#include "ctl/newfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Ctl {

Refusal cantWrite(const std::string& file, const std::string& why) {
  return Refusal("can't write '" + file + "': " + why);
}

namespace {

// Throws unless the name is free or a regular file's. A link is refused, as the rename would replace it and
// not what it points to.
void checkReplaceable(const std::string& file) {
  struct stat found {};
  if (lstat(file.c_str(), &found) != 0) return;  // opening the new file beside it shows other errors
  if (S_ISREG(found.st_mode)) return;
  const char* kind = S_ISDIR(found.st_mode)   ? "a directory"
                     : S_ISLNK(found.st_mode) ? "a symbolic link"
                                              : "a device, pipe or socket";
  throw cantWrite(file, std::string("it is ") + kind + "; give a new name, or that of a regular file");
}

}  // namespace

NewFile::NewFile(std::string file) : file_(std::move(file)) {
  checkReplaceable(file_);
  open();
}

NewFile::~NewFile() {
  if (!beside_.empty()) unlink(beside_.c_str());
}

void NewFile::open() {
  constexpr int kNames = 100;
  for (int i = 0; i < kNames; ++i) {
    const std::string name = file_ + ".new" + (i == 0 ? "" : std::to_string(i));
    stream_.reset(std::fopen(name.c_str(), "abxe"));
    if (!stream_ && errno == EEXIST) continue;
    if (!stream_) throw cantWrite(name, std::strerror(errno));
    std::setvbuf(stream_.get(), nullptr, _IONBF, 0);  // no remainder to write after a failure
    beside_ = name;
    return;
  }
  throw cantWrite(file_, "the names " + file_ + ".new to .new" + std::to_string(kNames - 1) + " are taken");
}

void NewFile::write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stream()) != text.size())
    throw cantWrite(file_, std::strerror(errno));
}

void NewFile::replace() {
  checkReplaceable(file_);
  if (std::rename(beside_.c_str(), file_.c_str()) != 0) throw cantWrite(file_, std::strerror(errno));
  beside_.clear();
}

}  // namespace Ctl
