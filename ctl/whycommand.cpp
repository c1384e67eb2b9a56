// why: where an LED's state comes from, on one screen.
#include <algorithm>
#include <cmath>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/objects.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

constexpr char kReactor[] = "agent/configReactor";

// One of the four facts that make an LED driven.
struct Fact {
  const char* what;
  bool holds;
};

struct Machine {
  std::string path;
  bool there = false;
  bool initialized = false;
  bool lit = false;                // the phase of flashing
  std::optional<double> nextTick;  // seconds from now; none: no tick is due
};

struct PinFacts {
  std::string colour;
  std::string name;
  std::optional<unsigned> value;
  Json line;  // how its GPIO line fares; null where no line is wired
};

struct Reasons {
  Lamp lamp;
  std::vector<Fact> facts;
  Machine machine;
  std::vector<PinFacts> pins;
  std::string objectsError;  // why the host's objects could not be asked; empty where they were
};

bool hasMember(Client& client, const std::string& collection, const std::string& name) {
  const Json keys = callObject(client, "iterate", collection);
  return std::find(keys.begin(), keys.end(), Json(name)) != keys.end();
}

// Seconds until the machine wakes up; it gives a time of the host's clock, or "inf".
std::optional<double> nextTick(Client& client, const std::string& machine) {
  const Json wakeUp = callObject(client, "get", machine + "/wakeUp");
  if (!wakeUp.is_number()) return std::nullopt;
  return wakeUp.get<double>() - client.call("status").at("now").get<double>();
}

Machine machineOf(Client& client, const std::string& led) {
  const std::string collection = std::string(kReactor) + "/gpioLedStateMachine";
  Machine machine;
  machine.path = collection + '/' + escapeComponent(led);
  machine.there = hasMember(client, collection, led);
  if (!machine.there) return machine;
  machine.initialized = callObject(client, "get", machine.path + "/initialized").get<bool>();
  machine.lit = callObject(client, "get", machine.path + "/flashingState").get<bool>();
  machine.nextTick = nextTick(client, machine.path);
  return machine;
}

std::vector<PinFacts> pinsOfLamp(Client& client, const Lamp& lamp, const Mirror& mirror) {
  Mirror lines;
  lines.entitiesAre(kLineStatusDir, client.read(kLineStatusDir));
  const auto values = pinsOf(mirror);
  std::vector<PinFacts> pins;
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const std::string& pin : lamp.pins[i]) {
      const auto* line = lines.find(kLineStatusDir + ('/' + escapeComponent(pin)));
      pins.push_back({kColours[i].name, pin, values.at(pin), line ? line->attributes : Json()});
    }
  return pins;
}

Reasons reasonsFor(Client& client, const std::string& led) {
  const Mirror mirror = readAppliance(client);
  const auto lamps = lampsOf(mirror);
  const auto found =
      std::find_if(lamps.begin(), lamps.end(), [&](const Lamp& lamp) { return lamp.name == led; });
  if (found == lamps.end()) throw Refusal("there is no LED '" + led + "'" + hint(led, namesOf(lamps)));
  Reasons reasons;
  reasons.lamp = *found;
  reasons.pins = pinsOfLamp(client, *found, mirror);
  bool output = false;
  try {
    output = hasMember(client, std::string(kReactor) + "/corvelLedSystemConfig/gpioLeds", led);
    reasons.machine = machineOf(client, led);
  } catch (const Refusal& refusal) {
    reasons.objectsError = refusal.what();
  }
  reasons.facts = {{"mapping is there", found->mapped},
                   {"mapping is ready", found->ready},
                   {"pins are made", output},
                   {"LED is configured", found->configured}};
  return reasons;
}

std::string machineText(const Reasons& reasons) {
  if (!reasons.objectsError.empty()) return "not known here: " + reasons.objectsError;
  if (!reasons.machine.there) return "none";
  return reasons.machine.path + (reasons.machine.initialized ? "" : ", not initialized");
}

std::string tickText(const Machine& machine) {
  if (!machine.there) return "-";
  const std::string phase = machine.lit ? "lit" : "dark";
  if (!machine.nextTick) return phase + ", no tick is due";
  return phase + ", next tick in " + shortNumber(std::round(std::max(0.0, *machine.nextTick) * 1000) / 1000) +
         " s";
}

std::string factsText(const std::vector<Fact>& facts) {
  std::vector<std::string> texts;
  for (const Fact& fact : facts) texts.push_back(std::string(fact.what) + (fact.holds ? ": yes" : ": NO"));
  return joined(texts);
}

std::string lineText(const Json& line) {
  if (line.is_null()) return "";
  const std::string place = line.value("place", ""), error = line.value("error", "");
  std::string text = line.value("driven", false) ? "drives " + place : "not driven";
  return error.empty() ? text : text + "; last error: " + error;
}

void print(std::ostream& out, const Reasons& reasons) {
  const Lamp& lamp = reasons.lamp;
  Table table;
  table.add({"LED", lamp.name + ", shows " + lamp.shownText()});
  table.add({"setting", lamp.settingText()});
  table.add(
      {"", lamp.configured ? ledPath(lamp.name) + " lightSetting" : "nothing at " + ledPath(lamp.name)});
  table.add({"mapping", !lamp.mapped ? "none" : lamp.ready ? "ready" : "not ready"});
  table.add({"", lamp.mapped ? mapPath(lamp.name) : "nothing at " + mapPath(lamp.name)});
  table.add({"driven if", factsText(reasons.facts)});
  table.add({"machine", machineText(reasons)});
  table.add({"phase", tickText(reasons.machine)});
  table.print(out);
  Table pins;
  for (const PinFacts& pin : reasons.pins)
    pins.add({"pin", pin.colour, pin.name, pin.value ? "= " + std::to_string(*pin.value) : "not made",
              lineText(pin.line)});
  pins.print(out);
}

Json asJson(const Reasons& reasons) {
  Json facts = Json::object();
  for (const Fact& fact : reasons.facts) facts[fact.what] = fact.holds;
  Json pins = Json::array();
  for (const PinFacts& pin : reasons.pins)
    pins.push_back({{"colour", pin.colour},
                    {"name", pin.name},
                    {"value", pin.value ? Json(*pin.value) : Json()},
                    {"line", pin.line}});
  const Machine& machine = reasons.machine;
  return {{"name", reasons.lamp.name},
          {"setting", reasons.lamp.configured ? reasons.lamp.setting : Json()},
          {"settingPath", ledPath(reasons.lamp.name)},
          {"mapped", reasons.lamp.mapped},
          {"ready", reasons.lamp.ready},
          {"facts", std::move(facts)},
          {"machine", machine.there ? Json(machine.path) : Json()},
          {"lit", machine.there ? Json(machine.lit) : Json()},
          {"nextTick", machine.nextTick ? Json(*machine.nextTick) : Json()},
          {"pins", std::move(pins)}};
}

}  // namespace

void addWhyCommand(CLI::App& app, Context& context) {
  struct Given {
    std::string led;
    bool json = false;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* command =
      addCommand(app, "why", "Tells where an LED's state comes from", "pinlampctl why Ethernet3/1");
  context.completes(command->add_option("LED", given->led, "Its name"), Completes::led)->required();
  addJsonFlag(*command, given->json);
  command->callback([&context, given] {
    const Reasons reasons = reasonsFor(context.client(), given->led);
    if (given->json)
      context.out << asJson(reasons).dump(2) << '\n';
    else
      print(context.out, reasons);
  });
}

}  // namespace Ctl
