// board: brings in the files that an appliance's maker ships, and shows which rows they brought.
#include <algorithm>
#include <ostream>

#include "ctl/boardfiles.h"
#include "ctl/context.h"
#include "ctl/output.h"
#include "ctl/progress.h"
#include "ctl/statefile.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

struct BoardArguments {
  std::string folder = kBoardFolder;
  bool dryRun = false;
  bool all = false;
  bool json = false;
};

using Outcomes = std::map<std::string, BoardMerge::Outcome>;

// The changes to each file's rows, made or to be made.
struct Plan {
  std::vector<BoardFile> files;
  Json entities;  // of the whole state
  BoardVersions brought, wanted;
  Outcomes outcomes;
  Json changes = Json::array();
};

void compare(Plan& plan, Client& client) {
  plan.brought = broughtFrom(client.read(kBoardMemory));
  plan.wanted = versionsOf(plan.files, plan.brought);
  plan.changes = Json::array();
  plan.outcomes.clear();
  if (plan.wanted == plan.brought) return;
  plan.entities = client.readBase("");
  plan.brought = broughtFrom(plan.entities);
  plan.wanted = versionsOf(plan.files, plan.brought);
  const BoardEntities state = stateFrom(plan.entities);
  const BoardMerge merge(plan.brought, plan.wanted, state);
  plan.changes = merge.changes();
  plan.outcomes = merge.outcomes();
}

// Adds the host's errors to the files that have them.
void takeErrors(Plan& plan, const Refusal& refusal) {
  bool any = false;
  for (const std::string& line : linesOf(refusal.what())) any = takeError(plan.files, line) || any;
  if (!any) throw refusal;
}

// Writes the plan as one batch. Makes another plan where the host refuses a file, and where the state has
// changed since it was read, as by another host that applies the same files.
void carryOut(Plan& plan, Client& client) {
  constexpr int kMostRaces = 8;
  for (int races = 0; !plan.changes.empty();) {
    try {
      return client.write(plan.changes);
    } catch (const ConnectionLost&) {
      throw;
    } catch (const Refusal& refusal) {
      const Json refused = plan.changes;
      compare(plan, client);
      if (plan.changes != refused && ++races <= kMostRaces) continue;
      takeErrors(plan, refusal);
    }
    compare(plan, client);
  }
}

const char* stateOf(const Plan& plan, const std::string& name) {
  const auto file = std::ranges::find(plan.files, name, &BoardFile::name);
  if (file == plan.files.end()) return "gone";
  if (file->isRefused()) return "refused";
  return plan.brought.contains(name) && plan.brought.at(name) == plan.wanted.at(name) ? "unchanged"
         : plan.brought.contains(name)                                                ? "changed"
                                                                                      : "new";
}

std::vector<std::string> errorsOf(const BoardFile& file) {
  std::vector<std::string> all = file.errors;
  all.insert(all.end(), file.clashes.begin(), file.clashes.end());
  return all;
}

std::vector<std::string> errorsOf(const Plan& plan, const std::string& name) {
  const auto file = std::ranges::find(plan.files, name, &BoardFile::name);
  return file == plan.files.end() ? std::vector<std::string>() : errorsOf(*file);
}

// The files that are there, and those that were.
std::set<std::string> namesOf(const Plan& plan) {
  std::set<std::string> names;
  for (const BoardFile& file : plan.files) names.insert(file.name);
  for (const auto& [name, entities] : plan.brought) names.insert(name);
  return names;
}

BoardMerge::Outcome outcomeOf(const Plan& plan, const std::string& name) {
  const auto found = plan.outcomes.find(name);
  return found == plan.outcomes.end() ? BoardMerge::Outcome() : found->second;
}

Json outcomeJson(const Plan& plan, const std::string& name) {
  const auto outcome = outcomeOf(plan, name);
  return {{"file", name},           {"state", stateOf(plan, name)}, {"errors", errorsOf(plan, name)},
          {"added", outcome.added}, {"changed", outcome.changed},   {"removed", outcome.removed},
          {"kept", outcome.kept}};
}

void printRows(std::ostream& out, const char* what, const std::vector<std::string>& rows) {
  for (const std::string& row : rows) out << "  " << what << ' ' << bare(row) << '\n';
}

std::string countsText(const BoardMerge::Outcome& outcome) {
  std::string text;
  const auto add = [&](const std::vector<std::string>& rows, const char* what) {
    if (!rows.empty()) text += (text.empty() ? "; " : ", ") + std::to_string(rows.size()) + what;
  };
  add(outcome.added, " added");
  add(outcome.changed, " changed");
  add(outcome.removed, " removed");
  add(outcome.kept, " kept as people set them");
  return text;
}

void printOutcome(std::ostream& out, const Plan& plan, const std::string& name, bool all) {
  const auto outcome = outcomeOf(plan, name);
  out << bare(name) << ": " << stateOf(plan, name) << countsText(outcome) << '\n';
  if (!all) return;
  printRows(out, "add   ", outcome.added);
  printRows(out, "change", outcome.changed);
  printRows(out, "remove", outcome.removed);
  printRows(out, "keep  ", outcome.kept);
}

