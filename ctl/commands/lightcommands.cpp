// identify, lamp-test, darken: requests that end by themselves.
#include <algorithm>
#include <utility>

#include "ctl/appliance.h"
#include "ctl/ledwords.h"
#include "ctl/processes.h"
#include "ctl/remarks.h"
#include "ctl/requests.h"
#include "ctl/text.h"
#include "platform/model/priorities.h"

namespace Ctl {

namespace {

constexpr char kIdentify[] = "identify-", kLampTest[] = "lamp-test-", kDarken[] = "darken";
constexpr double kDay = 86'400;  // seconds

struct LightOptions {
  std::vector<std::string> leds;  // of `identify`; else those to leave alone
  double seconds = 0;
  bool stops = false;
  bool json = false;
};

// The colours that any of the LEDs has pins for; all where none has.
std::vector<std::string> coloursOf(const std::vector<Lamp>& lamps) {
  PerColour<bool> found{};
  for (const Lamp& lamp : lamps)
    for (std::size_t i = 0; i < kColours.size(); ++i) found[i] = found[i] || !lamp.pins[i].empty();
  if (std::ranges::count(found, true) == 0) found.fill(true);
  return colourNames(found);
}

bool matchesAny(const std::vector<std::string>& patterns, const std::string& name) {
  return std::ranges::any_of(patterns, [&](const std::string& each) { return matches(each, name); });
}

// Whether the request is one of those that `identify` makes for LEDs that fit, or one of another command.
bool isFor(const LightOptions& given, const std::string& prefix, const std::string& request) {
  if (prefix == kDarken) return request == prefix;
  if (!request.starts_with(prefix) || prefix != kIdentify || given.leds.empty())
    return request.starts_with(prefix);
  return matchesAny(given.leds, request.substr(prefix.size()));
}

void stop(Context& context, const LightOptions& given, const std::string& prefix) {
  auto requests = requestsIn(context.client());
  std::erase_if(requests, [&](const Request& each) { return !isFor(given, prefix, each.name); });
  withdraw(context.client(), requests);
  if (given.json) return printRequests(context, requests, true);
  if (requests.empty()) note(context, "there was none to stop");
}

void ask(Context& context, const LightOptions& given, std::vector<Request> requests) {
  for (Request& each : requests) each.owner = userName();
  printRequests(context, make(context.client(), std::move(requests)), given.json);
}

void noteWithoutAgent(Context& context) {
  if (isFilled(context.client().call("status"), Paths::kPins) == false)
    note(context, "no LED agent runs: the pins stay as they are, whatever is asked for");
}

// An LED with a mapping alone has no entity whose setting could be covered. It gets one without a setting, so
// dark as before, which ends with the host.
void makeLightable(Client& client, std::vector<Lamp>& lamps) {
  Json puts = Json::array({{{"op", "put"}, {"path", Paths::kLeds}, {"type", kLedDirType}}});
  for (Lamp& lamp : lamps)
    if (!std::exchange(lamp.configured, true))
      puts.push_back({{"op", "put"}, {"path", ledPath(lamp.name)}, {"type", kLedType}});
  if (puts.size() > 1) client.writeVolatile(puts);
}

Request flashing(const Lamp& lamp, double seconds) {
  return {.name = kIdentify + lamp.name,
          .leds = {lamp.name},
          .setting = lightSetting(Json::object(), coloursOf({lamp}), kIdentifyFlash),
          .priority = "identify",
          .lasts = seconds};
}

void identify(Context& context, const LightOptions& given) {
  if (given.leds.empty()) throw UsageError("identify: no LED is given; or add --stop, to stop all");
  expectPolicyAgent(context.client(), "identify");
  std::vector<Lamp> lamps = lampsOf(readAppliance(context.client()));
  const auto names = expandNames(given.leds, namesOf(lamps));
  std::erase_if(lamps, [&](const Lamp& lamp) { return !std::ranges::binary_search(names, lamp.name); });
  makeLightable(context.client(), lamps);
  std::vector<Request> requests;
  for (const Lamp& lamp : lamps) requests.push_back(flashing(lamp, given.seconds));
  ask(context, given, std::move(requests));
  noteUndriven(context, lamps);
  noteWithoutAgent(context);
}

// Those that the board excludes from lamp tests.
std::vector<std::string> neverTested(Client& client) {
  const Json entities = client.read(Paths::kLampTest);
  return entities.empty() ? std::vector<std::string>() : namesIn(entities[0].at("attributes"), "skip");
}

// Refuses to act on an LED that was to be left alone and is misspelt.
void expectThere(const std::vector<Lamp>& lamps, const LightOptions& given) {
  expandNames(given.leds, namesOf(lamps));
}

// Each colour that the appliance has, then all of them.
std::vector<Json> testSettings(const std::vector<Lamp>& lamps) {
  const auto colours = coloursOf(lamps);
  std::vector<Json> settings;
  for (const std::string& colour : colours) settings.push_back({{colour, true}});
  settings.push_back(lightSetting(Json::object(), colours, {}));
  return settings;
}

// One request for each setting, from the highest level down. All begin now, and each ends when the one below
// it is to be shown: the test goes on, and ends, without this program.
std::vector<Request> testRequests(const std::vector<Json>& settings, const std::vector<std::string>& skip,
                                  double seconds) {
  std::vector<Request> requests;
  const auto count = static_cast<unsigned>(settings.size());
  for (unsigned i = 0; i < count; ++i)
    requests.push_back({.name = kLampTest + std::to_string(i + 1),
                        .leds = {"*"},
                        .skip = skip,
                        .setting = settings[i],
                        .priority = Led::kLampTestLevel + count - 1 - i,
                        .lasts = seconds * (i + 1) / count});
  return requests;
}

void testLamps(Context& context, const LightOptions& given) {
  expectPolicyAgent(context.client(), "lamp-test");
  std::vector<Lamp> lamps = lampsOf(readAppliance(context.client()));
  expectThere(lamps, given);
  std::vector<std::string> skip = neverTested(context.client());
  skip.insert(skip.end(), given.leds.begin(), given.leds.end());
  const auto settings = testSettings(lamps);
  std::erase_if(lamps, [&](const Lamp& lamp) { return matchesAny(skip, lamp.name); });
  makeLightable(context.client(), lamps);
  ask(context, given, testRequests(settings, skip, given.seconds));
  noteWithoutAgent(context);
}

void darken(Context& context, const LightOptions& given) {
  expectPolicyAgent(context.client(), "darken");
  expectThere(lampsOf(readAppliance(context.client())), given);
  ask(context, given,
      {{.name = kDarken,
        .leds = {"*"},
        .skip = given.leds,
        .priority = Led::kNightLevel,
        .lasts = given.seconds}});
  noteWithoutAgent(context);
}

using Action = void (*)(Context&, const LightOptions&);

// Adds what the three have in common.
void complete(Command& command, Context& context, const std::shared_ptr<LightOptions>& given, double longest,
              const std::string& prefix, Action action) {
  command.argument("--for", given->seconds, "How long, such as 60, 500ms, 5min or 8h")
      .duration()
      .within(0.1, longest)
      .showDefault();
  command.flag("--stop", given->stops, "End it now");
  command.jsonFlag(given->json);
  command.runs([&context, given, prefix, action] {
    context.host(prefix.ends_with('-') ? prefix.substr(0, prefix.size() - 1) : prefix);
    given->stops ? stop(context, *given, prefix) : action(context, *given);
  });
}

std::shared_ptr<LightOptions> lasting(double seconds) {
  const auto given = std::make_shared<LightOptions>();
  given->seconds = seconds;
  return given;
}

void addExcept(Command& command, const char* option, const std::shared_ptr<LightOptions>& given,
               const char* help) {
  command.argument(option, given->leds, help).completes(Completes::led).valueName("PATTERN").oneEach();
}

}  // namespace

void addLightCommands(Command& app, Context& context) {
  const auto identified = lasting(60), tested = lasting(10), darkened = lasting(8 * 3600);
  Command identifyLeds =
      app.add("identify", "Flashes LEDs so that they are found, faster than any other state",
              "pinlampctl identify PowerSupply2 --for 5min");
  identifyLeds.argument("LED", identified->leds, "Names or patterns; with --stop: default all")
      .completes(Completes::led);
  complete(identifyLeds, context, identified, kDay, kIdentify, &identify);
  Command lampTest =
      app.add("lamp-test", "Lights every LED in one colour after another, then in all; restores",
              "pinlampctl lamp-test --for 30s --skip HighVoltage");
  addExcept(lampTest, "--skip", tested, "LEDs that must not be lit for a test; may be given several times");
  complete(lampTest, context, tested, 3600, kLampTest, &testLamps);
  Command night = app.add("darken", "Darkens all LEDs but faults (rules and requests from level 150 on)",
                          "pinlampctl darken --for 8h --except Status");
  addExcept(night, "--except", darkened, "LEDs that stay as they are; may be given several times");
  complete(night, context, darkened, 7 * kDay, kDarken, &darken);
}

}  // namespace Ctl
