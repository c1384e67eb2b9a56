// What every command works with, and how commands are put together.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>

#include "ctl/client.h"

namespace Ctl {

// What an argument names, so that it can be completed.
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
  object,
  procedure
};

class Context {
 public:
  Context(std::ostream& output, std::ostream& errors) : out(output), err(errors) {}

  // The connection, made on first use. Waits up to `wait` seconds for a host whose mounts are complete.
  Client& client();

  // Notes what an argument names; returns it.
  CLI::Option* completes(CLI::Option* argument, Completes what);
  Completes completionOf(const CLI::Option* argument) const;

  std::ostream& out;
  std::ostream& err;
  std::string socket = "/run/pinlamp/control.sock";
  double wait = 0;

 private:
  std::unique_ptr<Client> connect() const;

  std::unique_ptr<Client> client_;
  std::map<const CLI::Option*, Completes> completions_;
};

// Tells a person something beside the result.
void note(Context& context, const std::string& text);

// Adds a sub-command whose help ends with an example.
CLI::App* addCommand(CLI::App& above, const std::string& name, const std::string& does,
                     const std::string& example);
// Adds `--json`.
void addJsonFlag(CLI::App& command, bool& json);

// Each adds one group of commands.
void addConfigCommands(CLI::App& app, Context& context);  // load, dump
void addLedCommands(CLI::App& app, Context& context);     // led …
void addMapCommands(CLI::App& app, Context& context);     // map …
void addEntityCommands(CLI::App& app, Context& context);  // get, set, del, types
void addWatchCommand(CLI::App& app, Context& context);
void addPanelCommand(CLI::App& app, Context& context);
void addRecordCommand(CLI::App& app, Context& context);
void addHostCommands(CLI::App& app, Context& context);    // trace, status
void addObjectCommands(CLI::App& app, Context& context);  // object …
void addWhyCommand(CLI::App& app, Context& context);

// Fills `app` with the options and commands of pinlampctl.
void addAllCommands(CLI::App& app, Context& context);

// Runs one command line, without the program's name; returns the exit status: 0, 1 (refused) or 2 (usage).
int runCommandLine(std::vector<std::string> arguments, std::ostream& out, std::ostream& err);

}  // namespace Ctl
