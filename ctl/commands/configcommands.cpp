#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "ctl/configuration.h"
#include "ctl/context.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

std::string contentsOf(const std::string& file) {
  if (file == "-") return {std::istreambuf_iterator<char>(std::cin), {}};
  std::ifstream in(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(in), {}};
  if (!in.is_open() || in.bad()) throw Refusal("can't read '" + file + "': " + std::strerror(errno));
  return text;
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

void load(Context& context, const std::string& file, bool replace) {
  const Configuration configuration(file == "-" ? "standard input" : file, contentsOf(file));
  Client& client = context.client();
  Json changes = replace ? configuration.dels(client.read(""), client.filled()) : Json::array();
  for (Json& put : configuration.puts()) changes.push_back(std::move(put));
  try {
    client.write(std::move(changes));
  } catch (const ConnectionLost&) {
    throw;
  } catch (const Refusal& refusal) {
    std::vector<std::string> lines = linesOf(refusal.what());
    for (std::string& line : lines) line = configuration.located(line);
    throw Refusal(lines);
  }
  context.out << file << ": " << configuration.size() << " entities loaded\n";
}

void dump(Context& context, const std::string& path, bool all) {
  const Json entities = context.client().read(path);
  if (entities.empty() && !path.empty())
    throw Refusal("there is nothing at '" + path + "'; see: pinlampctl get");
  context.out << (all ? wholeText(entities) : configurationText(entities, context.client().filled()));
}

void addLoad(Command& app, Context& context) {
  struct Arguments {
    std::string file;
    bool replace = false;
  };
  const auto given = std::make_shared<Arguments>();
  Command command = app.add("load", "Loads a configuration file, all or nothing",
                            "pinlampctl load examples/switch-1u.json");
  command.argument("FILE", given->file, "The file, as dump writes it; - for standard input")
      .completes(Completes::file)
      .required();
  command.flag("--replace", given->replace, "Delete entities that are not in the file");
  command.runs([&context, given] { load(context, given->file, given->replace); });
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
