#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

#include "ctl/complete.h"
#include "ctl/context.h"
#include "ctl/text.h"
#include "platform/zel/core/printable.h"

namespace Ctl {

namespace {

constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr double kLongestWait = 3600;  // seconds

// The innermost command on the command line.
const CLI::App& reached(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : reached(*chosen.front());
}

// The command as the user types it.
std::string commandText(const CLI::App& command) {
  return (command.get_parent() ? commandText(*command.get_parent()) + ' ' : "") + command.get_name();
}

// The error for an unknown command; empty if the command is known.
std::string unknownCommand(const CLI::App& command, const std::vector<std::string>& left) {
  std::set<std::string> known;
  for (const CLI::App* each : command.get_subcommands([](const CLI::App*) { return true; }))
    known.insert(each->get_name());
  if (known.empty() || left.empty()) return {};
  return "there is no command '" + left.front() + "'" + hint(left.front(), known);
}

void printHelp(std::ostream& out, const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  for (const std::string& word : words) {
    const auto next =
        command->get_subcommands([&word](const CLI::App* each) { return each->get_name() == word; });
    if (next.empty()) throw UsageError(unknownCommand(*command, {word}));
    command = next.front();
  }
  out << app.get_formatter()->make_help(command, commandText(*command), CLI::AppFormatMode::Normal);
}

void addHelp(CLI::App& app, Context& context) {
  const auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* help = app.add_subcommand("help", "Shows the help of a command");
  help->footer("Example: pinlampctl help led set");
  help->add_option("COMMAND", *words, "The command, such as led set");
  help->callback([&app, &context, words] { printHelp(context.out, app, *words); });
}

void describe(CLI::App& app, Completions& completions, Context& context) {
  app.name("pinlampctl");
  app.description("Shows and sets the LEDs of an appliance through pinlampd.");
  app.footer("Example: pinlampctl led set Ethernet3/1 green --flash 0.5");
  Command all(app, completions);
  all.argument("--socket", context.target.socket, "The control socket of pinlampd")
      .completes(Completes::file)
      .fromEnvironment(Host::kSocketVariable);
  all.argument(
         "--store", context.target.store,
         "A state database to use without a host, instead of a socket: sqlite:FILE that no pinlampd has "
         "open, or one that several share")
      .valueName("URL");
  all.argument("--types", context.target.types,
               "With --store: a library whose types of entities it has; may be given several times")
      .valueName("LIBRARY")
      .completes(Completes::file)
      .oneEach();
  all.argument("--wait", context.target.wait, "How long to wait for pinlampd or the store to be ready")
      .duration()
      .within(0, kLongestWait);
  app.set_version_flag("-V,--version", "pinlampctl " PINLAMP_VERSION);
  app.require_subcommand(1);
  for (const auto addGroup : kCommandGroups) addGroup(all, context);
  addHelp(app, context);
}

int usage(const CLI::App& app, std::ostream& err, const std::string& what) {
  const CLI::App& command = reached(app);
  const std::string unknown = unknownCommand(command, app.remaining(true));
  err << "pinlampctl: " << Zel::printable(unknown.empty() ? what.substr(0, what.find('\n')) : unknown)
      << "; see: " << commandText(command) << " --help\n";
  return kUsage;
}

int parseAndRun(CLI::App& app, std::vector<std::string> arguments, std::ostream& out, std::ostream& err) {
  std::reverse(arguments.begin(), arguments.end());
  try {
    app.parse(std::move(arguments));
    return 0;
  } catch (const CLI::Success& success) {
    return app.exit(success, out, err);
  } catch (const CLI::ParseError& error) {
    return usage(app, err, error.what());
  } catch (const UsageError& error) {
    return usage(app, err, error.what());
  }
}

// Makes a stream throw std::ios::failure where it can't be written, while this lives.
class Failing {
 public:
  explicit Failing(std::ostream& out) : out_(out) { out_.exceptions(std::ios::badbit); }
  ~Failing() { out_.exceptions(std::ios::goodbit); }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;

 private:
  std::ostream& out_;
};

int run(CLI::App& app, Completions& completions, Context& context, std::vector<std::string> arguments) {
  if (!arguments.empty() && arguments.front() == "complete")
    return printCandidates(app, completions, context, {arguments.begin() + 1, arguments.end()});
  return parseAndRun(app, std::move(arguments), context.out, context.err);
}

}  // namespace

int runCommandLine(std::vector<std::string> arguments, std::ostream& out, std::ostream& err) {
  Context context(out, err);
  CLI::App app;
  Completions completions;
  describe(app, completions, context);
  try {
    const Failing failing(out);  // ends `watch` at the first line that can't be written
    const int status = run(app, completions, context, std::move(arguments));
    out.flush();
    return status;
  } catch (const Refusal& refusal) {
    err << "pinlampctl: " << refusal.what() << '\n';
  } catch (const Json::exception& error) {
    err << "pinlampctl: " << Zel::printable(context.target.name())
        << " sent an unexpected message: " << Zel::printable(error.what()) << '\n';
  } catch (const std::ios::failure&) {
    if (!out.bad()) throw;
    err << "pinlampctl: can't write to standard output: " << std::strerror(errno)
        << "; what was printed is incomplete\n";
  }
  return kRefused;
}

}  // namespace Ctl
