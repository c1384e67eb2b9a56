// The live panel on a pseudo-terminal.
#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>

#include "ctl/appliance.h"
#include "tests/ctl/testhost.h"
#include "tests/places.h"

namespace Ctl {
namespace {

class PanelInATerminal : public testing::Test {
 protected:
  PanelInATerminal() {
    host.put(mapPath("Status"), kMapType,
             {{"ready", true}, {"gpioGreenName", {"g"}}, {"gpioRedName", {"r"}}});
    winsize window{8, 40, 0, 0};
    child = forkpty(&terminal, nullptr, nullptr, &window);
    if (child == 0) start();
  }
  ~PanelInATerminal() override {
    if (child > 0) kill(child, SIGKILL);
    close(terminal);
  }

  void start() {
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    unsetenv("COLORTERM");
    execl(Places::pinlampctl().c_str(), "pinlampctl", "--socket", host.socket.c_str(), "panel", nullptr);
    _exit(127);
  }

  // Whether `text` is written to the screen within 5 s. Drops the output up to it.
  bool appears(const std::string& text) {
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    char chunk[4096];
    for (std::size_t at; (at = seen.find(text)) == std::string::npos;) {
      host.loop.runOnce();
      pollfd entry{terminal, POLLIN, 0};
      if (poll(&entry, 1, 1) == 0 && std::chrono::steady_clock::now() < latest) continue;
      const ssize_t count = entry.revents == 0 ? 0 : read(terminal, chunk, sizeof chunk);
      if (count <= 0) return false;
      seen.append(chunk, static_cast<std::size_t>(count));
    }
    seen.erase(0, seen.find(text) + text.size());
    return true;
  }

  bool ends() {
    int status = 0;
    const bool restored = appears("\x1b[?25h\x1b[?1049l");
    const bool clean =
        waitpid(std::exchange(child, -1), &status, 0) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return restored && clean;
  }

  TestHost host;
  int terminal = -1;
  pid_t child = -1;
  std::string seen;
};

TEST_F(PanelInATerminal, FollowsThePinsUntilQ) {
  ASSERT_TRUE(appears("1 LEDs: 0 lit now"));
  for (int i = 0; i < 3; ++i) {
    host.pinIs("g", 1);
    EXPECT_TRUE(appears("\x1b[92m"));
    EXPECT_TRUE(appears("1 lit now"));
    host.pinIs("g", 0);
    EXPECT_TRUE(appears("0 lit now"));
  }
  EXPECT_EQ(write(terminal, "q", 1), 1);
  EXPECT_TRUE(ends());
}

TEST_F(PanelInATerminal, IsRedrawnForAnotherSize) {
  ASSERT_TRUE(appears("1 LEDs: 0 lit now, 0 flashing"));
  const winsize narrow{8, 10, 0, 0};
  ioctl(terminal, TIOCSWINSZ, &narrow);
  EXPECT_TRUE(appears(" 1 LEDs: 0\x1b"));
}

TEST_F(PanelInATerminal, RestoresTheTerminalOnASignal) {
  ASSERT_TRUE(appears("0 lit now"));
  kill(child, SIGTERM);
  EXPECT_TRUE(ends());
  termios mode{};
  ASSERT_EQ(tcgetattr(terminal, &mode), 0);
  EXPECT_TRUE((mode.c_lflag & ICANON) != 0 && (mode.c_lflag & ECHO) != 0);
}

}  // namespace
}  // namespace Ctl
