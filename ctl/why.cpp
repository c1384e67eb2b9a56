#include "ctl/why.h"

#include <algorithm>
#include <cmath>

#include "ctl/processes.h"
#include "ctl/requests.h"
#include "ctl/text.h"

namespace Ctl {

const char* text(Known fact) { return !fact ? "not known" : *fact ? "yes" : "no"; }

std::vector<std::pair<const char*, Known>> Reasons::facts() const {
  return {{"mapping is there", lamp.mapped},
          {"mapping is ready", lamp.ready},
          {"pins are made", pinsMade},
          {"LED is configured", lamp.configured}};
}

namespace {

// Collecting
// ---------------------------------------------------------------------------------------------------------

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<std::string> othersWith(const std::string& pin, const std::string& led,
                                    const std::vector<Lamp>& lamps) {
  std::vector<std::string> others;
  for (const Lamp& lamp : lamps)
    if (lamp.name != led &&
        std::ranges::any_of(lamp.pins, [&](const auto& ofColour) { return contains(ofColour, pin); }))
      others.push_back(lamp.name);
  return others;
}

// The attributes of the entity at a path; null if there is none.
Json attributesAt(Client& client, const std::string& path) {
  const Json entities = client.read(path);
  return !entities.empty() && entities[0].at("path") == path ? entities[0].at("attributes") : Json();
}

PinFacts factsOf(Client& client, std::size_t colour, const std::string& name) {
  PinFacts pin{.colour = colour, .name = name};
  const std::string component = '/' + escapeComponent(name);
  if (const Json made = attributesAt(client, Paths::kPins + component); !made.is_null())
    pin.value = made.value("value", 0U);
  pin.wired = !attributesAt(client, Paths::kWirings + component).is_null();
  pin.line = attributesAt(client, Paths::kLineStatus + component);
  return pin;
}

// False also if the pin is gone because the LED changed since its pins were read.
bool isDetached(const LedAgent& agent, const std::string& led, std::size_t colour, const std::string& pin) {
  try {
    return agent.isDetached(led, colour, pin);
  } catch (const Refusal&) {
    return false;
  }
}

using Driven = std::optional<PerColour<std::vector<std::string>>>;

void addPins(Client& client, const LedAgent& agent, const Driven& driven, const std::vector<Lamp>& lamps,
             Reasons& reasons) {
  const Lamp& lamp = reasons.lamp;
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const auto* names : {&lamp.pins[i], &lamp.formerPins[i]})
      for (const std::string& name : *names) {
        PinFacts pin = factsOf(client, i, name);
        pin.mapped = names == &lamp.pins[i];
        if (driven) pin.driven = contains((*driven)[i], name);
        if (pin.driven == true) pin.detached = isDetached(agent, lamp.name, i, name);
        pin.others = othersWith(name, lamp.name, lamps);
        reasons.pins.push_back(std::move(pin));
      }
}

// Adds what only the LED agent knows. Returns the pins that it drives.
Driven askAgent(const LedAgent& agent, Reasons& reasons) {
  const std::string& led = reasons.lamp.name;
  try {
    const auto machine = agent.machineOf(led);
    auto driven = agent.pinsOf(led);
    reasons.driven = machine.has_value();
    reasons.machine = machine.value_or(LedAgent::Machine());
    reasons.pinsMade = driven.has_value();
    return driven;
  } catch (const Refusal& refusal) {
    reasons.agentError = refusal.what();
    return std::nullopt;
  }
}

// The process that announced to cover the LEDs, or that holds the claim of that on another machine.
std::string coveringProcess(const Json& status) {
  for (const Json& process : status.at("processes"))
    for (const Json& path : process.value("covers", Json::array()))
      if (isUnder(Paths::kLeds, path.get<std::string>()))
        return "process " + std::to_string(process.at("pid").get<std::int64_t>());
  for (const Claim& claim : claimsOf(status))
    if (claim.isOfCovers && claim.isElsewhere() && isUnder(Paths::kLeds, claim.path)) return claim.who;
  return "an agent of the host that keeps the state";
}

bool hasSetting(const Json& entities) {
  return !entities.empty() && entities[0].at("attributes").contains("lightSetting");
}

// Adds the setting that shows without requests and rules: the LED's own, or else its initial one.
void addBase(Client& client, const Json& status, Reasons& reasons) {
  const std::string path = ledPath(reasons.lamp.name), initialPath = initialLedPath(reasons.lamp.name);
  if (!reasons.lamp.configured || !hasSetting(client.readCovers(path))) return;
  reasons.base = Lamp{.name = reasons.lamp.name};
  reasons.coveredBy = coveringProcess(status);
  Json base = client.readBase(path);
  reasons.basePath = hasSetting(base) ? path : initialPath;
  if (!hasSetting(base)) base = client.read(initialPath);
  if (hasSetting(base))
    settingIs(*reasons.base, base[0].at("attributes").at("lightSetting"));
  else
    reasons.basePath.clear();
}

LightClaim claimFrom(Client& client, const Json& claim) {
  if (claim.contains("rule"))
    return {.path = std::string(Paths::kRules) + '/' + escapeComponent(claim["rule"].get<std::string>()),
            .fact = claim.at("for"),
            .priority = claim.at("priority")};
  LightClaim made{.path = requestPath(claim.at("request")), .priority = claim.at("priority")};
  if (const Json request = attributesAt(client, made.path); !request.is_null())
    made.owner = request.value("owner", "");
  return made;
}

void addClaims(Client& client, Reasons& reasons) {
  const Json known =
      attributesAt(client, std::string(Paths::kClaims) + '/' + escapeComponent(reasons.lamp.name));
  if (known.is_null()) return;
  for (const Json& each : known.value("claims", Json::array()))
    reasons.claims.push_back(claimFrom(client, each));
  reasons.others = known.value("others", std::size_t{0});
}

}  // namespace

