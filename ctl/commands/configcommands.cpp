#include <ostream>

#include "ctl/configuration.h"
#include "ctl/context.h"
#include "ctl/output.h"
#include "ctl/progress.h"
#include "ctl/sources.h"
#include "ctl/statefile.h"
#include "ctl/text.h"
#include "ctl/upload.h"

namespace Ctl {

namespace {

struct Loading {
  std::vector<std::string> files;
  bool replace = false;
  bool dryRun = false;
  bool force = false;
  bool json = false;

  // Whether it prints what it changes.
  bool compares() const { return replace || dryRun || json; }
};

Configuration configurationFrom(const Loading& given, const Configuration::OnEntity& onEntity) {
  Configuration configuration(sourcesFrom(given.files), onEntity);
  if (given.replace && configuration.size() == 0 && !given.force)
    throw Refusal(joined(given.files) +
                  ": no entities; --replace would remove everything that is not an "
                  "agent's; to do that, add --force");
  return configuration;
}

void printPaths(std::ostream& out, const char* what, const std::vector<std::string>& paths) {
  for (const std::string& path : paths) out << what << ' ' << bare(path) << '\n';
}

void printDifferences(std::ostream& out, const Differences& all) {
  printPaths(out, "add   ", all.added);
  printPaths(out, "change", all.changed);
  printPaths(out, "remove", all.removed);
}

std::string countsText(const Differences& all) {
  return std::to_string(all.added.size()) + " added, " + std::to_string(all.changed.size()) + " changed, " +
         std::to_string(all.removed.size()) + " removed";
}

Client::Sent shownBy(Progress& progress) {
  return [&](std::size_t count, bool isAll) {
    progress.show(isAll ? "sent all changes; waiting until they are stored"
                        : "sent " + std::to_string(count) + " changes");
  };
}

// Prefixes the host's errors with their positions in the files.
void write(Context& context, const Configuration& configuration, const Json& dels, Upload& upload,
           const Client::Sent& sent) {
  try {
    if (upload.finish()) return;
    Client::Batch batch;
    for (const Json& del : dels) batch.add(del.dump());
    configuration.addPuts(batch);
    context.client().write(batch, sent);
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal& refusal) {
    std::vector<std::string> lines = linesOf(refusal.what());
    for (std::string& line : lines) line = configuration.located(line);
    throw Refusal(lines);
  }
}

void printLoaded(std::ostream& out, const Loading& given, std::size_t entities, const Differences& all) {
  if (given.json)
    return printJson(out, {{"files", given.files},
                           {"entities", entities},
                           {"written", !given.dryRun},
                           {"added", all.added},
                           {"changed", all.changed},
                           {"removed", all.removed}});
  if (given.compares()) printDifferences(out, all);
  out << bare(joined(given.files)) << ": " << entities << " entities" << (given.dryRun ? "" : " loaded")
      << (given.compares() ? "; " + countsText(all) : "")
      << (given.dryRun ? "; dry run, nothing is written" : "") << '\n';
}

void load(Context& context, const Loading& given) {
  Progress progress(context.err);
  const Client::Sent sent = shownBy(progress);
  Upload upload([&]() -> Client& { return context.client(); }, sent);
  // A file that is refused must leave no new state file.
  const bool isEarly = !given.compares() && context.target.hasHost();
  const Configuration configuration = configurationFrom(given, [&](const Configuration::Entry& entry) {
    if (isEarly) upload.add(entry);
  });
  if (!given.dryRun) makeStateFile(context.target);
  Client& client = context.client();
  const Json entities = given.compares() ? client.readBase("") : Json::array();
  const Json dels = given.replace ? configuration.dels(entities, client.filled()) : Json::array();
  const Differences differences =
      given.compares() ? configuration.differences(entities, dels) : Differences();
  if (!given.dryRun) write(context, configuration, dels, upload, sent);
  progress.clear();
  printLoaded(context.out, given, configuration.size(), differences);
}

void dump(Context& context, const std::string& path, bool all) {
  Progress progress(context.err);
  Client& client = context.client();
  auto writer = all ? ConfigurationWriter() : ConfigurationWriter(client.filled());
  client.readBase({path}, writer,
                  [&](std::size_t bytes) { progress.show("read " + std::to_string(bytes >> 20) + " MiB"); });
  progress.clear();
  if (!path.empty() && !writer.hasSeen())
    throw Refusal("there is nothing at '" + path + "'; see: pinlampctl get");
  context.out << writer.text();
}

void addLoad(Command& app, Context& context) {
  const auto given = std::make_shared<Loading>();
  Command command = app.add("load", "Loads configuration files together, all or nothing",
                            "pinlampctl load examples/switch-1u.json examples/switch-1u-wiring.json");
  command.argument("FILE", given->files, "Files as dump writes them; - for standard input")
      .completes(Completes::file)
      .required();
  command.flag("--replace", given->replace,
               "Remove what the files lack at and under their own paths; print what changes");
  command.flag("--dry-run", given->dryRun, "Print what would change, and write nothing");
  command.flag(
      "--force", given->force,
      "With --replace: take files without entities, which removes everything that is not an agent's");
  command.jsonFlag(given->json);
  command.runs([&context, given] { load(context, *given); });
}

void addDump(Command& app, Context& context) {
  struct Arguments {
    std::string path;
    bool all = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = app.add("dump", "Prints the configuration, sorted, one entity per line",
                            "pinlampctl dump hardware/led/config > leds.json");
  command.argument("PATH", given->path, "Only entities at and under this path").completes(Completes::path);
  command.flag("--all", given->all, "Include what agents fill: pin values, line status");
  command.runs([&context, given] { dump(context, given->path, given->all); });
}

}  // namespace

void addConfigCommands(Command& app, Context& context) {
  addLoad(app, context);
  addDump(app, context);
}

}  // namespace Ctl
