#include "ctl/terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace Ctl {

namespace {
// Enters and leaves the alternate screen, without cursor and line wrapping.
constexpr char kEnter[] = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr char kLeave[] = "\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr char kHome[] = "\x1b[H";
constexpr char kEraseLine[] =
    "\x1b[2K";  // before the text: after a full line it would erase the last character
constexpr char kEraseBelow[] = "\x1b[J";
}  // namespace

void Terminal::enter() {
  keyboard_ = tcgetattr(STDIN_FILENO, &before_) == 0;
  if (keyboard_) {
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  write(kEnter);
}

void Terminal::leave() {
  write(kLeave);
  if (keyboard_) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

void Terminal::suspend() {
  leave();
  raise(SIGSTOP);
  enter();
}

PanelSize Terminal::size() const {
  winsize window{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) return {};
  return {window.ws_col, window.ws_row};
}

void Terminal::draw(const std::vector<std::string>& lines) {
  std::string frame = kHome;
  for (const std::string& line : lines) {
    if (&line != &lines.front()) frame += "\r\n";
    frame += kEraseLine + line;
  }
  write(frame + kEraseBelow);
}

void Terminal::write(const std::string& text) {
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t count = ::write(STDOUT_FILENO, text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) return;
    if (count > 0) written += static_cast<std::size_t>(count);
  }
}

}  // namespace Ctl
