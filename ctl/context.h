// The state that all commands share, and the list of commands.
#pragma once

#include <array>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "ctl/client.h"
#include "ctl/command.h"

namespace Ctl {

class Context {
 public:
  Context(std::ostream& output, std::ostream& errors) : out(output), err(errors) {}

  // The connection, made on first use. Waits up to `wait` seconds for a host whose mounts are complete.
  Client& client();

  std::ostream& out;
  std::ostream& err;
  std::string socket = "/run/pinlamp/control.sock";
  double wait = 0;

 private:
  std::unique_ptr<Client> connect() const;

  std::unique_ptr<Client> client_;
};

// Tells a person something beside the result.
void note(Context& context, const std::string& text);

// Each adds one group of commands.
void addConfigCommands(Command& above, Context& context);  // load, dump
void addLedCommands(Command& above, Context& context);     // led …
void addMapCommands(Command& above, Context& context);     // map …
void addEntityCommands(Command& above, Context& context);  // get, set, del, types
void addWatchCommand(Command& above, Context& context);
void addPanelCommand(Command& above, Context& context);
void addRecordCommand(Command& above, Context& context);
void addHostCommands(Command& above, Context& context);    // trace, status
void addObjectCommands(Command& above, Context& context);  // object …
void addWhyCommand(Command& above, Context& context);

// In the order of the help text.
inline constexpr std::array kCommandGroups{
    addLedCommands,  addPanelCommand,  addMapCommands,  addConfigCommands, addEntityCommands,
    addWatchCommand, addRecordCommand, addHostCommands, addObjectCommands, addWhyCommand};

// Runs one command line, without the program's name; returns the exit status: 0, 1 (refused) or 2 (usage).
int runCommandLine(std::vector<std::string> arguments, std::ostream& out, std::ostream& err);

}  // namespace Ctl
