#include "ctl/complete.h"

#include <CLI/App.hpp>
#include <algorithm>
#include <functional>
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/objects.h"
#include "ctl/requests.h"
#include "ctl/text.h"
#include "platform/model/priorities.h"
#include "platform/zel/core/printable.h"

namespace Ctl {

namespace {

using Names = std::set<std::string>;

// The cursor's position in the command line.
struct Position {
  const CLI::App* command = nullptr;
  const Completions* completions = nullptr;
  const CLI::Option* valueOf = nullptr;    // the option whose value comes next
  std::vector<std::string> positionals{};  // given so far to `command`
  Target target{};
};

const CLI::Option* optionNamed(const CLI::App* app, const std::string& word) {
  for (; app; app = app->get_parent())
    for (const CLI::Option* option : app->get_options())
      if (option->check_name(word) && word.starts_with('-')) return option;
  return nullptr;
}

bool takesMany(const CLI::Option& option) { return option.get_items_expected_max() > 1; }

const CLI::App* subcommandNamed(const CLI::App& app, const std::string& word) {
  for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; }))
    if (each->get_name() == word) return each;
  return nullptr;
}

void takeValue(Position& at, const CLI::Option& option, const std::string& value) {
  if (option.check_name("--socket")) at.target.socket = value;
  if (option.check_name("--store")) at.target.store = value;
  if (option.check_name("--types")) at.target.types.push_back(value);
}

void takeWord(Position& at, const std::string& word) {
  if (at.valueOf && !word.starts_with('-')) {
    takeValue(at, *at.valueOf, word);
    if (!takesMany(*at.valueOf)) at.valueOf = nullptr;
    return;
  }
  at.valueOf = nullptr;
  if (word.starts_with('-')) {
    const std::size_t assigned = word.find('=');
    const CLI::Option* option = optionNamed(at.command, word.substr(0, assigned));
    if (option && assigned != std::string::npos) return takeValue(at, *option, word.substr(assigned + 1));
    if (option && option->get_items_expected_max() > 0) at.valueOf = option;
  } else if (const CLI::App* next = subcommandNamed(*at.command, word)) {
    if (next->get_name() != "help") at.command = next;  // the words after help are commands
  } else {
    at.positionals.push_back(word);
  }
}

// The positional argument that the next word fills; null if none. The last one repeats if it takes many.
const CLI::Option* nextPositional(const Position& at) {
  std::vector<const CLI::Option*> positionals;
  for (const CLI::Option* option : at.command->get_options())
    if (option->get_positional()) positionals.push_back(option);
  if (positionals.empty()) return nullptr;
  if (at.positionals.size() < positionals.size()) return positionals[at.positionals.size()];
  return takesMany(*positionals.back()) ? positionals.back() : nullptr;
}

Names optionNames(const CLI::App* app) {
  Names names;
  for (; app; app = app->get_parent())
    for (const CLI::Option* option : app->get_options())
      for (const std::string& name : option->get_lnames()) names.insert("--" + name);
  return names;
}

Names subcommandNames(const CLI::App& app) {
  Names names;
  for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; }))
    names.insert(each->get_name());
  return names;
}

Names colourWords() {
  Names names{"off"};
  for (const Colour& colour : kColours) names.insert(colour.name);
  return names;
}

Names priorityWords() {
  Names names;
  for (const Led::PriorityClass& each : Led::kPriorityClasses) names.insert(each.name);
  return names;
}

Names requestNames(Client& client) {
  Names names;
  for (const Request& each : requestsIn(client)) names.insert(each.name);
  return names;
}

Names pinNames(Client& client) {
  Names names;
  for (const auto& [pin, value] : pinsOf(readAppliance(client))) names.insert(pin);
  return names;
}

// The paths that begin with `begun`, cut after their next component; with a '/' if they have more.
Names pathsFrom(Client& client, const std::string& begun) {
  Names names;
  for (const Json& entity : client.read("")) {
    const std::string path = entity.at("path");
    if (path.starts_with(begun)) names.insert(upToSlash(path, begun.size()));
  }
  std::erase_if(names, [&](const std::string& name) { return names.contains(name + '/'); });
  return names;
}

