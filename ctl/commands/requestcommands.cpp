// request: what people and agents ask the policy agent to show.
#include "ctl/requests.h"

#include <cmath>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/ledwords.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

std::string spanText(double seconds) {
  if (seconds < 120) return shortNumber(std::ceil(seconds)) + " s";
  if (seconds < 7200) return shortNumber(std::round(seconds / 60)) + " min";
  return shortNumber(std::round(seconds / 3600)) + " h";
}

std::string stateText(const Request& request) {
  const auto left = secondsLeft(request);
  const std::string state = request.state.empty() ? "not shown" : request.state;
  return state + (left ? ", " + spanText(*left) + " left" : "");
}

std::string settingText(const Json& setting) {
  Lamp lamp;
  settingIs(lamp, setting);
  return lamp.settingText();
}

std::string ledsText(const Request& request) {
  return joined(request.leds) + (request.skip.empty() ? "" : " but " + joined(request.skip));
}

std::vector<Request> named(Client& client, const std::vector<std::string>& patterns) {
  std::vector<Request> requests = requestsIn(client);
  if (patterns.empty()) return requests;
  std::set<std::string> known, wanted;
  for (const Request& each : requests) known.insert(each.name);
  for (const std::string& pattern : patterns) wanted.merge(expandName("request", pattern, known));
  std::erase_if(requests, [&](const Request& each) { return !wanted.contains(each.name); });
  return requests;
}

void list(Context& context, const std::vector<std::string>& patterns, bool json) {
  const auto requests = named(context.client(), patterns);
  if (json) return printRequests(context, requests, true);
  Table table;
  table.add({"REQUEST", "STATE", "PRIORITY", "OWNER", "SETTING", "LEDS"});
  for (const Request& each : requests)
    table.add({each.name, stateText(each), priorityText(each.priority), each.owner, settingText(each.setting),
               ledsText(each)});
  table.print(context.out);
  printRequests(context, requests, false);
}

void addList(Command& request, Context& context) {
  struct Given {
    std::vector<std::string> patterns;
    bool json = false;
  };
  const auto given = std::make_shared<Given>();
  Command command = request.add("list", "Lists requests: their states, priorities, owners and LEDs",
                                "pinlampctl request list 'identify-*'");
  command.argument("NAME", given->patterns, "Names or patterns (default: all)").completes(Completes::request);
  command.jsonFlag(given->json);
  command.runs([&context, given] { list(context, given->patterns, given->json); });
}

struct Adding {
  Request request{};
  std::vector<std::string> words;
  std::optional<double> flash;
  std::string priority = "operator";
  bool isStored = false;
  bool json = false;
};

// A level, or a name, which the host checks.
Json priorityFrom(const std::string& text) {
  const bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  return isNumber && text.size() < 10 ? Json(std::stoul(text)) : Json(text);
}

void add(Context& context, const Adding& given) {
  const LedWords words = splitLedWords(given.words, given.flash, "request add");
  if (words.colours.empty()) throw UsageError("request add: no colour is given; colours are " + colourList());
  Request request = given.request;
  if (request.owner.empty()) request.owner = userName();
  request.leds = words.names;
  request.setting = lightSetting(Json::object(), words.colours, given.flash);
  request.priority = priorityFrom(given.priority);
  Client& client = context.host("request add");
  expectPolicyAgent(client, "request add");
  printRequests(context, make(client, {request}, given.isStored), given.json);
}

void addAdd(Command& parent, Context& context) {
  const auto given = std::make_shared<Adding>();
  Command command = parent.add("add", "Asks for LEDs; a request of the same name is replaced",
                               "pinlampctl request add rack7 'Ethernet4*' yellow --flash 1 --for 2h");
  command.argument("REQUEST", given->request.name, "Its name").completes(Completes::request).required();
  command
      .argument("LEDS-THEN-COLOURS", given->words,
                "Names or patterns; then orange, green, red, yellow or off")
      .completes(Completes::ledThenColour)
      .required();
  command.argument("--flash", given->flash, "Seconds between two toggles, or 500ms; 0 for steady").duration();
  command
      .argument("--priority", given->priority,
                "base, policy, operator, identify, lampTest, or a number from 0 to 499")
      .completes(Completes::priority)
      .valueName("CLASS")
      .showDefault();
  command.argument("--for", given->request.lasts, "How long, such as 60, 5min or 8h; 0: until it is deleted")
      .duration()
      .showDefault();
  command.argument("--skip", given->request.skip, "LEDs to leave alone; may be given several times")
      .completes(Completes::led)
      .valueName("PATTERN")
      .oneEach();
  command.argument("--owner", given->request.owner, "The person or program behind it (default: you)")
      .valueName("TEXT");
  command.flag("--stored", given->isStored, "Keep it when pinlampd restarts");
  command.jsonFlag(given->json);
  command.runs([&context, given] { add(context, *given); });
}

void addDel(Command& parent, Context& context) {
  struct Given {
    std::vector<std::string> patterns;
    bool json = false;
  };
  const auto given = std::make_shared<Given>();
  Command command = parent.add("del", "Withdraws requests", "pinlampctl request del rack7");
  command.argument("NAME", given->patterns, "Names or patterns").completes(Completes::request).required();
  command.jsonFlag(given->json);
  command.runs([&context, given] {
    const auto requests = named(context.client(), given->patterns);
    withdraw(context.client(), requests);
    if (given->json) printRequests(context, requests, true);
  });
}

}  // namespace

void addRequestCommands(Command& app, Context& context) {
  Command request =
      app.addGroup("request", "Shows, adds and withdraws requests for LEDs", "pinlampctl request list");
  addList(request, context);
  addAdd(request, context);
  addDel(request, context);
}

}  // namespace Ctl