Reasons reasonsFor(Client& client, const std::string& led) {
  const Mirror mirror = readAppliance(client);
  const auto lamps = lampsOf(mirror);
  const auto found = std::ranges::find(lamps, led, &Lamp::name);
  if (found == lamps.end()) throw Refusal("there is no LED '" + led + "'" + hint(led, namesOf(lamps)));
  const Json status = client.call("status");
  const LedAgent agent(client, status);
  Reasons reasons{.lamp = *found,
                  .agentRuns = agent.runs(),
                  .agentError = agent.error(),
                  .agentSocket = agent.socket(),
                  .lineAgentRuns = isFilled(status, Paths::kLineStatus)};
  if (agent.runs() == false) reasons.pinsMade = reasons.driven = false;
  const Driven driven = agent.runs() == true ? askAgent(agent, reasons) : std::nullopt;
  if (driven) formerPinsAre(reasons.lamp, *driven, mirror);
  addPins(client, agent, driven, lamps, reasons);
  addBase(client, status, reasons);
  if (reasons.base) addClaims(client, reasons);
  return reasons;
}

namespace {

// Judging
// ---------------------------------------------------------------------------------------------------------

// The pending tick predates the setting: it was armed for a longer interval, or the LED still shows a colour
// that is no longer set.
bool intervalIsNew(const Reasons& reasons) {
  return reasons.machine.tickIn && *reasons.machine.tickIn > reasons.lamp.flashInterval;
}

bool coloursAreNew(const Reasons& reasons) {
  return std::ranges::any_of(reasons.pins, [&](const PinFacts& pin) {
    return pin.others.empty() && pin.mapped && pin.value.value_or(0) != 0 && !reasons.lamp.wanted[pin.colour];
  });
}

bool shouldBeLit(const Reasons& reasons, const PinFacts& pin) {
  if (!reasons.lamp.wanted[pin.colour]) return false;
  return !reasons.flashes() || (phaseText(reasons) && reasons.machine.lit && !intervalIsNew(reasons));
}

std::string namesOf(const std::vector<std::string>& others) {
  return others.front() + (others.size() > 1 ? " and " + std::to_string(others.size() - 1) + " more" : "");
}

// Describes a fault of the pin itself, not of its line; empty if there is none.
std::string faultOf(const Reasons& reasons, const PinFacts& pin) {
  const bool wanted = reasons.lamp.wanted[pin.colour];
  if (pin.driven == false) return "was added to a ready mapping and is not driven until it is re-wired";
  if (pin.driven == true && (pin.detached || !pin.value))
    return "was removed with the mapping of another LED and is not driven until it is re-wired";
  if (!pin.mapped && (wanted || pin.value != 0U))
    return "was removed from a ready mapping and is driven until it is re-wired";
  if (pin.value == 0U && !pin.others.empty() && shouldBeLit(reasons, pin))
    return "is also a pin of " + namesOf(pin.others) + ", which keeps it dark";
  if (pin.value.value_or(0) != 0 && !wanted && !pin.others.empty())
    return "is also a pin of " + namesOf(pin.others) + ", which lights it";
  return {};
}

std::string lineFaultOf(const PinFacts& pin, Known lineAgentRuns) {
  if (!pin.value || (!pin.line.is_null() && pin.line.value("driven", false) && lineAgentRuns != false))
    return {};
  return lineText(pin, lineAgentRuns);
}

std::vector<std::string> pinFaults(const Reasons& reasons) {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < kColours.size(); ++i)
    if (reasons.lamp.wanted[i] && std::ranges::find(reasons.pins, i, &PinFacts::colour) == reasons.pins.end())
      texts.push_back(std::string(kColours[i].name) + " is set and has no pin");
  for (const PinFacts& pin : reasons.pins) {
    const std::string name = std::string(kColours[pin.colour].name) + " pin " + pin.name + ' ';
    if (const auto fault = faultOf(reasons, pin); !fault.empty()) texts.push_back(name + fault);
    if (const auto fault = lineFaultOf(pin, reasons.lineAgentRuns); !fault.empty())
      texts.push_back(name + "has " + fault);
  }
  return texts;
}

