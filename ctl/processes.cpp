#include "ctl/processes.h"

#include <algorithm>
#include <set>
#include <utility>

#include "ctl/appliance.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

Json announcedIn(const Json& status) { return status.value("processes", Json::array()); }

}  // namespace

std::vector<Process> processesOf(const Json& status) {
  std::vector<Process> processes;
  for (const Json& each : announcedIn(status))
    processes.push_back({each.at("pid"), each.at("socket"), each.at("agents"), each.at("publishes")});
  return processes;
}

std::vector<Claim> claimsOf(const Json& status) {
  std::vector<Claim> claims;
  for (const Json& each : status.value("storeState", Json::object()).value("claims", Json::array()))
    claims.push_back(
        {each.at("mount"), each.at("who"), each.at("own"), each.at("orphan"), each.value("covers", false)});
  return claims;
}

Claim claimOf(const Json& status, const std::string& path) {
  const auto claims = claimsOf(status);
  const auto found =
      std::ranges::find_if(claims, [&](const Claim& each) { return each.path == path && !each.isOfCovers; });
  return found == claims.end() ? Claim{.path = path} : *found;
}

std::string text(const Claim& claim) {
  const std::string by = claim.isOfCovers ? "covered by " : "published by ";
  if (claim.who.empty()) return by + "nobody";
  if (claim.isOwn) return by + "this host";
  if (claim.isOrphan)
    return by + "nobody: " + claim.who + " is gone" + (claim.isOfCovers ? "" : ", its rows stay for a while");
  return by + claim.who;
}

namespace {

std::vector<std::string> filledHere(const Json& status) {
  std::vector<std::string> paths;
  for (const Json& mount : status.at("mounts"))
    if (const Json& mode = mount.at("mode"); mode == "wi" || mode == "we") paths.push_back(mount.at("path"));
  for (const Process& process : processesOf(status))
    paths.insert(paths.end(), process.fills.begin(), process.fills.end());
  return paths;
}

}  // namespace

std::vector<std::string> filledPaths(const Json& status) {
  auto paths = filledHere(status);
  for (const Claim& claim : claimsOf(status))
    if (!claim.who.empty() && !claim.isOfCovers) paths.push_back(claim.path);
  return paths;
}

std::optional<bool> isFilled(const Json& status, const std::string& path) {
  const auto here = filledHere(status);
  if (std::ranges::find(here, path) != here.end() || claimOf(status, path).isElsewhere()) return true;
  if (!status.contains("processes")) return std::nullopt;
  return false;
}

namespace {

// The counts of a status, and their types.
constexpr std::pair<const char*, const char*> kCounted[] = {
    {"leds", kLedType}, {"mappings", kMapType}, {"machines", kMachineType}, {"pins", kPinType}};

// The entities of a type where the state is kept, the objects elsewhere.
std::uint64_t countOf(const Json& status, const char* type) {
  const Json counts = status.at("types").value(type, Json::object());
  return counts.value("entities", counts.value("objects", std::uint64_t{0}));
}

Json statusWithCounts(Client& client) {
  Json status = client.call("status");
  for (const auto& [name, type] : kCounted) status[name] = countOf(status, type);
  return status;
}

// The process's own status, or why it does not answer.
Json reportOf(const Json& process) {
  try {
    Client client(process.at("socket"), kProcessTimeout);
    return {{"status", statusWithCounts(client)}};
  } catch (const ConnectionLost& lost) {
    return {{"error", lost.reason()}};
  } catch (const std::exception& error) {
    return {{"error", error.what()}};
  }
}

void addProcesses(Json& status) {
  const auto processes = status.find("processes");
  if (processes == status.end()) return;
  for (Json& process : *processes) {
    process.update(reportOf(process));
    if (!process.contains("status")) continue;
    for (const char* counted : {"machines", "published"})
      status[counted] =
          status.at(counted).get<std::uint64_t>() + process["status"].at(counted).get<std::uint64_t>();
  }
}

}  // namespace

Json wholeStatus(Client& client) {
  Json status = statusWithCounts(client);
  addProcesses(status);
  return status;
}

namespace {

// The entities of a type at a path; none if another host keeps the state database.
Json entitiesOf(Client& client, const char* type, const char* path) {
  try {
    Json entities = client.read(path);
    std::erase_if(entities.get_ref<Json::array_t&>(),
                  [type](const Json& entity) { return entity.at("type") != type; });
    return entities;
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal&) {
    return Json::array();
  }
}

constexpr char kWiringType[] = "Hardware::Gpio::GpioLineInit";

// A status for each wired pin that has a value, as a line agent would publish it.
Json linesOfNobody(Client& client) {
  Json lines = Json::array();
  const Json wirings = entitiesOf(client, kWiringType, Paths::kWirings);
  if (wirings.empty()) return lines;
  std::set<std::string> pins;
  for (const Json& pin : entitiesOf(client, kPinType, Paths::kPins))
    pins.insert(lastName(pin.at("path").get<std::string>()));
  for (const Json& wiring : wirings)
    if (pins.contains(lastName(wiring.at("path").get<std::string>())))
      lines.push_back({{"path", wiring.at("path")},
                       {"attributes", {{"driven", false}, {"error", "no line agent runs"}, {"place", ""}}}});
  return lines;
}

}  // namespace

Json readLines(Client& client, const Json& status) {
  Json lines = entitiesOf(client, kLineStatusType, Paths::kLineStatus);
  return lines.empty() && isFilled(status, Paths::kLineStatus) == false ? linesOfNobody(client) : lines;
}

}  // namespace Ctl
