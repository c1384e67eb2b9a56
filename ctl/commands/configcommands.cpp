#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "ctl/configuration.h"
#include "ctl/context.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

// Bytes of one file; bounds memory.
constexpr std::size_t kLongestFile = std::size_t{256} << 20;

std::string contentsOf(std::istream& in, const std::string& file) {
  std::string text;
  char chunk[65536];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    text.append(chunk, static_cast<std::size_t>(in.gcount()));
    if (text.size() > kLongestFile) throw Refusal(file + ": has more than 256 MiB");
  }
  if (in.bad()) throw Refusal("can't read '" + file + "': " + std::strerror(errno));
  return text;
}

Configuration::Source sourceFrom(const std::string& file) {
  if (file == "-") return {"standard input", contentsOf(std::cin, "standard input")};
  std::error_code ignored;
  if (std::filesystem::is_directory(file, ignored))
    throw Refusal("can't read '" + file + "': it is a directory; name the files in it, such as " + file +
                  "/*.json");
  std::ifstream in(file, std::ios::binary);
  if (!in) throw Refusal("can't read '" + file + "': " + std::strerror(errno));
  return {file, contentsOf(in, file)};
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

struct Loading {
  std::vector<std::string> files;
  bool replace = false;
  bool dryRun = false;
  bool force = false;
};

Configuration configurationFrom(const Loading& given) {
  std::vector<Configuration::Source> sources;
  for (const std::string& file : given.files) sources.push_back(sourceFrom(file));
  Configuration configuration(std::move(sources));
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

// Prefixes the host's errors with their positions in the files.
void write(Client& client, const Configuration& configuration, Json changes) {
  try {
    client.write(std::move(changes));
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal& refusal) {
    std::vector<std::string> lines = linesOf(refusal.what());
    for (std::string& line : lines) line = configuration.located(line);
    throw Refusal(lines);
  }
}

void load(Context& context, const Loading& given) {
  const Configuration configuration = configurationFrom(given);
  Client& client = context.client();
  const bool compares = given.replace || given.dryRun;
  const Json entities = compares ? client.read("") : Json::array();
  Json changes = given.replace ? configuration.dels(entities, client.filled()) : Json::array();
  const Differences differences = configuration.differences(entities, changes);
  for (Json& put : configuration.puts()) changes.push_back(std::move(put));
  if (!given.dryRun) write(client, configuration, std::move(changes));
  if (compares) printDifferences(context.out, differences);
  context.out << bare(joined(given.files)) << ": " << configuration.size() << " entities"
              << (given.dryRun ? "" : " loaded") << (compares ? "; " + countsText(differences) : "")
              << (given.dryRun ? "; dry run, nothing is written" : "") << '\n';
}

void dump(Context& context, const std::string& path, bool all) {
  const Json entities = context.client().read(path);
  if (entities.empty() && !path.empty())
    throw Refusal("there is nothing at '" + path + "'; see: pinlampctl get");
  context.out << (all ? wholeText(entities) : configurationText(entities, context.client().filled()));
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
