#include <algorithm>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/nouns.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

struct MapArguments {
  std::string led;
  std::vector<std::string> stray;  // words after the LED
  PerColour<std::vector<std::string>> pins;
  PerColour<Argument> options{};
  bool ready = false;
  Argument readyOption;
  bool rewire = false;
  bool json = false;

  Json attributes() const;
};

// One empty pin name empties the set.
Json pinSet(const std::vector<std::string>& pins) {
  return pins == std::vector<std::string>{""} ? Json::array() : Json(pins);
}

Json MapArguments::attributes() const {
  Json attributes = Json::object();
  for (std::size_t i = 0; i < kColours.size(); ++i)
    if (options[i].given()) attributes[kColours[i].mappedPins] = pinSet(pins[i]);
  if (readyOption.given()) attributes["ready"] = ready;
  return attributes;
}

std::vector<Lamp> mappedLamps(Context& context) {
  auto lamps = lampsOf(readAppliance(context.client()));
  std::erase_if(lamps, [](const Lamp& lamp) { return !lamp.mapped; });
  return lamps;
}

// The current mapping; null if there is none.
Json attributesNow(Client& client, const std::string& led) {
  const Json entities = client.readBase(mapPath(led));
  return entities.empty() ? Json() : entities.front().at("attributes");
}

bool namesOtherPins(const Json& before, const Json& after) {
  return std::ranges::any_of(kColours, [&](const Colour& colour) {
    return namesIn(before, colour.mappedPins) != namesIn(after, colour.mappedPins);
  });
}

// A driven LED keeps the pins that its mapping had when it became ready.
void noteRewiring(Context& context, const std::string& led) {
  note(context,
       "the mapping of " + led +
           " was ready: a driven LED keeps its pins until it is re-wired, which deletes its mapping and "
           "creates it again; see: pinlampctl map set " +
           led + " --rewire");
}

// Deleting a mapping deletes its pins, even those that are also in other mappings.
void noteShared(Context& context, const std::string& led) {
  const auto lamps = mappedLamps(context);
  const auto own = std::ranges::find(lamps, led, &Lamp::name);
  std::set<std::string> others;
  for (const Lamp& lamp : lamps)
    if (own != lamps.end() && lamp.name != led && sharesPin(lamp, *own)) others.insert(lamp.name);
  if (!others.empty())
    note(context, "LEDs that share pins with " + led +
                      " must be re-wired as well: " + joined({others.begin(), others.end()}));
}

std::set<std::string> pinsIn(const Json& attributes) {
  std::set<std::string> pins;
  for (const Colour& colour : kColours)
    for (const std::string& pin : namesIn(attributes, colour.mappedPins)) pins.insert(pin);
  return pins;
}

// Notes the new pins that are in other mappings, too: valid, but rarely intended.
void noteTaken(Context& context, const std::string& led, const Json& before, const Json& after) {
  const auto own = pinsIn(after), old = pinsIn(before.is_null() ? Json::object() : before);
  std::vector<std::string> taken;
  for (const Json& entity : context.client().read(Paths::kMappings))
    if (const std::string path = entity.at("path"); path != mapPath(led))
      for (const std::string& pin : pinsIn(entity.at("attributes")))
        if (own.contains(pin) && !old.contains(pin)) taken.push_back(pin + " (" + lastName(path) + ")");
  if (!taken.empty()) note(context, "pins that other LEDs have, too: " + joined(taken));
}

void checkWords(const MapArguments& given) {
  if (!given.stray.empty())
    throw UsageError("map set: '" + given.stray.front() +
                     "' has no colour; put it before the pins, such as: map set " + given.led + " --green " +
                     joined(given.stray, " "));
}

// Refuses a mapping that would have no pins, and a command that sets nothing. `before`: null if there is
// none.
void checkMapping(Client& client, const MapArguments& given, const Json& before, const Json& after) {
  const std::string way = "; such as: pinlampctl map set " + given.led + " --green PIN --ready";
  if (!before.is_null() && after == before && !given.rewire && given.attributes().empty())
    throw Refusal("map set: neither pins nor --ready are given for " + given.led + way);
  if (!before.is_null()) return;
  if (isGlob(given.led) && client.read(ledPath(given.led)).empty())
    throw Refusal("map set: '" + given.led + "' is a pattern; name one LED, as each has pins of its own");
  if (pinsIn(after).empty())
    throw Refusal("map set: " + given.led + " has no mapping, and no pins are given" + way);
}

// Prints the mappings of these LEDs as JSON.
void printMappings(Context& context, const std::vector<std::string>& leds) {
  Json all = Json::array();
  for (const Lamp& lamp : readLedBases(context.client(), leds))
    if (lamp.mapped && std::ranges::find(leds, lamp.name) != leds.end()) all.push_back(mappingJson(lamp));
  printJson(context.out, all);
}

