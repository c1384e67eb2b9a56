// Full-screen mode of the terminal.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

#include "ctl/panel.h"

namespace Ctl {

// Switches to the alternate screen, with line editing and echo off, and restores both on destruction. Ctrl-C
// and Ctrl-Z still raise signals.
class Terminal {
 public:
  Terminal() { enter(); }
  ~Terminal() { leave(); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  PanelSize size() const;
  void draw(const std::vector<std::string>& lines);
  // Stops the process as Ctrl-Z does, with the terminal restored meanwhile.
  void suspend();

 private:
  void enter();
  void leave();
  static void write(const std::string& text);

  termios before_{};
  bool keyboard_ = false;  // whether `before_` must be restored
};

}  // namespace Ctl
