// pinlampd: see docs/ or --help.
#include <malloc.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "host/host.h"
#include "host/io/log.h"
#include "host/io/traceoutput.h"
#include "host/refusals.h"
#include "host/rpc/rpc.h"
#include "host/store/stores.h"
#include "platform/cell/cell.h"
#include "platform/zel/core/trace.h"

namespace {

// Blocks of at least so many bytes, such as long messages, are mapped. The allocator would raise this after
// the first of them, and then merge all free blocks of the heap whenever one is freed.
constexpr int kLargeBlock = 256 * 1024;

enum Exit { kStopped = 0, kRefused = 1, kUsage = 2, kFault = 70 };

struct CommandLine {
  Host::Options host;
  std::vector<std::string> agents;
  std::vector<std::string> traces;
  std::string whenLost;
  std::string traceFile;
  std::uint16_t cell = 1;
};

// Turns what `read` throws into what CLI11 wants of a check: a text, empty where all is well.
template <class Read>
auto checkedBy(Read read) {
  return [read](const std::string& text) -> std::string {
    try {
      read(text);
    } catch (const std::exception& error) {
      return error.what();
    }
    return {};
  };
}

void describe(CLI::App& app, CommandLine& line) {
  app.add_option("--store", line.host.store, "where the state is kept: " + Host::storeUrls())
      ->type_name("URL")
      ->capture_default_str();
  app.add_option("--when-lost", line.whenLost,
                 "light settings to show once the state database was out of reach for that time: "
                 "10s='Status=red flash 1; Beacon=off'; they end when it is back")
      ->type_name("TIME=LED=COLOURS[; …]")
      ->check(checkedBy(Host::Fallback::parse));
  app.add_option("--agent", line.agents,
                 "an agent to load, with its options; may be given several times (namespace: Pinlamp)")
      ->type_name("LIBRARY[:NAMESPACE[:NAME]][?OPTION=VALUE[&OPTION=VALUE]]")
      ->expected(1)
      ->take_all()
      ->check(checkedBy(Host::AgentOption::parse));
  app.add_option("--types", line.host.types,
                 "a library to load for the types of its entities alone, such as that of an agent which runs "
                 "elsewhere; may be given several times")
      ->type_name("LIBRARY")
      ->expected(1)
      ->take_all();
  app.add_option("--client", line.host.client)->group("");  // of pinlampctl --store: not in the help
  app.add_option("--socket", line.host.socket, "the control socket")
      ->type_name("PATH")
      ->envname(Host::kSocketVariable)
      ->capture_default_str();
  app.add_option("--max-clients", line.host.maxClients,
                 "clients of the socket at a time (default: 1000, and fewer where the process may "
                 "open few files)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_flag("--allow-object-writes", line.host.allowObjectWrites,
               "let clients of the socket set, delete and invoke live objects, not only read them; for "
               "trials, as a wrong "
               "call can end the host");
  app.add_option("--trace", line.traces,
                 "trace levels to switch on: Pinlamp/3,6-9; may be given several times")
      ->type_name("FACILITY/LEVELS")
      ->expected(1)
      ->take_all()
      ->check(checkedBy(Zel::traceLevelsIs));
  app.add_option("--trace-file", line.traceFile, "append trace records to a file instead of standard error")
      ->type_name("FILE");
  app.add_option("--cell", line.cell, "the cell that this process runs on")
      ->type_name("N")
      ->capture_default_str();
  app.set_version_flag("--version", "pinlampd " PINLAMP_VERSION);
  app.footer(
      "Exit status: 0 stopped by a signal, 1 the start was refused, 2 a wrong command line, 70 an agent "
      "threw.\n"
      "Example: pinlampd --store sqlite:/var/lib/pinlamp/state.db --agent libpinlamp.so --trace Pinlamp/3,6");
}

void writeLine(int descriptor, std::string_view text) {
  std::string line(text);
  line += '\n';
  for (std::string_view rest = line; !rest.empty();) {
    const ssize_t written = ::write(descriptor, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

// Lives as long as the process: records may come until its end.
Host::TraceOutput& traceOutput(const std::string& file) {
  return file.empty() ? Host::TraceOutput::standardError()
                      : *new Host::TraceOutput(Host::TraceOutput::appendingTo(file));
}

void prepare(CommandLine& line) {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);  // a write beyond a file-size limit fails with EFBIG instead
  for (const std::string& agent : line.agents) line.host.agents.push_back(Host::AgentOption::parse(agent));
  if (!line.whenLost.empty()) line.host.whenLost = Host::Fallback::parse(line.whenLost);
  for (const std::string& levels : line.traces) Zel::traceLevelsIs(levels);
  Zel::traceSinkIs(
      [isFile = !line.traceFile.empty(), &output = traceOutput(line.traceFile)](std::string_view record) {
        const std::string prefix = isFile ? "" : Host::journalPrefix(Host::priorityOf(record));
        output.write(prefix.empty() ? record : prefix + std::string(record));
      });
  Cell::cellIdIs(line.cell);
  if (line.host.client) ::unsetenv("NOTIFY_SOCKET");  // of the service that runs pinlampctl
}

int failed(const std::exception& error, Exit status) {
  Host::log(Host::Priority::error, error.what());
  return status;
}

// A fault ends the process at once: nothing that it may have left half done runs on.
void serve(Host::Host& host) {
  try {
    host.run();
  } catch (const std::exception& error) {
    const int status = failed(error, kFault);
    host.abandon();
    std::_Exit(status);
  }
}

// The only client prints it.
int refused(const std::exception& error, const std::optional<int>& client) {
  if (!client) return failed(error, kRefused);
  writeLine(*client, Host::errorText({}, Host::RpcError(Host::RpcCode::store, error.what())));
  return kRefused;
}

int start(const Host::Options& options, Host::Refusals& refusals) {
  for (;;) {
    try {
      Host::Host host(options);
      serve(host);
      return kStopped;
    } catch (const Zel::HandlerFault& fault) {
      return failed(fault, kFault);
    } catch (const std::exception& error) {
      if (!refusals.waits(error.what())) throw;
    }
  }
}

int run(CommandLine& line) {
  try {
    prepare(line);
    Host::Refusals refusals;
    return start(line.host, refusals);
  } catch (const std::exception& error) {
    return refused(error, line.host.client);
  }
}

}  // namespace

int main(int argc, char** argv) {
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  CommandLine line;
  CLI::App app("Loads LED agents and gives them the state database.", "pinlampd");
  describe(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kStopped : kUsage;
  }
  return run(line);
}
