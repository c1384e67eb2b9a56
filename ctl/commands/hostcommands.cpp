#include <map>
#include <ostream>
#include <utility>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/output.h"
#include "ctl/processes.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

void trace(Context& context, const std::string& levels, bool json) {
  Json parameters = Json::object();
  if (!levels.empty()) parameters["levels"] = levels;
  const Json facilities = context.host("trace").call("trace", parameters).at("facilities");
  if (json) {
    printJson(context.out, facilities);
    return;
  }
  Table table;
  for (const auto& [facility, on] : facilities.items()) table.add({facility, on == "" ? "-" : bare(on)});
  table.print(context.out);
}

std::string durationText(double seconds) {
  const auto whole = static_cast<long>(seconds);
  const long parts[] = {whole / 86400, whole / 3600 % 24, whole / 60 % 60, whole % 60};
  char text[64];
  std::snprintf(text, sizeof text, "%ld d %02ld:%02ld:%02ld", parts[0], parts[1], parts[2], parts[3]);
  return text;
}

std::string agentsText(const Json& agents) {
  std::vector<std::string> texts;
  for (const Json& agent : agents)
    texts.push_back(bare(agent.at("name")) + " (" + bare(agent.at("library")) + ")");
  return texts.empty() ? "none" : joined(texts);
}

void printMounts(std::ostream& out, const Json& mounts) {
  Table table;
  for (const Json& mount : mounts)
    table.add({" ", bare(mount.at("path")), bare(mount.at("type")), bare(mount.at("mode")),
               mount.at("complete").get<bool>() ? "complete" : "waiting"});
  table.print(out);
}

std::string refusalsText(const Json& status) {
  const std::string count = status.at("refusals").dump();
  const std::string last = bare(status.value("lastRefusal", Json("")));
  return last.empty() || last == "null" ? count : count + ", last: " + last;
}

// Adds the number of driven lines, and the errors of the others, with the lines that have the same. In a
// shared state database they may be those of a line agent that is gone.
void addLines(Table& table, const Json& lines, const Json& status) {
  if (lines.empty()) return;
  const bool known = isFilled(status, Paths::kLineStatus) != false;
  std::map<std::string, std::vector<std::string>> failed;
  std::size_t driven = 0;
  for (const Json& line : lines) {
    const Json& state = line.at("attributes");
    if (state.value("driven", false))
      ++driven;
    else
      failed[state.value("error", "")].push_back(lastName(line.at("path").get<std::string>()));
  }
  table.add({"lines", std::to_string(driven) + " driven, " + std::to_string(lines.size() - driven) + " not" +
                          (known || driven == 0 ? "" : ", when a line agent ran last")});
  for (const auto& [error, names] : failed) table.add({"", firstOf(names) + ": " + error});
}

// A process, its agents and what they do, or why it did not answer.
std::string processText(const Json& process) {
  const std::string name = process.at("pid").dump() + ' ' + agentsText(process.at("agents")) + ": ";
  if (process.contains("error")) return name + "not counted here: " + bare(process.at("error"));
  const Json& status = process.at("status");
  return name + bare(status.at("machines")) + " machines, " + bare(status.at("published")) +
         " values published, through --socket " + bare(process.at("socket"));
}

void addProcessRows(Table& table, const Json& status) {
  std::string title = "processes";
  for (const Json& process : status.value("processes", Json::array()))
    table.add({std::exchange(title, ""), processText(process)});
}

std::string storeText(const Json& status) {
  const Json state = status.value("storeState", Json::object());
  const std::string reason = bare(state.value("reason", Json("")));
  const std::string why = reason.empty() ? " yet" : ": " + reason;
  return bare(status.at("store")) + (state.value("reached", true) ? "" : ", not reached" + why);
}

