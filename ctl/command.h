// Commands and their arguments. Hides the command-line library, so that commands compile quickly.
//
//   struct Given {
//     std::string path;
//     bool json = false;
//   };
//   const auto given = std::make_shared<Given>();
//   Command command = parent.add("get", "Shows an entity", "pinlampctl get hardware/led/config");
//   command.argument("PATH", given->path, "The entity").completes(Completes::path).required();
//   command.runs([&context, given] { get(context, given->path); });
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Ctl {

// The kind of an argument, for shell completion.
enum class Completes {
  nothing,
  led,
  ledThenColour,
  pin,
  path,
  attribute,
  facility,
  type,
  file,
  colour,
  object,
  procedure,
  request,
  priority
};
using Completions = std::map<const CLI::Option*, Completes>;

// A positional argument, an option or a flag. Copies refer to the same one.
class Argument {
 public:
  Argument() = default;
  Argument(CLI::Option* option, Completions* completions) : option_(option), completions_(completions) {}

  Argument& required(bool needed = true);
  Argument& completes(Completes what);
  // Accepts units of time after the number, which is in seconds: 500ms, 2s, 5min, 1h.
  Argument& duration();
  // Accepts only numbers from `least` to `most`.
  Argument& within(double least, double most);
  // Takes one value each time it is given, not all the words that follow.
  Argument& oneEach();
  // Leaves the argument out of the list in the help text.
  Argument& hidden();
  // Names the value in the help text.
  Argument& valueName(const std::string& name);
  // Shows the value that it has without the argument in the help text.
  Argument& showDefault();
  // Takes the value from an environment variable if the command line has none. Help shows the default.
  Argument& fromEnvironment(const std::string& variable);

  // Whether the command line had it. Valid once that is parsed.
  bool given() const;

 private:
  CLI::Option* option_ = nullptr;
  Completions* completions_ = nullptr;
};

// A command, or pinlampctl itself. Copies refer to the same one.
class Command {
 public:
  Command(CLI::App& app, Completions& completions) : app_(&app), completions_(&completions) {}

  // Adds a subcommand; its help ends with the example.
  Command add(const std::string& name, const std::string& description, const std::string& example);
  // Adds a command that requires one of its subcommands.
  Command addGroup(const std::string& name, const std::string& description, const std::string& example);

  // Adds an option if the name begins with "--", else a positional argument. The value is stored in `into`,
  // which must live until the command has run, and keeps its value if the argument is not given.
  Argument argument(const std::string& name, std::string& into, const std::string& help);
  Argument argument(const std::string& name, std::vector<std::string>& into, const std::string& help);
  Argument argument(const std::string& name, double& into, const std::string& help);
  Argument argument(const std::string& name, std::optional<double>& into, const std::string& help);
  Argument argument(const std::string& name, std::size_t& into, const std::string& help);
  Argument flag(const std::string& name, bool& into, const std::string& help);
  // Adds `--json`.
  void jsonFlag(bool& json);

  // Calls `action` if the command is given, once its arguments are parsed.
  void runs(std::function<void()> action);

 private:
  template <class T>
  Argument option(const std::string& name, T& into, const std::string& help);

  CLI::App* app_;
  Completions* completions_;
};

}  // namespace Ctl