// In one batch: for --rewire, agents see the mapping deleted, then created with its old and the given
// attributes.
void setMapping(Context& context, const MapArguments& given) {
  checkWords(given);
  Client& client = context.client();
  const Json before = attributesNow(client, given.led);
  Json attributes = given.attributes();
  Json after = before.is_null() ? Json::object() : before;
  after.update(attributes);
  checkMapping(client, given, before, after);
  const bool rewire = given.rewire && !before.is_null();
  Json changes = Json::array({{{"op", "put"}, {"path", Paths::kMappings}, {"type", kMapDirType}}});
  if (rewire) changes.push_back({{"op", "del"}, {"path", mapPath(given.led)}});
  changes.push_back({{"op", "put"},
                     {"path", mapPath(given.led)},
                     {"type", kMapType},
                     {"attributes", rewire ? after : std::move(attributes)}});
  client.write(changes);
  if (given.json) printMappings(context, {given.led});
  if (!rewire) noteTaken(context, given.led, before, after);
  if (rewire) return noteShared(context, given.led);
  if (!before.is_null() && before.value("ready", false) && namesOtherPins(before, after))
    noteRewiring(context, given.led);
}

void deleteMappings(Context& context, const std::vector<std::string>& patterns, bool json) {
  const auto lamps = mappedLamps(context);
  const auto leds = expandNames(patterns, namesOf(lamps));
  Json changes = Json::array(), deleted = Json::array();
  for (const Lamp& lamp : lamps) {
    if (!std::ranges::binary_search(leds, lamp.name)) continue;
    changes.push_back({{"op", "del"}, {"path", mapPath(lamp.name)}});
    deleted.push_back(mappingJson(lamp));
  }
  context.client().write(changes);
  if (json) printJson(context.out, deleted);
}

void listMappings(Context& context, bool json) {
  Json all = Json::array();
  Table table;
  std::vector<std::string> header{"LED", "READY"};
  for (const Colour& colour : kColours) header.emplace_back(colour.name);
  table.add(header);
  for (const Lamp& lamp : mappedLamps(context)) {
    std::vector<std::string> row{lamp.name, lamp.ready ? "yes" : "no"};
    for (const auto& pins : lamp.pins) row.push_back(pins.empty() ? "-" : joined(pins, ","));
    all.push_back(mappingJson(lamp));
    table.add(std::move(row));
  }
  if (json)
    printJson(context.out, all);
  else
    table.print(context.out);
}

void addMapSet(Command& map, Context& context) {
  const auto given = std::make_shared<MapArguments>();
  Command command = map.add("set", "Maps pins to an LED; colours that are not given keep theirs",
                            "pinlampctl map set Status --green status_g --red status_r --ready");
  command.argument("NAME", given->led, "The LED; its mapping is created if there is none")
      .completes(Completes::led)
      .required();
  command.argument("PIN", given->stray, "").hidden();
  for (std::size_t i = 0; i < kColours.size(); ++i) {
    const std::string name = kColours[i].name;
    given->options[i] = command.argument("--" + name, given->pins[i], "The " + name + " pins; '' for none");
    given->options[i].completes(Completes::pin);
  }
  given->readyOption = command.flag("--ready,!--no-ready", given->ready,
                                    "Whether the mapping is complete; nothing is driven before that");
  command.flag(
      "--rewire", given->rewire,
      "Delete the mapping and create it again, in one step: only this changes the pins of a driven LED");
  command.jsonFlag(given->json);
  command.runs([&context, given] { setMapping(context, *given); });
}

void addMapDel(Command& map, Context& context) {
  struct Arguments {
    std::vector<std::string> names;
    bool json = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command =
      map.add("del", "Deletes the mappings of LEDs, and their pins", "pinlampctl map del Beacon");
  command.argument("NAME", given->names, "Names or patterns").completes(Completes::led).required();
  command.jsonFlag(given->json);
  command.runs([&context, given] { deleteMappings(context, given->names, given->json); });
}

void addMapList(Command& map, Context& context) {
  const auto json = std::make_shared<bool>(false);
  Command command = map.add("list", "Lists the pins of each LED", "pinlampctl map list");
  command.jsonFlag(*json);
  command.runs([&context, json] { listMappings(context, *json); });
}

}  // namespace

void addMapCommands(Command& app, Context& context) {
  Command map = app.addGroup("map", "Shows and sets which pins an LED has", "pinlampctl map list");
  addMapSet(map, context);
  addMapDel(map, context);
  addMapList(map, context);
}

}  // namespace Ctl
