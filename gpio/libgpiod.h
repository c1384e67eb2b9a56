// One GPIO chip of the kernel and the lines that are held of it: all that differs between the versions of
// libgpiod. Debian 12 has 1.6 (libgpiod1.cpp), Debian 13 has 2 (libgpiod2.cpp); CMake chooses the file. No
// other file calls the library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "gpio/lineprovider.h"

namespace Gpio {

class LibgpiodChip {
 public:
  // Opens /dev/NAME. Where that fails it holds nothing, and errno says why.
  explicit LibgpiodChip(const std::string& name);
  ~LibgpiodChip();
  LibgpiodChip(LibgpiodChip&&) noexcept;

  explicit operator bool() const;

  // REQUIRES, from here on: it is open.
  std::string label() const;
  // By offset, as they are now.
  std::vector<LineInfo> lines() const;

  // Takes lines as outputs with these levels, all or none. False, and errno, where that fails.
  // REQUIRES: at most maxLines lines, none held yet.
  bool take(const std::string& consumer, const std::vector<unsigned>& offsets, const LineValues& levels);
  // Sets all lines that were taken, in one write. False, and errno, where that fails. REQUIRES: some are
  // held.
  bool set(const LineValues& levels);
  // Gives the lines back and closes the chip. Does nothing the second time.
  void close() noexcept;

 private:
  struct Handles;
  std::unique_ptr<Handles> handles_;  // null where it is not open
};

}  // namespace Gpio
