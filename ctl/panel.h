// The front panel as text: port LEDs in two rows, odd ports above even ones, the other LEDs beside them.
#pragma once

#include <string>
#include <vector>

#include "ctl/appliance.h"

namespace Ctl {

// How a terminal can show things.
struct Look {
  enum class Colours { none, ansi16, ansi256, truecolor };
  Colours colours = Colours::none;
  bool unicode = false;
};

// From the environment: NO_COLOR, COLORTERM, TERM, and the locale.
Look lookOf(const char* (*variable)(const char* name));

// A port's place among the others.
struct Port {
  const Lamp* lamp = nullptr;
  unsigned number = 0;
  unsigned lane = 0;
};

// Ports that stand together: one chassis, or one slot of it.
struct PortBlock {
  std::string title;
  std::vector<Port> ports;  // by number, then lane
};

struct PanelLayout {
  std::vector<PortBlock> blocks;
  std::vector<const Lamp*> others;
};

// Sorts LEDs into port blocks and others. Ports are names of one word and numbers, such as Ethernet7,
// Ethernet3/1 or Ethernet4/12/1, that at least four LEDs share; the last number is the lane of a port with at
// most eight lanes, else the port of a slot. `lamps` must outlive the layout.
PanelLayout panelLayout(const std::vector<Lamp>& lamps);

struct PanelSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

// One frame, a line each, with the escape sequences of `look`; no line is wider than the size. `title` stands
// in the first line.
std::vector<std::string> panelFrame(const std::vector<Lamp>& lamps, const std::string& title,
                                    const Look& look, const PanelSize& size);

// One LED as a plain line: name, what it shows, what it should show.
std::string plainLine(const Lamp& lamp);

}  // namespace Ctl
