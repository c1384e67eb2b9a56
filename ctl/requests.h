// Requests for LEDs, and the policy agent's reports on them. docs/policy.md explains what shows.
//
//   std::vector<Request> wanted{{.name = "find", .leds = {"Fan1"}, .setting = flash}};
//   make(context.client(), wanted);            // returns once the policy agent has taken it
//   withdraw(context.client(), requestsIn(context.client()));
#pragma once

#include <string>
#include <vector>

#include "ctl/client.h"
#include "ctl/context.h"

namespace Ctl {

inline constexpr char kRequestType[] = "Hardware::Led::LightRequest";

// Seconds between two toggles of an LED that is to be found. Nothing else should flash as fast.
inline constexpr double kIdentifyFlash = 0.1;

struct Request {
  std::string name;
  std::vector<std::string> leds{};  // names and patterns
  std::vector<std::string> skip{};
  Json setting = Json::object();
  Json priority = "policy";  // the name of a class, or a level
  std::string owner{};
  double lasts = 0;  // seconds; 0: until withdrawn
  double since = 0;  // seconds since 1970

  // As the policy agent reports; empty, 0 and empty where it did not.
  std::string state{};  // "active", "ended" or "refused"
  std::size_t asks = 0;
  std::string note{};
};

std::string requestPath(const std::string& name);
// "operator", or "operator+49" for a level above that of its class.
std::string priorityText(const Json& priority);
// The seconds that are left of a time; nullopt without an end.
std::optional<double> secondsLeft(const Request& request);
Json requestJson(const Request& request);

// The person who runs this program: also where they do by sudo.
std::string userName();
double secondsSince1970();

// Every request, in natural order of the names.
std::vector<Request> requestsIn(Client& client);

// Throws Refusal where no policy agent runs, so that requests would have no effect.
void expectPolicyAgent(Client& client, const std::string& command);

// Writes requests of one owner, as made now, in one step: volatile ones, or stored ones. Removes ended ones
// of that owner, and returns once the policy agent has reported on all, with its reports. Throws Refusal
// where it refuses one or does not report in time; none of them is there then. REQUIRES: not empty.
std::vector<Request> make(Client& client, std::vector<Request> requests, bool areStored = false);

// Prints them as a JSON array, or their notes on the error stream.
void printRequests(Context& context, const std::vector<Request>& requests, bool json);

// Removes requests, whether volatile or stored.
void withdraw(Client& client, const std::vector<Request>& requests);

}  // namespace Ctl
