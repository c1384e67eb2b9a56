#include <ostream>

#include "ctl/context.h"
#include "ctl/events.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

struct Watching {
  std::string path;
  bool json = false;
  bool initial = false;
  std::size_t count = 0;  // changes left to print; 0: no limit
  std::optional<double> seconds;
};

std::string changeText(const Json& change) {
  std::string text = bare(change.at("op")) + ' ' + bare(change.at("path"));
  if (const auto attribute = change.find("attribute"); attribute != change.end())
    text += ' ' + bare(*attribute);
  const Json none = Json::object();
  const auto attributes = change.find("attributes");
  for (const auto& [name, value] : (attributes == change.end() ? none : *attributes).items())
    text += ' ' + bare(name) + '=' + oneLine(value);
  return text;
}

// Prints the changes of one notification. Returns false once `watching.count` are printed.
bool printChanges(std::ostream& out, const Json& notification, Watching& watching) {
  const Json& parameters = notification.at("params");
  Json changes = parameters.value("changes", Json::array());
  if (notification.at("method") == "reset")
    changes = {{{"op", "reset"}, {"path", watching.path}, {"entities", parameters.at("entities")}}};
  for (Json& change : changes) {
    const std::string time = timeStamp();
    change["time"] = time;
    out << (watching.json ? oneLine(change) : time + ' ' + changeText(change)) << std::endl;
    if (watching.count != 0 && --watching.count == 0) return false;
  }
  return true;
}

// Prints the entities as changes that create them; they don't count as changes.
void printInitial(std::ostream& out, const Json& entities, Watching watching) {
  Json changes = entities;
  for (Json& change : changes) change["op"] = "put";
  watching.count = 0;
  printChanges(out, {{"method", "changes"}, {"params", {{"changes", std::move(changes)}}}}, watching);
}

void watch(Context& context, Watching watching) {
  const Instant deadline = afterSeconds(watching.seconds);
  Events events{SIGINT, SIGTERM};
  Client& client = context.client();
  const Json watch =
      client.call("watch", watching.path.empty() ? Json::object() : Json{{"path", watching.path}});
  if (watch.at("entities").empty() && !watching.path.empty())
    note(context, "there is no entity at '" + watching.path + "' yet");
  if (watching.initial) printInitial(context.out, watch.at("entities"), watching);
  while (true) {
    const Event event = events.next(&client, deadline);
    if (event.kind != Event::Kind::notification || !printChanges(context.out, event.notification, watching))
      return;
  }
}

}  // namespace

void addWatchCommand(Command& app, Context& context) {
  const auto given = std::make_shared<Watching>();
  Command command = app.add("watch", "Prints every change as it happens, until Ctrl-C",
                            "pinlampctl watch hardware/corvel/gpio/config --for 10");
  command.argument("PATH", given->path, "Only entities at and under this path").completes(Completes::path);
  command.jsonFlag(given->json);
  command.flag("--initial", given->initial, "Begin with what is there, printed as changes");
  command.argument("--count", given->count, "Stop after this many changes").within(1, 1'000'000'000);
  command.argument("--for", given->seconds, "Stop after this time, such as 10, 500ms or 2min").duration();
  command.runs([&context, given] { watch(context, *given); });
}

}  // namespace Ctl