Names typeNames(Client& client) {
  Names names;
  for (const Json& type : client.types()) names.insert(type.at("name").get<std::string>());
  return names;
}

Names attributeNames(Client& client, const std::string& path) {
  const Json entities = client.read(path);
  if (entities.empty() || entities.front().at("path") != path) return {};
  const auto names = client.attributesOf(entities.front().at("type"));
  return {names.begin(), names.end()};
}

// The object paths that complete the last component of `begun`; with a '/' if they may have more.
Names objectsFrom(Client& client, const std::string& begun) {
  const std::size_t slash = begun.rfind('/');
  const std::string above = slash == std::string::npos ? "" : begun.substr(0, slash);
  Names names;
  if (above.empty()) names.insert("agent/");
  for (const Json& next : callObject(client, "list", above)) {
    const std::string kind = next.at("kind");
    const bool leaf = kind == "value" || kind == "procedure" || kind == "names";
    names.insert((above.empty() ? "" : above + '/') + next.at("name").get<std::string>() + (leaf ? "" : "/"));
  }
  return names;
}

Names proceduresAt(Client& client, const std::string& path) {
  Names names;
  for (const Json& next : callObject(client, "list", path))
    if (next.at("kind") == "procedure") names.insert(next.at("name").get<std::string>());
  return names;
}

Names facilityNames(Client& client) {
  Names names;
  const Json facilities = client.call("trace").at("facilities");
  for (const auto& [name, levels] : facilities.items()) names.insert(name + '/');
  return names;
}

Names fromHost(Client& client, Completes what, const Position& at, const std::string& begun) {
  switch (what) {
    case Completes::led:
    case Completes::ledThenColour:
      return namesOf(lampsOf(readAppliance(client)));
    case Completes::pin:
      return pinNames(client);
    case Completes::path:
      return pathsFrom(client, begun);
    case Completes::attribute:
      return attributeNames(client, at.positionals.empty() ? "" : at.positionals.front());
    case Completes::facility:
      return facilityNames(client);
    case Completes::object:
      return objectsFrom(client, begun);
    case Completes::procedure:
      return proceduresAt(client, at.positionals.empty() ? "" : at.positionals.front());
    case Completes::type:
      return typeNames(client);
    case Completes::request:
      return requestNames(client);
    case Completes::nothing:
    case Completes::file:
    case Completes::colour:
    case Completes::priority:
      break;
  }
  return {};
}

// The candidates for the argument at the cursor. Ignores an unreachable host: the shell would not show an
// error.
Names argumentNames(Context& context, const Position& at, const CLI::Option* argument,
                    const std::string& begun) {
  const auto known = at.completions->find(argument);
  if (known == at.completions->end()) return {};
  const Completes what = known->second;
  if (what == Completes::file) return {":files"};
  if (what == Completes::priority) return priorityWords();
  const bool colours =
      what == Completes::colour || (what == Completes::ledThenColour && !at.positionals.empty());
  Names names = colours ? colourWords() : Names();
  try {
    names.merge(fromHost(context.client(), what, at, begun));
  } catch (const std::exception&) {
    return names;
  }
  return names;
}

Names candidates(Context& context, const Position& at, const std::string& begun) {
  if (begun.starts_with('-')) return optionNames(at.command);
  if (at.valueOf) return argumentNames(context, at, at.valueOf, begun);
  Names names = at.positionals.empty() ? subcommandNames(*at.command) : Names();
  if (const CLI::Option* argument = nextPositional(at))
    names.merge(argumentNames(context, at, argument, begun));
  return names;
}

}  // namespace

int printCandidates(const CLI::App& app, const Completions& completions, Context& context,
                    const std::vector<std::string>& words) {
  Position at{&app, &completions};
  if (const char* socket = std::getenv("PINLAMP_SOCKET")) at.target.socket = socket;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) takeWord(at, words[i]);
  context.target = at.target;
  const std::string begun = words.empty() ? "" : words.back();
  for (const std::string& name : candidates(context, at, begun))
    if ((name.starts_with(begun) || name == ":files") && name == Zel::printable(name))
      context.out << name << '\n';
  return 0;
}

}  // namespace Ctl
