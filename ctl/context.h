// The state that all commands share, and the list of commands.
#pragma once

#include <array>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "ctl/command.h"
#include "ctl/target.h"

namespace Ctl {

class Context {
 public:
  Context(std::ostream& output, std::ostream& errors) : out(output), err(errors) {}

  // The connection, opened on first use.
  Client& client();
  // The same for a command that shows or changes a running host. Throws UsageError if there is none.
  Client& host(const std::string& command);

  std::ostream& out;
  std::ostream& err;
  Target target;

 private:
  std::unique_ptr<Client> client_;
};

// Prints a remark on the error stream.
void note(Context& context, const std::string& text);

// Each adds the commands of one file.
void addConfigCommands(Command& parent, Context& context);   // load, dump
void addLedCommands(Command& parent, Context& context);      // led …
void addMapCommands(Command& parent, Context& context);      // map …
void addLightCommands(Command& parent, Context& context);    // identify, lamp-test, darken
void addRequestCommands(Command& parent, Context& context);  // request …
void addEntityCommands(Command& parent, Context& context);   // get, set, del, types
void addWatchCommand(Command& parent, Context& context);
void addWaitCommand(Command& parent, Context& context);
void addCheckCommand(Command& parent, Context& context);
void addBoardCommands(Command& parent, Context& context);  // board …
void addPanelCommand(Command& parent, Context& context);
void addRecordCommand(Command& parent, Context& context);
void addHostCommands(Command& parent, Context& context);  // trace, status
void addMetricsCommand(Command& parent, Context& context);
void addObjectCommands(Command& parent, Context& context);  // object …
void addWhyCommand(Command& parent, Context& context);
void addStoreCommands(Command& parent, Context& context);  // store …

// In the order of the help text.
inline constexpr std::array kCommandGroups{
    addLedCommands,    addLightCommands, addRequestCommands, addPanelCommand,   addMapCommands,
    addConfigCommands, addCheckCommand,  addBoardCommands,   addEntityCommands, addWatchCommand,
    addWaitCommand,    addRecordCommand, addHostCommands,    addMetricsCommand, addObjectCommands,
    addWhyCommand,     addStoreCommands};

// Runs one command line, without the program's name; returns the exit status: 0, 1 (refused) or 2 (usage).
int runCommandLine(std::vector<std::string> arguments, std::ostream& out, std::ostream& err);

}  // namespace Ctl
