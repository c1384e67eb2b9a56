// metrics: for Prometheus.
#include <ostream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/metrics.h"
#include "ctl/newfile.h"
#include "ctl/processes.h"

namespace Ctl {

namespace {

void writeFile(const std::string& file, const std::string& text) {
  NewFile fresh(file);
  fresh.write(text);
  fresh.replace();
}

std::string metricsOf(Context& context) {
  Client& client = context.host("metrics");
  const Json status = wholeStatus(client);
  return metricsText(status, readLines(client, status), context.target.socket);
}

void metrics(Context& context, const std::string& file) {
  try {
    const std::string text = metricsOf(context);
    if (file.empty())
      context.out << text;
    else
      writeFile(file, text);
  } catch (const ConnectionLost&) {
    if (!file.empty()) writeFile(file, downMetricsText(context.target.socket));
    throw;
  }
}

}  // namespace

void addMetricsCommand(Command& app, Context& context) {
  const auto file = std::make_shared<std::string>();
  Command command =
      app.add("metrics", "Prints what the host and its agents count, in the text format of Prometheus",
              "pinlampctl metrics --file /var/lib/prometheus/node-exporter/pinlamp.prom");
  command
      .argument("--file", *file,
                "A file to replace by it, for the node exporter; without a host it has pinlamp_up 0 alone")
      .completes(Completes::file)
      .valueName("FILE");
  command.runs([&context, file] { metrics(context, *file); });
}

}  // namespace Ctl
