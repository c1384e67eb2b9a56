// A file that is written beside its name and renamed onto it, so that readers find the old one or all of the
// new.
//
//   NewFile file("pins.vcd");
//   file.write(text);
//   file.replace();
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "ctl/refusal.h"

namespace Ctl {

class NewFile {
 public:
  // Opens the first free name of FILE.new, FILE.new1, …. Throws Refusal if it can't, or if `file` is the name
  // of anything but a regular file.
  explicit NewFile(std::string file);
  // Removes the new file unless it was renamed.
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Not buffered. Open until the end of this, also after replace().
  std::FILE* stream() const { return stream_.get(); }
  // Throws Refusal if the text can't be written.
  void write(const std::string& text);
  // Renames it. Throws Refusal.
  void replace();
  bool isReplaced() const { return beside_.empty(); }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void open();

  const std::string file_;
  std::string beside_;  // empty: renamed
  std::unique_ptr<std::FILE, Close> stream_;
};

Refusal cantWrite(const std::string& file, const std::string& why);

}  // namespace Ctl