// Why nothing drives the LED; empty if something does, or may.
std::string undriven(const Reasons& reasons) {
  if (reasons.driven == true) return {};
  if (!reasons.lamp.mapped) return "it has no mapping";
  if (!reasons.lamp.ready) return "its mapping is not ready";
  if (!reasons.lamp.configured) return "it has no setting";
  if (reasons.agentRuns == false) return "no LED agent runs: its pins stay as they are";
  if (reasons.pinsMade == false) return "the LED agent has not made its pins";
  return {};
}

std::string settingReason(const Reasons& reasons) {
  const auto colours = colourNames(reasons.lamp.wanted);
  if (!reasons.claims.empty())
    return text(reasons.claims.front()) + " asks for " + reasons.lamp.settingText();
  if (colours.empty()) return "its setting has no colour";
  if (!reasons.flashes()) return "it is set to " + joined(colours, "+");
  return "it flashes " + joined(colours, "+");
}

// Seconds as "0.5" or "3,599".
std::string secondsText(double seconds) {
  if (seconds < 1000 || seconds >= 1e15) return shortNumber(std::round(seconds * 1000) / 1000);
  std::string digits = std::to_string(static_cast<long long>(seconds));
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, ",");
  return digits;
}

}  // namespace

std::string text(const LightClaim& claim) {
  const bool isRule = parentPath(claim.path) == Paths::kRules;
  std::string text = (isRule ? "rule " : "request ") + lastName(claim.path);
  if (!claim.fact.empty()) text += " for '" + claim.fact + "'";
  text += " (" + priorityText(claim.priority) + ')';
  return text + (claim.owner.empty() ? "" : " of " + claim.owner);
}

std::vector<std::string> because(const Reasons& reasons) {
  if (const auto reason = undriven(reasons); !reason.empty()) return {reason};
  auto faults = pinFaults(reasons);
  if (faults.empty()) faults.push_back(settingReason(reasons));
  if (std::ranges::any_of(faults, [](const auto& each) { return each.ends_with("re-wired"); }))
    faults.push_back("to re-wire it: pinlampctl map set " + reasons.lamp.name + " --rewire");
  return faults;
}

std::optional<std::string> phaseText(const Reasons& reasons) {
  if (!reasons.flashes() || !reasons.machine.tickIn) return std::nullopt;
  const std::string tick = secondsText(*reasons.machine.tickIn) + " s";
  if (intervalIsNew(reasons)) return "takes up the new interval at the next tick, in " + tick;
  if (coloursAreNew(reasons)) return "takes up the new colours at the next tick, in " + tick;
  return (reasons.lamp.lit() ? "lit" : "dark") + (", next tick in " + tick);
}

std::string lineText(const PinFacts& pin, Known lineAgentRuns) {
  if (lineAgentRuns == false && (pin.wired || !pin.line.is_null()))
    return "a line that stays as it is: no line agent runs";
  if (!pin.wired && pin.line.is_null())
    return lineAgentRuns == true ? std::string("no line: there is nothing at ") + Paths::kWirings + '/' +
                                       escapeComponent(pin.name)
                                 : "";
  if (pin.line.is_null()) return "a line that is not driven yet";
  const std::string error = pin.line.value("error", "");
  const std::string place = pin.line.value("place", "");
  if (!pin.line.value("driven", false)) return "a line that is not driven: " + error;
  return place + (error.empty() ? "" : "; its last error: " + error);
}

}  // namespace Ctl
