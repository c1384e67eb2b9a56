#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/jsonwriter.h"
#include "ctl/ledagent.h"
#include "ctl/ledwords.h"
#include "ctl/nouns.h"
#include "ctl/output.h"
#include "ctl/processes.h"
#include "ctl/remarks.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

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
    all.push_back(ledJson(lamp, values, isStale));
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

// A change, as text.
std::string putLed(const std::string& led, const Json& setting) {
  std::string text = R"({"op":"put","path":)";
  appendString(text, ledPath(led), false);
  return text + R"(,"type":")" + kLedType + R"(","attributes":{"lightSetting":)" + setting.dump() + "}}";
}

// Notes LEDs that stay dark in a colour that is set: valid, but rarely intended.
void noteDark(Context& context, std::vector<Lamp> lamps) {
  std::erase_if(lamps, [](const Lamp& lamp) { return std::ranges::count(lamp.wanted, true) == 0; });
  noteUndriven(context, lamps);
  std::vector<std::string> lacking;
  for (const Lamp& lamp : lamps)
    if (lamp.mapped && lamp.lacksPin()) lacking.push_back(lamp.name);
  if (!lacking.empty()) note(context, "no pin for a colour that is set: " + firstOf(lacking));
}

// How LEDs are to be set.
struct Setting {
  LedWords words{};
  std::optional<double> flash{};
  bool inStep = false;
  bool json = false;
};

void writeSettings(Client& client, const std::vector<Lamp>& lamps) {
  Client::Batch batch;
  batch.add(Json{{"op", "put"}, {"path", Paths::kLeds}, {"type", kLedDirType}}.dump());
  for (const Lamp& lamp : lamps) batch.add(putLed(lamp.name, lamp.setting));
  client.write(batch);
}

// Other members of the settings, such as brightness, stay.
void settingsAre(std::vector<Lamp>& lamps, const LedWords& words, std::optional<double> flash) {
  for (Lamp& lamp : lamps) settingIs(lamp, lightSetting(lamp.setting, words.colours, flash));
}

// Makes the LEDs steady until none has a tick pending. A tick that is pending when an LED becomes steady is
// its last; one that flashes again before it keeps the phase of that tick.
void stopFlashing(Client& client, std::vector<Lamp> lamps, const LedWords& words) {
  constexpr double kLongest = 60, kMargin = 0.1;  // seconds
  double longest = 0;
  for (const Lamp& lamp : lamps) longest = std::max(longest, lamp.flashInterval);
  if (longest > kLongest)
    throw Refusal("led set --in-step: an LED flashes every " + shortNumber(longest) +
                  " s, and stops only at its next tick; set it without --flash, and come back later");
  settingsAre(lamps, words, 0.0);
  writeSettings(client, lamps);
  if (longest > 0) std::this_thread::sleep_for(std::chrono::duration<double>(longest + kMargin));
}

// Notes the LEDs whose first tick darkens them while it lights the others: the phase in which their last
// flashing ended.
void noteOpposite(Context& context, const std::vector<Lamp>& lamps) {
  const LedAgent agent(context.client(), context.client().call("status"));
  if (agent.runs() != true) return;
  std::vector<std::string> lit, dark;
  for (const Lamp& lamp : lamps)
    if (const auto machine = agent.machineOf(lamp.name)) (machine->lit ? lit : dark).push_back(lamp.name);
  if (!lit.empty() && !dark.empty())
    note(context,
         "in step, but dark while the others are lit: " + firstOf(lit.size() < dark.size() ? lit : dark));
}

// Applies the words to the LEDs' settings.
void setLeds(Context& context, const Setting& given) {
  Client& client = context.client();
  std::vector<Lamp> lamps = readLedBases(client, given.words.names);
  keepNamed(lamps, expandLedWords(given.words, namesOf(lamps)));
  if (given.inStep) stopFlashing(client, lamps, given.words);
  settingsAre(lamps, given.words, given.flash);
  writeSettings(client, lamps);
  if (given.inStep) noteOpposite(context, lamps);
  noteDark(context, std::move(lamps));
  if (given.json) listLeds(context, given.words.names, true);
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
    bool inStep = false;
    bool json = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = led.add("set", "Sets LEDs: names or patterns, then colours",
                            "pinlampctl led set Status 'Ethernet3*' green --flash 0.5");
  command.argument("NAMES-THEN-COLOURS", given->words, "LEDs; then orange, green, red, yellow or off")
      .completes(Completes::ledThenColour)
      .required();
  const Argument flash =
      command.argument("--flash", given->flash, "Seconds between two toggles, or 500ms; 0 for steady")
          .duration();
  command.flag(
      "--in-step", given->inStep,
      "With --flash: make them steady first, then all flash in one commit, so that they tick together");
  command.jsonFlag(given->json);
  command.runs([&context, given, flash] {
    const auto interval = flash.given() ? std::optional(given->flash) : std::nullopt;
    if (given->inStep && interval.value_or(0.0) == 0.0)
      throw UsageError("led set: --in-step is for LEDs that flash; add --flash SECONDS");
    setLeds(context, {splitLedWords(given->words, interval), interval, given->inStep, given->json});
  });
}

void addLedOff(Command& led, Context& context) {
  const auto given = std::make_shared<Setting>();
  given->words.colours = {"off"};
  Command command = led.add("off", "Turns LEDs off", "pinlampctl led off 'Ethernet*'");
  command.argument("NAME", given->words.names, "Names or patterns").completes(Completes::led).required();
  command.jsonFlag(given->json);
  command.runs([&context, given] { setLeds(context, *given); });
}

}  // namespace

void addLedCommands(Command& app, Context& context) {
  Command led = app.addGroup("led", "Shows and sets LEDs", "pinlampctl led list");
  addLedList(led, context);
  addLedSet(led, context);
  addLedOff(led, context);
}

}  // namespace Ctl