void throwErrors(const Plan& plan) {
  std::vector<std::string> errors;
  for (const BoardFile& file : plan.files)
    for (const std::string& line : errorsOf(file)) errors.push_back(line);
  if (errors.empty()) return;
  errors.push_back("board: the files with errors are left out, and what they brought before stays");
  throw Refusal(errors);
}

void apply(Context& context, const BoardArguments& given) {
  Plan plan{boardFilesIn(given.folder), {}, {}, {}, {}};
  if (!given.dryRun) makeStateFile(context.target);
  compare(plan, context.client());
  if (!given.dryRun) carryOut(plan, context.client());
  Json all = Json::array();
  for (const std::string& name : namesOf(plan)) {
    if (given.json)
      all.push_back(outcomeJson(plan, name));
    else
      printOutcome(context.out, plan, name, given.dryRun);
  }
  if (given.json)
    printJson(context.out, {{"written", !given.dryRun && !plan.changes.empty()}, {"files", all}});
  if (!given.json && given.dryRun) context.out << "dry run, nothing is written\n";
  throwErrors(plan);
}

const char* textOf(BoardRow::State state) {
  using enum BoardRow::State;
  return state == brought ? "brought" : state == changed ? "changed" : "removed";
}

Json rowJson(const BoardRow& row) {
  return {{"path", row.path},
          {"attribute", row.attribute.empty() ? Json() : Json(row.attribute)},
          {"state", textOf(row.state)},
          {"brought", row.brought},
          {"now", row.now}};
}

void printRow(std::ostream& out, const BoardRow& row) {
  out << "  " << textOf(row.state) << ' ' << bare(row.path);
  if (!row.attribute.empty()) out << ' ' << bare(row.attribute);
  out << ": " << oneLine(row.brought);
  if (row.state == BoardRow::State::changed) out << ", now " << oneLine(row.now);
  out << '\n';
}

void printFile(std::ostream& out, const Plan& plan, const std::string& name,
               const std::vector<BoardRow>& rows, bool all) {
  const auto isOthers = [](const BoardRow& row) { return row.state != BoardRow::State::brought; };
  out << bare(name) << ": " << stateOf(plan, name) << "; " << rows.size() << " rows, "
      << std::ranges::count_if(rows, isOthers) << " changed or removed since\n";
  for (const std::string& error : errorsOf(plan, name)) out << "  error " << bare(error) << '\n';
  for (const BoardRow& row : rows)
    if (all || isOthers(row)) printRow(out, row);
}

void status(Context& context, const BoardArguments& given) {
  Plan plan{boardFilesIn(given.folder), context.client().readBase(""), {}, {}, {}};
  plan.brought = broughtFrom(plan.entities);
  plan.wanted = versionsOf(plan.files, plan.brought);
  const BoardEntities state = stateFrom(plan.entities);
  Json files = Json::array();
  for (const std::string& name : namesOf(plan)) {
    const auto brought = plan.brought.find(name);
    const auto rows =
        brought == plan.brought.end() ? std::vector<BoardRow>() : rowsOf(brought->second, state);
    if (!given.json) printFile(context.out, plan, name, rows, given.all);
    Json all = Json::array();
    for (const BoardRow& row : rows) all.push_back(rowJson(row));
    files.push_back(
        {{"file", name}, {"state", stateOf(plan, name)}, {"errors", errorsOf(plan, name)}, {"rows", all}});
  }
  if (given.json) printJson(context.out, {{"folder", given.folder}, {"files", files}});
}

Command addTo(Command& group, const std::shared_ptr<BoardArguments>& given, const char* name,
              const char* description, const char* example) {
  Command command = group.add(name, description, example);
  command.argument("--folder", given->folder, "The folder of the board files; those named *.json count")
      .completes(Completes::file)
      .valueName("FOLDER")
      .showDefault();
  command.jsonFlag(given->json);
  return command;
}

}  // namespace

void addBoardCommands(Command& app, Context& context) {
  const auto given = std::make_shared<BoardArguments>();
  Command group = app.addGroup("board", "Brings in the maker's board files, and shows their rows",
                               "pinlampctl board status");
  Command applying = addTo(group, given, "apply",
                           "Brings in what board files have, changes and removes what they had before, and "
                           "keeps what people set, all or nothing",
                           "pinlampctl board apply --dry-run");
  applying.flag("--dry-run", given->dryRun, "Print what would change, and write nothing");
  applying.runs([&context, given] { apply(context, *given); });
  Command showing = addTo(group, given, "status",
                          "Shows the board files and the rows of theirs that were changed or removed since",
                          "pinlampctl board status --all");
  showing.flag("--all", given->all, "Show the rows that are as they were brought, too");
  showing.runs([&context, given] { status(context, *given); });
}

}  // namespace Ctl
