// LEDs with a green and a red pin each, their lines on the chip of lines.cpp, and what they must show.
#pragma once

#include "tests/torture/daemon.h"

namespace Torture {

inline constexpr const char* kPins = "hardware/corvel/gpio/config";

class Board {
 public:
  Board(Round& round, unsigned leds);
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  unsigned count() const { return count_; }
  // For the process of the line agent, with its --agent.
  Daemon::Surroundings surroundings() const { return {{{"TORTURE_LINES", file_}}}; }
  static std::string lineAgent();

  // Changes: all mappings and wirings; one LED's setting; an LED removed.
  Json mappings() const;
  static Json setting(unsigned led, const Json& lightSetting);
  static Json removal(unsigned led) { return del(ledPath(led)); }
  // Flashing ones have at least this interval, and at most three times as much.
  static Json randomSetting(Random& random, double leastInterval);
  static std::string ledPath(unsigned led);

  // Compares pins and lines with the settings, all as they are in `rows`. Empty once all steady LEDs show
  // theirs, and all flashing ones were seen lit and dark since startWatching().
  void startWatching() { seen_.assign(count_, {}); }
  std::string differs(const Rows& rows);

 private:
  struct Seen {
    bool lit = false, dark = false, lineLit = false, lineDark = false;
  };
  static std::string name(unsigned led) { return "L" + std::to_string(led); }
  static bool isActiveLow(unsigned line) { return line % 3 == 0; }
  unsigned lines(unsigned led) const;
  std::string differs(unsigned led, const Rows& rows);

  const unsigned count_;
  const std::string file_;
  std::vector<Seen> seen_{};
};

}  // namespace Torture
