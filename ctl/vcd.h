// Pin values over time as a value change dump (IEEE 1364), which waveform viewers open.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ctl/newfile.h"

namespace Ctl {

// Writes one file, in which a pin is a wire: 1 for any value but 0, x while it is not driven. A new file
// replaces a regular file of that name at the first flush(), by a rename, and nothing else: a directory, a
// device, a pipe or a symbolic link is refused. The file is valid after every flush(), also after one that
// fails. Throws Refusal if it can't be written.
class VcdWriter {
 public:
  using Time = std::chrono::microseconds;  // since the recording began; never decreasing

  // `date` goes into the header, for people.
  VcdWriter(std::string file, std::string date);
  VcdWriter(const VcdWriter&) = delete;
  VcdWriter& operator=(const VcdWriter&) = delete;

  // Declares the pin if it is new; after the first flush, that rewrites the file with a longer header. Skips
  // a value that the pin already has.
  void valueIs(Time time, const std::string& pin, std::optional<unsigned> value);
  void flush();
  // Ends the file at `time`, so that the last values have a length.
  void finish(Time time);

  std::size_t pins() const { return wires_.size(); }
  std::size_t changes() const { return changes_; }

 private:
  struct Wire {
    std::string code;
    char value = 'x';
  };

  std::string header() const;
  void timeIs(Time time);
  void rewrite();
  void append(const std::string& text);
  std::string bodyRead() const;
  [[noreturn]] void fail() const;

  const std::string file_;
  const std::string date_;
  std::map<std::string, Wire> wires_;  // by pin
  std::string body_;                   // not yet in the file
  std::unique_ptr<NewFile> out_;
  std::size_t bodyAt_ = 0;   // offset of the body in the file; 0: no header yet
  std::size_t written_ = 0;  // bytes in the file
  bool complete_ = false;    // the header declares every wire
  Time time_{-1};
  std::size_t changes_ = 0;
};

}  // namespace Ctl
