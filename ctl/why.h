// Where an LED's state comes from: what is asked for, what it takes to show it, and what stands in the way.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/appliance.h"
#include "ctl/ledagent.h"

namespace Ctl {

// Something that is so, is not so, or can't be known from here.
using Known = std::optional<bool>;
// "yes", "no" or "not known".
const char* text(Known fact);

struct PinFacts {
  std::size_t colour = 0;  // its place in kColours
  std::string name;
  bool mapped = false;                // the mapping names it
  Known taken{};                      // the LED agent drives it for this LED
  bool detached = false;              // but not under its name any more
  std::optional<unsigned> value{};    // nothing: no such pin has been made
  std::vector<std::string> others{};  // the other LEDs whose mappings name it
  bool wired = false;                 // a GPIO line is given for it
  Json line{};                        // how that fares; null where nothing says
};

struct Reasons {
  Lamp lamp;
  Known agentRuns{};          // the LED agent
  std::string agentError{};   // why that is not known
  std::string agentSocket{};  // of the process that it runs in; empty for the host's own
  Known lineAgentRuns{};
  Known pinsMade{};
  Known driven{};  // there is a machine
  LedAgent::Machine machine{};
  std::vector<PinFacts> pins{};

  // What must hold for the LED to be driven, in words.
  std::vector<std::pair<const char*, Known>> facts() const;
  bool flashes() const { return lamp.configured && lamp.flashInterval != 0.0; }
};

// Throws Refusal where there is no such LED.
Reasons reasonsFor(Client& client, const std::string& led);

// Why the LED shows what it shows: what stands in the way, or what it is set to.
std::vector<std::string> because(const Reasons& reasons);
// The phase of flashing and the next tick; nothing unless the LED flashes and a tick is due.
std::optional<std::string> phaseText(const Reasons& reasons);
// How a pin's line fares; empty where no lines are in use.
std::string lineText(const PinFacts& pin, Known lineAgentRuns);

}  // namespace Ctl
