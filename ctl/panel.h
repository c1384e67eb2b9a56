// The front panel as text: port LEDs in two rows, odd ports above even ones, the other LEDs beside them.
#pragma once

#include <string>
#include <vector>

#include "ctl/appliance.h"

namespace Ctl {

// The colours that a terminal can display.
struct Look {
  enum class Colours { none, ansi16, ansi256, truecolor };
  Colours colours = Colours::none;
  bool unicode = false;
};

// From the environment: NO_COLOR, COLORTERM, TERM, and the locale.
Look lookOf(const char* (*variable)(const char* name));

// The LED of a port, or of one of its lanes.
struct Port {
  const Lamp* lamp = nullptr;
  unsigned number = 0;
  unsigned lane = 0;
};

// Adjacent ports: those of a chassis, or of one slot.
struct PortBlock {
  std::string title;
  std::vector<Port> ports;  // by number, then lane
};

struct PanelLayout {
  std::vector<PortBlock> blocks;
  std::vector<const Lamp*> others;
};

// Sorts LEDs into port blocks and others, by name: a port's is a word and numbers, such as Ethernet7,
// Ethernet3/1 or Ethernet4/12/1, and at least four LEDs share the word. The last number is a lane where ports
// have at most eight, else a port within a slot. `lamps` must outlive the layout.
PanelLayout panelLayout(const std::vector<Lamp>& lamps);

struct PanelSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

// The scroll position, in lines, of a panel that has more lines than the screen. panelFrame() corrects
// `from`, and sets `page` to the lines that it shows.
struct Scroll {
  std::size_t from = 0;
  std::size_t page = 1;
};

// The lines of one frame, with the escape sequences of `look`, no larger than `size`. The first is the title,
// the last the summary; where not all LEDs fit, the line before says how many more there are.
std::vector<std::string> panelFrame(const std::vector<Lamp>& lamps, const std::string& title,
                                    const Look& look, const PanelSize& size, Scroll& scroll);

// One LED as a plain line: name, what it shows, what it should show.
std::string plainLine(const Lamp& lamp);

}  // namespace Ctl
