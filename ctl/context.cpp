#include "ctl/context.h"

#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>

#include "platform/zel/core/printable.h"

namespace Ctl {

namespace {

constexpr double kLongestWait = 3600;  // seconds
constexpr std::chrono::milliseconds kRetry{20};

bool isReady(Client& client) {
  const Json status = client.call("status");
  return std::ranges::all_of(status.at("mounts"),
                             [](const Json& mount) { return mount.at("complete").get<bool>(); });
}

}  // namespace

Client& Context::client() {
  if (!client_) client_ = connect();
  return *client_;
}

std::unique_ptr<Client> Context::connect() const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait);
  for (;; std::this_thread::sleep_for(kRetry)) {
    const bool last = std::chrono::steady_clock::now() >= deadline;
    try {
      auto client = std::make_unique<Client>(socket);
      if (last || isReady(*client)) return client;
    } catch (const ConnectionLost&) {
      if (last) throw;
    }
  }
}

CLI::Option* Context::completes(CLI::Option* argument, Completes what) {
  completions_[argument] = what;
  return argument;
}

Completes Context::completionOf(const CLI::Option* argument) const {
  const auto found = completions_.find(argument);
  return found == completions_.end() ? Completes::nothing : found->second;
}

void note(Context& context, const std::string& text) {
  context.err << "note: " << Zel::printable(text) << '\n';
}

CLI::App* addCommand(CLI::App& above, const std::string& name, const std::string& does,
                     const std::string& example) {
  CLI::App* command = above.add_subcommand(name, does);
  command->footer("Example: " + example);
  command->fallthrough();
  return command;
}

void addJsonFlag(CLI::App& command, bool& json) { command.add_flag("--json", json, "Print JSON"); }

void addAllCommands(CLI::App& app, Context& context) {
  app.name("pinlampctl");
  app.description("Sees and sets the LEDs of an appliance, through pinlampd.");
  app.footer("Example: pinlampctl led set Ethernet3/1 green --flash 0.5");
  context
      .completes(app.add_option("--socket", context.socket, "The control socket of pinlampd"),
                 Completes::file)
      ->envname("PINLAMP_SOCKET")
      ->capture_default_str();
  app.add_option("--wait", context.wait, "Wait for a pinlampd that is starting")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, kLongestWait));
  app.set_version_flag("--version", "pinlampctl " PINLAMP_VERSION);
  app.require_subcommand(1);
  addLedCommands(app, context);
  addPanelCommand(app, context);
  addMapCommands(app, context);
  addConfigCommands(app, context);
  addEntityCommands(app, context);
  addWatchCommand(app, context);
  addRecordCommand(app, context);
  addHostCommands(app, context);
  addObjectCommands(app, context);
  addWhyCommand(app, context);
}

}  // namespace Ctl
