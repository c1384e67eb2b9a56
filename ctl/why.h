// Explains an LED's state: its setting, what it takes to show it, and what prevents that.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/appliance.h"
#include "ctl/ledagent.h"

namespace Ctl {

// True, false or unknown.
using Known = std::optional<bool>;
// "yes", "no" or "not known".
const char* text(Known fact);

struct PinFacts {
  std::size_t colour = 0;  // index in kColours
  std::string name;
  bool mapped = false;                // is in the mapping
  Known driven{};                     // the LED agent drives it for this LED
  bool detached = false;              // but it is gone from the state database
  std::optional<unsigned> value{};    // nullopt: there is no such pin
  std::vector<std::string> others{};  // other LEDs that have it in their mappings
  bool wired = false;                 // a GPIO line is configured for it
  Json line{};                        // the line's status; null if there is none
};

// A request or a rule that asks for the LED.
struct LightClaim {
  std::string path;
  std::string fact{};  // of a rule: the text that its '*' stands for
  Json priority;
  std::string owner{};  // of a request
};
// "request find (identify) of ann".
std::string text(const LightClaim& claim);

struct Reasons {
  Lamp lamp;
  Known agentRuns{};          // the LED agent
  std::string agentError{};   // why `agentRuns` is unknown
  std::string agentSocket{};  // of the process that it runs in; empty for the host's own
  Known lineAgentRuns{};
  Known pinsMade{};
  Known driven{};  // it has a machine
  LedAgent::Machine machine{};
  std::optional<Lamp> base{};        // if its setting is covered: with the setting under the cover
  std::string basePath{};            // of the LED that has that setting; empty: nobody set it
  std::string coveredBy{};           // the process, for people
  std::vector<LightClaim> claims{};  // to the LED: the one that is shown, then those that wait
  std::size_t others = 0;            // how many more wait
  std::vector<PinFacts> pins{};

  // The conditions for the LED to be driven.
  std::vector<std::pair<const char*, Known>> facts() const;
  bool flashes() const { return lamp.configured && lamp.flashInterval != 0.0; }
};

// Throws Refusal if there is no such LED.
Reasons reasonsFor(Client& client, const std::string& led);

// Why the LED shows what it shows: what prevents its setting, or else the setting.
std::vector<std::string> because(const Reasons& reasons);
// The flash phase and the next tick; nullopt unless the LED flashes and a tick is pending.
std::optional<std::string> phaseText(const Reasons& reasons);
// The status of a pin's line; empty if no lines are in use.
std::string lineText(const PinFacts& pin, Known lineAgentRuns);

}  // namespace Ctl
