// The terminal while a command has all of it.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

#include "ctl/panel.h"

namespace Ctl {

// Takes the screen and the keyboard over while it lives, and gives both back as they were. Line input and
// echo are off; Ctrl-C and Ctrl-Z still make signals.
class Terminal {
 public:
  Terminal() { enter(); }
  ~Terminal() { leave(); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  PanelSize size() const;
  void draw(const std::vector<std::string>& lines);
  // Stops the process as Ctrl-Z does, with the terminal given back meanwhile.
  void suspend();

 private:
  void enter();
  void leave();
  static void write(const std::string& text);

  termios before_{};
  bool keyboard_ = false;  // whether `before_` must be put back
};

}  // namespace Ctl
