#include "ctl/requests.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include "ctl/appliance.h"
#include "ctl/events.h"
#include "ctl/output.h"
#include "ctl/processes.h"
#include "ctl/text.h"
#include "platform/model/priorities.h"

namespace Ctl {

namespace {

constexpr double kLongestReport = 5;  // seconds that the policy agent may take

std::string statusPath(const std::string& name) {
  return std::string(Paths::kRequestStatus) + '/' + escapeComponent(name);
}

Json putOf(const Request& request) {
  return {{"op", "put"},
          {"path", requestPath(request.name)},
          {"type", kRequestType},
          {"attributes",
           {{"leds", request.leds},
            {"skip", request.skip},
            {"lightSetting", request.setting},
            {"priority", request.priority},
            {"owner", request.owner},
            {"lasts", request.lasts},
            {"since", request.since}}}};
}

Request requestFrom(const std::string& name, const Json& attributes) {
  return {.name = name,
          .leds = namesIn(attributes, "leds"),
          .skip = namesIn(attributes, "skip"),
          .setting = attributes.value("lightSetting", Json::object()),
          .priority = attributes.value("priority", Json("policy")),
          .owner = attributes.value("owner", ""),
          .lasts = attributes.value("lasts", 0.0),
          .since = attributes.value("since", 0.0)};
}

void addReport(Request& request, const Mirror& reports) {
  const auto* report = reports.find(statusPath(request.name));
  if (!report) return;
  request.state = report->attributes.value("state", "");
  request.asks = report->attributes.value("leds", std::size_t{0});
  request.note = report->attributes.value("note", "");
}

// Also where that is not known.
bool hasPolicyAgent(Client& client) {
  return isFilled(client.call("status"), Paths::kRequestStatus).value_or(true);
}

Json delsOf(const std::vector<Request>& requests) {
  Json changes = Json::array();
  for (const Request& each : requests) changes.push_back({{"op", "del"}, {"path", requestPath(each.name)}});
  return changes;
}

}  // namespace

std::string requestPath(const std::string& name) {
  return std::string(Paths::kRequests) + '/' + escapeComponent(name);
}

std::string priorityText(const Json& priority) {
  if (!priority.is_number_unsigned() || priority > Led::kHighestPriority)
    return priority.is_string() ? priority.get<std::string>() : priority.dump();
  const auto level = priority.get<std::uint32_t>();
  const Led::PriorityClass& its = Led::classOf(level);
  return its.name + (level == its.level ? "" : '+' + std::to_string(level - its.level));
}

std::optional<double> secondsLeft(const Request& request) {
  if (request.lasts == 0 || request.state == "ended") return std::nullopt;
  return request.lasts - (request.since > 0 ? std::max(secondsSince1970() - request.since, 0.0) : 0.0);
}

Json requestJson(const Request& request) {
  const bool isReported = !request.state.empty();
  return {{"name", request.name},
          {"path", requestPath(request.name)},
          {"leds", request.leds},
          {"skip", request.skip},
          {"setting", request.setting},
          {"priority", request.priority},
          {"owner", request.owner},
          {"lasts", request.lasts},
          {"since", request.since},
          {"state", isReported ? Json(request.state) : Json()},
          {"asks", isReported ? Json(request.asks) : Json()},
          {"note", request.note}};
}

std::string userName() {
  const char* before = std::getenv("SUDO_USER");
  if (before && *before && geteuid() == 0) return before;
  const passwd* user = getpwuid(geteuid());
  return user ? user->pw_name : std::to_string(geteuid());
}

double secondsSince1970() {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  return now.count();
}

std::vector<Request> requestsIn(Client& client) {
  Mirror reports;  // those of an agent that is gone stay for a while
  if (hasPolicyAgent(client)) reports.entitiesAre(Paths::kRequestStatus, client.read(Paths::kRequestStatus));
  std::vector<Request> requests;
  for (const Json& entity : client.read(Paths::kRequests)) {
    if (entity.at("type") != kRequestType) continue;
    requests.push_back(requestFrom(lastName(entity.at("path").get<std::string>()), entity.at("attributes")));
    addReport(requests.back(), reports);
  }
  std::ranges::sort(requests, naturallyBefore, &Request::name);
  return requests;
}

void expectPolicyAgent(Client& client, const std::string& command) {
  if (!hasPolicyAgent(client))
    throw Refusal(command +
                  ": no policy agent runs, so no request has an effect; start pinlampd with --agent "
                  "libpinlamp-policy.so as well");
}

namespace {

// The policy agent's reports, as they come.
class Reports {
 public:
  explicit Reports(Client& client) : client_(client) {
    Json begun = client.call("watch", {{"path", Paths::kRequestStatus}});
    watch_ = begun.at("watch");
    mirror_.entitiesAre(Paths::kRequestStatus, std::move(begun.at("entities")));
  }
  ~Reports() { unwatch(); }
  Reports(const Reports&) = delete;
  Reports& operator=(const Reports&) = delete;

