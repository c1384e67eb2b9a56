// why: explains an LED's state on one screen.
#include <ostream>

#include "ctl/context.h"
#include "ctl/nouns.h"
#include "ctl/output.h"
#include "ctl/text.h"
#include "ctl/why.h"

namespace Ctl {

namespace {

std::string factsText(const Reasons& reasons) {
  std::vector<std::string> texts;
  for (const auto& [what, holds] : reasons.facts()) texts.push_back(std::string(what) + ": " + text(holds));
  return joined(texts);
}

std::string machineText(const Reasons& reasons) {
  if (!reasons.driven) return std::string(text(reasons.driven)) + ": " + reasons.agentError;
  if (!*reasons.driven) return "none";
  return reasons.machine.path + (reasons.machine.initialized ? "" : ", not initialized") +
         (reasons.agentSocket.empty() ? "" : ", through --socket " + reasons.agentSocket);
}

std::string valueText(const PinFacts& pin) {
  if (!pin.value) return "not made";
  return "= " + std::to_string(*pin.value) + (pin.mapped ? "" : ", no longer mapped");
}

// The base, and those that ask for the LED, from the one that is shown down.
void addCover(Table& table, const Reasons& reasons) {
  table.add({"covered", "by " + reasons.coveredBy});
  const char* title = "shown for";
  for (const LightClaim& each : reasons.claims) {
    table.add({title, text(each)});
    title = title[0] == 's' ? "waiting" : "";
  }
  if (reasons.others > 0) table.add({"", "and " + std::to_string(reasons.others) + " more"});
  table.add({"base", reasons.base->settingText()});
  if (!reasons.basePath.empty()) table.add({"", reasons.basePath + " lightSetting"});
}

void print(std::ostream& out, const Reasons& reasons) {
  const Lamp& lamp = reasons.lamp;
  Table table;
  table.add({"LED", lamp.name + ", shows " + lamp.shownText()});
  table.add({"because", joined(because(reasons), "; ")});
  table.add({"setting", lamp.settingText()});
  table.add(
      {"", lamp.configured ? ledPath(lamp.name) + " lightSetting" : "nothing at " + ledPath(lamp.name)});
  if (reasons.base) addCover(table, reasons);
  table.add({"mapping", !lamp.mapped ? "none" : lamp.ready ? "ready" : "not ready"});
  table.add({"", lamp.mapped ? mapPath(lamp.name) : "nothing at " + mapPath(lamp.name)});
  table.add({"driven if", factsText(reasons)});
  table.add({"machine", machineText(reasons)});
  if (const auto phase = phaseText(reasons)) table.add({"phase", *phase});
  table.print(out);
  Table pins;
  for (const PinFacts& pin : reasons.pins)
    pins.add(
        {"pin", kColours[pin.colour].name, pin.name, valueText(pin), lineText(pin, reasons.lineAgentRuns)});
  pins.print(out);
}

template <class T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

Json factsJson(const PinFacts& pin) {
  Json facts = pinJson(pin.colour, pin.name, pin.mapped, pin.value);
  facts.update({{"driven", orNull(pin.driven)}, {"sharedWith", pin.others}, {"line", pin.line}});
  return facts;
}

Json claimJson(const LightClaim& claim) {
  const bool isRule = parentPath(claim.path) == Paths::kRules;
  return {{"path", claim.path},
          {"for", isRule ? Json(claim.fact) : Json()},
          {"priority", claim.priority},
          {"owner", isRule ? Json() : Json(claim.owner)}};
}

Json claimsJson(const Reasons& reasons) {
  Json all = Json::array();
  for (const LightClaim& each : reasons.claims) all.push_back(claimJson(each));
  return all;
}

// The LED's JSON, with more about its pins, and the reasons.
Json asJson(const Reasons& reasons) {
  Json facts = Json::object();
  for (const auto& [what, holds] : reasons.facts()) facts[what] = orNull(holds);
  Json pins = Json::array();
  for (const PinFacts& pin : reasons.pins) pins.push_back(factsJson(pin));
  const bool there = reasons.driven == true;
  Json json = ledJson(reasons.lamp, {}, reasons.agentRuns == false);
  json.update({{"because", because(reasons)},
               {"facts", std::move(facts)},
               {"machine", there ? Json(reasons.machine.path) : Json()},
               {"machineSocket", there && !reasons.agentSocket.empty() ? Json(reasons.agentSocket) : Json()},
               {"lit", there ? Json(reasons.machine.lit) : Json()},
               {"nextTick", orNull(reasons.machine.tickIn)},
               {"base", reasons.base && !reasons.basePath.empty() ? reasons.base->setting : Json()},
               {"basePath", reasons.basePath.empty() ? Json() : Json(reasons.basePath)},
               {"claims", claimsJson(reasons)},
               {"otherClaims", reasons.others},
               {"pins", std::move(pins)}});
  return json;
}

}  // namespace

void addWhyCommand(Command& app, Context& context) {
  struct Given {
    std::string led;
    bool json = false;
  };
  const auto given = std::make_shared<Given>();
  Command command = app.add("why", "Explains an LED's state", "pinlampctl why Ethernet3/1");
  command.argument("LED", given->led, "The LED's name").completes(Completes::led).required();
  command.jsonFlag(given->json);
  command.runs([&context, given] {
    const Reasons reasons = reasonsFor(context.client(), given->led);
    if (given->json)
      printJson(context.out, asJson(reasons));
    else
      print(context.out, reasons);
  });
}

}  // namespace Ctl
