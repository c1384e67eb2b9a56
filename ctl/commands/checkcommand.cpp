// check: finds mistakes in configuration files, without a host.
#include <algorithm>
#include <filesystem>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/boardfiles.h"
#include "ctl/check.h"
#include "ctl/configuration.h"
#include "ctl/context.h"
#include "ctl/lightcheck.h"
#include "ctl/output.h"
#include "ctl/ownhost.h"
#include "ctl/sources.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

struct Checking {
  std::vector<std::string> files;
  bool strict = false;
  bool json = false;
};

// The refusals of a host, as "PATH: REASON" or "PATH ATTRIBUTE: REASON".
std::vector<std::string> refusals(Client& client, const Json& puts) {
  Json changes = Json::array({{{"op", "put"}, {"path", Paths::kLeds}, {"type", kLedDirType}},
                              {{"op", "put"}, {"path", Paths::kInitialLeds}, {"type", kLedDirType}},
                              {{"op", "put"}, {"path", Paths::kMappings}, {"type", kMapDirType}}});
  for (const Json& put : puts) changes.push_back(put);
  try {
    client.write(changes);
    return {};
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal& refusal) {
    return linesOf(refusal.what());
  }
}

Json findingJson(const Finding& finding) {
  return {{"kind", finding.isNote ? "note" : "error"}, {"path", finding.path}, {"text", finding.text}};
}

// The files, with those in folders, which are board files.
std::vector<std::string> filesIn(const Checking& given, bool& areBoardFiles) {
  std::vector<std::string> files;
  std::error_code ignored;
  for (const std::string& file : given.files) {
    if (!std::filesystem::is_directory(file, ignored)) {
      files.push_back(file);
      continue;
    }
    areBoardFiles = true;
    for (const std::string& each : boardPathsIn(file)) files.push_back(each);
  }
  return files;
}

// Returns what a host would refuse, found by one of this command's own with an empty state database in
// memory; where it would refuse nothing, what it would take and leave without effect.
std::vector<Finding> allFindings(const Context& context, const Configuration& configuration,
                                 bool areBoardFiles) {
  const Json puts = configuration.puts();
  std::vector<Finding> all;
  for (const Json& put : puts)
    if (const std::string path = put.at("path"), fault = boardFaultOf(path); areBoardFiles && !fault.empty())
      all.push_back({path, fault});
  Client client(std::make_unique<OwnHost>("memory:", context.target.types), "pinlampd");
  for (const std::string& line : refusals(client, puts)) {
    const std::size_t end = line.find(": ");
    const bool hasPath = end != std::string::npos;
    all.push_back({hasPath ? line.substr(0, end) : "", hasPath ? line.substr(end + 2) : line});
  }
  if (!all.empty()) return all;  // values of a wrong kind can't be looked into
  all = findingsIn(puts);
  for (Finding& each : lightFindingsIn(puts, client.types())) all.push_back(std::move(each));
  std::ranges::stable_sort(all, {}, &Finding::path);
  return all;
}

void check(Context& context, const Checking& given) {
  bool areBoardFiles = false;
  const Configuration configuration(sourcesFrom(filesIn(given, areBoardFiles)));
  const auto findings = allFindings(context, configuration, areBoardFiles);
  Json all = Json::array();
  for (const Finding& each : findings) {
    all.push_back(findingJson(each));
    if (!given.json)
      context.out << bare(configuration.located(each.path + ": " + (each.isNote ? "note: " : "") + each.text))
                  << '\n';
  }
  if (given.json) printJson(context.out, all);
  const auto notes = static_cast<std::size_t>(std::ranges::count(findings, true, &Finding::isNote));
  const std::size_t errors = findings.size() - notes;
  const std::string counts = joined(given.files) + ": " + std::to_string(configuration.size()) +
                             " entities, errors: " + std::to_string(errors) +
                             ", notes: " + std::to_string(notes);
  if (errors > 0 || (given.strict && notes > 0)) throw Refusal("check: " + counts);
  if (!given.json) context.out << bare(counts) << '\n';
}

}  // namespace

void addCheckCommand(Command& app, Context& context) {
  const auto given = std::make_shared<Checking>();
  Command command = app.add("check", "Finds mistakes in configuration files, without a host",
                            "pinlampctl check examples/switch-1u.json examples/switch-1u-wiring.json");
  command
      .argument("FILE", given->files,
                "Files as for load, or folders of board files, checked together; - for standard input")
      .completes(Completes::file)
      .required();
  command.flag("--strict", given->strict, "Fail for notes, too");
  command.jsonFlag(given->json);
  command.runs([&context, given] { check(context, *given); });
}

}  // namespace Ctl