  // Whether all of them are reported on in time.
  bool await(const std::vector<Request>& requests) {
    const Instant deadline = afterSeconds(kLongestReport);
    Events events{};
    const auto isReported = [&](const Request& each) { return has(each); };
    for (auto next = requests.begin();;) {
      next = std::find_if_not(next, requests.end(), isReported);
      if (next == requests.end()) return true;
      const Event event = events.next(&client_, deadline);
      if (event.kind != Event::Kind::notification) return false;
      take(event.notification);
    }
  }
  const Mirror& mirror() const { return mirror_; }

 private:
  bool has(const Request& request) const {
    const auto* report = mirror_.find(statusPath(request.name));
    return report && report->attributes.value("since", 0.0) == request.since;
  }
  void take(const Json& notification) {
    const Json& parameters = notification.at("params");
    if (parameters.at("watch") != watch_) return;
    if (notification.at("method") == "reset")
      mirror_.entitiesAre(Paths::kRequestStatus, parameters.at("entities"));
    else
      mirror_.changesAre(parameters.at("changes"));
  }
  void unwatch() noexcept {
    try {
      client_.call("unwatch", {{"watch", watch_}});
    } catch (const std::exception&) {  // the connection's end ends it as well
    }
  }

  Client& client_;
  Json watch_;
  Mirror mirror_;
};

// Those of the owner that have ended, but for the ones that are made again.
std::vector<Request> endedOf(Client& client, const std::vector<Request>& requests) {
  std::vector<Request> ended = requestsIn(client);
  std::erase_if(ended, [&](const Request& each) {
    return each.state != "ended" || each.owner != requests.front().owner ||
           std::ranges::count(requests, each.name, &Request::name) != 0;
  });
  return ended;
}

void expectTaken(Client& client, const std::vector<Request>& requests, bool allReported) {
  std::vector<std::string> errors;
  for (const Request& each : requests)
    if (each.state == "refused") errors.push_back(requestPath(each.name) + ": " + each.note);
  if (!allReported && errors.empty())
    errors.push_back("the policy agent did not report on " + requestPath(requests.front().name) + " within " +
                     shortNumber(kLongestReport) + " s, so the request is withdrawn; see: pinlampctl status");
  if (errors.empty()) return;
  withdraw(client, requests);
  throw Refusal(errors);
}

}  // namespace

std::vector<Request> make(Client& client, std::vector<Request> requests, bool areStored) {
  const double now = std::round(secondsSince1970() * 1000) / 1000;
  for (Request& each : requests) each.since = now;
  Reports reports(client);
  client.writeVolatile(delsOf(endedOf(client, requests)));
  Json puts = Json::array();
  for (const Request& each : requests) puts.push_back(putOf(each));
  areStored ? client.write(puts) : client.writeVolatile(puts);
  const bool allReported = reports.await(requests);
  for (Request& each : requests) addReport(each, reports.mirror());
  expectTaken(client, requests, allReported);
  return requests;
}

void withdraw(Client& client, const std::vector<Request>& requests) { client.write(delsOf(requests)); }

void printRequests(Context& context, const std::vector<Request>& requests, bool json) {
  Json all = Json::array();
  for (const Request& each : requests) {
    all.push_back(requestJson(each));
    if (!each.note.empty()) note(context, requestPath(each.name) + ": " + each.note);
  }
  if (json) printJson(context.out, all);
}

}  // namespace Ctl
