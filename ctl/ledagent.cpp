#include "ctl/ledagent.h"

#include <algorithm>

#include "ctl/objects.h"
#include "ctl/processes.h"
#include "ctl/text.h"

namespace Ctl {

namespace {
constexpr char kAgentType[] = "Pinlamp::Agent";
}  // namespace

LedAgent::LedAgent(Client& host, const Json& status) {
  if (const Claim pins = claimOf(status, Paths::kPins); pins.isElsewhere()) {
    error_ = "the LED agent runs in " + pins.who + ", whose live objects are out of reach here";
    return;
  }
  try {
    if (findIn(host)) return;
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal& refusal) {
    error_ = refusal.what();
  }
  for (const Process& process : processesOf(status)) {
    try {
      own_ = std::make_unique<Client>(process.socket, kProcessTimeout);
      socket_ = process.socket;
      if (findIn(*own_)) return;
    } catch (const ConnectionLost& lost) {
      error_ = "process " + std::to_string(process.pid) + ' ' + lost.reason();
    } catch (const Refusal& refusal) {
      error_ = refusal.what();
    }
  }
  if (!status.contains("processes")) error_ = "the host does not list the processes that run agents";
}

// "agent" is an alias of a process's first agent.
bool LedAgent::findIn(Client& client) {
  const Json objects = callObject(client, "list", "");
  bool first = true;
  for (const Json& object : objects) {
    if (object.at("kind") != "agent") continue;
    if (object.at("type") == kAgentType) {
      client_ = &client;
      path_ = first ? "agent" : object.at("name").get<std::string>();
      error_.clear();
      return true;
    }
    first = false;
  }
  return false;
}

std::optional<bool> LedAgent::runs() const {
  if (client_) return true;
  if (error_.empty()) return false;
  return std::nullopt;
}

Json LedAgent::ask(const std::string& operation, const std::string& path) const {
  return callObject(*client_, operation, path);
}

bool LedAgent::hasMember(const std::string& collection, const std::string& name) const {
  try {
    ask("get", collection + '/' + escapeComponent(name));
    return true;
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal&) {
    ask("iterate", collection);  // throws if there is no such collection
    return false;
  }
}

namespace {
constexpr char kDrivenLeds[] = "/configReactor/corvelLedSystemConfig/gpioLeds";
}

std::string LedAgent::pinsPath(const std::string& led, std::size_t colour) const {
  return path_ + kDrivenLeds + '/' + escapeComponent(led) + '/' + kColours[colour].drivenPins;
}

bool LedAgent::isDetached(const std::string& led, std::size_t colour, const std::string& pin) const {
  return ask("get", pinsPath(led, colour) + '/' + escapeComponent(pin) + "/parent").is_null();
}

std::optional<PerColour<std::vector<std::string>>> LedAgent::pinsOf(const std::string& led) const {
  if (!hasMember(path_ + kDrivenLeds, led)) return std::nullopt;
  PerColour<std::vector<std::string>> pins;
  for (std::size_t i = 0; i < kColours.size(); ++i) {
    pins[i] = ask("iterate", pinsPath(led, i));
    std::sort(pins[i].begin(), pins[i].end(), naturallyBefore);
  }
  return pins;
}

std::optional<LedAgent::Machine> LedAgent::machineOf(const std::string& led) const {
  const std::string collection = path_ + "/configReactor/gpioLedStateMachine";
  if (!hasMember(collection, led)) return std::nullopt;
  Machine machine;
  machine.path = collection + '/' + escapeComponent(led);
  machine.initialized = ask("get", machine.path + "/initialized").get<bool>();
  machine.lit = ask("get", machine.path + "/flashingState").get<bool>();
  const Json object = ask("get", machine.path);
  if (const auto wakesIn = object.find("wakesIn"); wakesIn != object.end() && wakesIn->is_number())
    machine.tickIn = std::max(0.0, wakesIn->get<double>());
  return machine;
}

}  // namespace Ctl
