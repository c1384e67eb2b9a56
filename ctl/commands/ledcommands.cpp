#include <algorithm>
#include <cmath>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/ledagent.h"
#include "ctl/ledwords.h"
#include "ctl/output.h"
#include "ctl/processes.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

using PinValues = std::map<std::string, std::optional<unsigned>>;

Json pinsJson(const PerColour<std::vector<std::string>>& names, const PinValues& values) {
  Json pins = Json::object();
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const std::string& pin : names[i]) {
      const auto value = values.at(pin);
      pins[kColours[i].name][pin] = value ? Json(*value) : Json();
    }
  return pins;
}

Json lampJson(const Lamp& lamp, const PinValues& values) {
  return {{"name", lamp.name},
          {"setting", lamp.configured ? lamp.setting : Json()},
          {"mapped", lamp.mapped},
          {"ready", lamp.ready},
          {"shows", lamp.driven ? Json(colourNames(lamp.shows)) : Json()},
          {"pins", pinsJson(lamp.pins, values)},
          {"formerPins", pinsJson(lamp.formerPins, values)}};
}

std::string pinsText(const Lamp& lamp, const PinValues& values) {
  if (!lamp.mapped) return "no mapping";
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const std::string& pin : lamp.pins[i]) {
      const auto value = values.at(pin);
      texts.push_back(std::string(kColours[i].name) + ':' + pin + '=' +
                      (value ? std::to_string(*value) : "-"));
    }
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const std::string& pin : lamp.formerPins[i])
      texts.push_back(std::string(kColours[i].name) + ':' + pin + '=' + std::to_string(*values.at(pin)) +
                      "(no longer mapped)");
  return (lamp.ready ? "" : "not ready  ") + joined(texts, " ");
}

// `names` are sorted, as by expandNames.
void keepNamed(std::vector<Lamp>& lamps, const std::vector<std::string>& names) {
  std::erase_if(lamps, [&](const Lamp& lamp) { return !std::ranges::binary_search(names, lamp.name); });
}

std::vector<Lamp> selected(std::vector<Lamp> lamps, const std::vector<std::string>& patterns) {
  if (patterns.empty()) return lamps;
  keepNamed(lamps, expandNames(patterns, namesOf(lamps)));
  return lamps;
}

// The lit pins that are in no mapping.
std::set<std::string> strayPins(const std::vector<Lamp>& lamps, const PinValues& values) {
  std::set<std::string> stray;
  for (const auto& [pin, value] : values)
    if (value.value_or(0) != 0) stray.insert(pin);
  for (const Lamp& lamp : lamps)
    for (const auto& ofColour : lamp.pins)
      for (const std::string& pin : ofColour) stray.erase(pin);
  return stray;
}

// Asks the LED agent which LEDs the stray pins belong to, adds them there, and removes those from `stray`.
void addStrayPins(Client& client, const Json& status, const Mirror& mirror, std::vector<Lamp>& lamps,
                  std::set<std::string>& stray) {
  const LedAgent agent(client, status);
  if (agent.runs() != true) return;
  for (Lamp& lamp : lamps) {
    if (stray.empty()) return;
    const auto driven = lamp.mapped ? agent.pinsOf(lamp.name) : std::nullopt;
    if (!driven) continue;
    formerPinsAre(lamp, *driven, mirror);
    for (const auto& ofColour : lamp.formerPins)
      for (const std::string& pin : ofColour) stray.erase(pin);
  }
}

void listLeds(Context& context, const std::vector<std::string>& patterns, bool json) {
  const Mirror mirror = readAppliance(context.client());
  const auto values = pinsOf(mirror);
  const auto known = lampsOf(mirror);
  auto lamps = selected(known, patterns);
  auto stray = strayPins(known, values);
  const Json status = context.client().call("status");
  const bool isStale = isFilled(status, Paths::kPins) == false;
  if (!stray.empty()) addStrayPins(context.client(), status, mirror, lamps, stray);
  Json all = Json::array();
  Table table;
  table.add({"LED", "SETTING", "SHOWS", "PINS"});
  for (const Lamp& lamp : lamps) {
    table.add({lamp.name, lamp.settingText(), lamp.shownText(), pinsText(lamp, values)});
    all.push_back(lampJson(lamp, values));
    all.back()["stale"] = isStale && lamp.driven;
  }
  if (json)
    printJson(context.out, all);
  else
    table.print(context.out);
  if (isStale && std::ranges::any_of(lamps, &Lamp::mapped))
    note(context, "no LED agent runs: the pins stay as they are, whatever is set");
  if (patterns.empty() && !stray.empty())
    note(context, "lit, but in no mapping: " + joined({stray.begin(), stray.end()}));
}