// The claims of a shared store: paths, and their publishers on any machine.
void printClaims(std::ostream& out, const Json& status) {
  const auto claims = claimsOf(status);
  if (claims.empty()) return;
  out << "claims\n";
  Table table;
  for (const Claim& claim : claims) table.add({" ", claim.path, text(claim)});
  table.print(out);
}

// The values of one status.
struct StatusText {
  const Json& status;
  std::string operator()(const char* name) const { return bare(status.at(name)); }
};

void addProcessRow(Table& table, const Json& status) {
  const StatusText text{status};
  table.add({"pinlampd", text("version") + ", process " + text("pid") + ", up " +
                             durationText(status.at("uptime").get<double>())});
}

void addAgentRows(Table& table, const Json& status) {
  table.add({"agents", agentsText(status.at("agents"))});
  addProcessRows(table, status);
}

// The contents of the database, and with a host what its agents made of them.
void addContentRows(Table& table, const Json& status, const Json& lines, bool hasHost) {
  const StatusText text{status};
  table.add({"LEDs", text("leds") + " configured, " + text("mappings") + " mapped" +
                         (hasHost ? ", " + text("machines") + " machines" : "")});
  table.add({"pins", text("pins") + (hasHost ? ", " + text("published") + " values published" : "")});
  addLines(table, lines, status);
  table.add({"entities", text("entities") + (hasHost ? ", " + text("names") + " names" : "")});
}

void addLoopRows(Table& table, const Json& status) {
  const StatusText text{status};
  table.add({"loop", text("passes") + " passes, " + text("deliveries") + " deliveries, " + text("expiries") +
                         " ticks, worst lateness " +
                         shortNumber(status.at("worstLateness").get<double>() * 1000) + " ms"});
  table.add({"clients", text("clients")});
  table.add({"refusals", refusalsText(status)});
  table.add({"mounts", status.at("mounts").empty() ? "none" : ""});
}

void printStatus(std::ostream& out, const Json& status, const Json& lines) {
  Table table;
  addProcessRow(table, status);
  table.add({"store", storeText(status)});
  addAgentRows(table, status);
  addContentRows(table, status, lines, true);
  addLoopRows(table, status);
  table.print(out);
  printMounts(out, status.at("mounts"));
  printClaims(out, status);
}

void printStatusWithoutHost(std::ostream& out, const Json& status, const Json& lines) {
  Table table;
  table.add({"host", "none: this command opened the store by itself"});
  table.add({"store", storeText(status)});
  addContentRows(table, status, lines, false);
  table.print(out);
  printClaims(out, status);
}

void showStatus(Context& context, bool json) {
  Json status = wholeStatus(context.client());
  const Json lines = readLines(context.client(), status);
  for (const Json& line : lines)
    status["lines"][lastName(line.at("path").get<std::string>())] = line.at("attributes");
  if (!context.target.hasHost()) status["host"] = false;
  if (json)
    printJson(context.out, status);
  else if (context.target.hasHost())
    printStatus(context.out, status, lines);
  else
    printStatusWithoutHost(context.out, status, lines);
}

void addTrace(Command& app, Context& context) {
  struct Arguments {
    std::string levels;
    bool json = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = app.add("trace", "Shows or sets the trace levels of the running host",
                            "pinlampctl trace Pinlamp/3,6-9");
  command.argument("FACILITY/LEVELS", given->levels, "Numbers and ranges; '*' for all, empty for none")
      .completes(Completes::facility);
  command.jsonFlag(given->json);
  command.runs([&context, given] { trace(context, given->levels, given->json); });
}

void addStatus(Command& app, Context& context) {
  const auto json = std::make_shared<bool>(false);
  Command command = app.add("status", "Shows the state of the host and its agents", "pinlampctl status");
  command.jsonFlag(*json);
  command.runs([&context, json] { showStatus(context, *json); });
}

}  // namespace

void addHostCommands(Command& app, Context& context) {
  addTrace(app, context);
  addStatus(app, context);
}

}  // namespace Ctl
