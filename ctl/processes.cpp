#include "ctl/processes.h"

#include <algorithm>
#include <utility>

#include "ctl/appliance.h"

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

std::optional<bool> isFilled(const Json& status, const std::string& path) {
  for (const Json& mount : status.at("mounts"))
    if (mount.at("path") == path && mount.at("mode") == "wi") return true;
  if (!status.contains("processes")) return std::nullopt;
  return std::ranges::any_of(processesOf(status), [&](const Process& process) {
    return std::ranges::find(process.fills, path) != process.fills.end();
  });
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

}  // namespace Ctl