Json putLed(const std::string& led, Json setting) {
  return {{"op", "put"},
          {"path", ledPath(led)},
          {"type", kLedType},
          {"attributes", {{"lightSetting", std::move(setting)}}}};
}

// Notes LEDs that stay dark in a colour that is set: valid, but rarely intended.
void noteDark(Context& context, const std::vector<Lamp>& lamps) {
  std::vector<std::string> unmapped, unready, lacking;
  for (const Lamp& lamp : lamps) {
    if (std::ranges::count(lamp.wanted, true) == 0) continue;
    if (!lamp.mapped) unmapped.push_back(lamp.name);
    if (lamp.mapped && !lamp.ready) unready.push_back(lamp.name);
    if (lamp.mapped && lamp.lacksPin()) lacking.push_back(lamp.name);
  }
  if (!unmapped.empty()) note(context, "no mapping, so no pins: " + firstOf(unmapped));
  if (!unready.empty()) note(context, "mapping not ready, so not driven: " + firstOf(unready));
  if (!lacking.empty()) note(context, "no pin for a colour that is set: " + firstOf(lacking));
}

// Applies `words` to the LEDs' settings. Other members of the settings, such as brightness, stay.
void setLeds(Context& context, const LedWords& words, std::optional<double> flash) {
  Client& client = context.client();
  std::vector<Lamp> lamps = lampsOf(readLeds(client, words.names));
  keepNamed(lamps, expandLedWords(words, namesOf(lamps)));
  Json changes = Json::array({{{"op", "put"}, {"path", Paths::kLeds}, {"type", kLedDirType}}});
  for (Lamp& lamp : lamps) {
    settingIs(lamp, lightSetting(lamp.setting, words.colours, flash));
    changes.push_back(putLed(lamp.name, lamp.setting));
  }
  client.write(std::move(changes));
  noteDark(context, lamps);
}

void addLedList(Command& led, Context& context) {
  struct Arguments {
    std::vector<std::string> patterns;
    bool json = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = led.add("list", "Lists LEDs: their settings, what they show, their pins and values",
                            "pinlampctl led list 'Ethernet4*'");
  command.argument("NAME", given->patterns, "Names or patterns (default: all)").completes(Completes::led);
  command.jsonFlag(given->json);
  command.runs([&context, given] { listLeds(context, given->patterns, given->json); });
}

void addLedSet(Command& led, Context& context) {
  struct Arguments {
    std::vector<std::string> words;
    double flash = 0.0;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = led.add("set", "Sets LEDs: names or patterns, then colours",
                            "pinlampctl led set Status 'Ethernet3*' green --flash 0.5");
  command.argument("NAME... COLOUR", given->words, "LEDs; then orange, green, red, yellow or off")
      .completes(Completes::ledThenColour)
      .required();
  const Argument flash =
      command.argument("--flash", given->flash, "Seconds between two toggles, or 500ms; 0 for steady")
          .duration();
  command.runs([&context, given, flash] {
    const auto interval = flash.given() ? std::optional(given->flash) : std::nullopt;
    setLeds(context, splitLedWords(given->words, interval), interval);
  });
}

void addLedOff(Command& led, Context& context) {
  const auto names = std::make_shared<std::vector<std::string>>();
  Command command = led.add("off", "Turns LEDs off", "pinlampctl led off 'Ethernet*'");
  command.argument("NAME", *names, "Names or patterns").completes(Completes::led).required();
  command.runs([&context, names] { setLeds(context, {*names, {"off"}}, std::nullopt); });
}

}  // namespace

void addLedCommands(Command& app, Context& context) {
  Command led = app.addGroup("led", "Shows and sets LEDs", "pinlampctl led list");
  addLedList(led, context);
  addLedSet(led, context);
  addLedOff(led, context);
}

}  // namespace Ctl
