#include "ctl/metrics.h"

#include <algorithm>
#include <vector>

namespace Ctl {

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : value) {
    if (c == '\n') {
      text += "\\n";
      continue;
    }
    if (c == '\\' || c == '"') text += '\\';
    text += c;
  }
  return text;
}

// {"a": "1"} as {a="1"}.
std::string labelsText(const Labels& labels) {
  std::string text;
  for (const auto& [name, value] : labels)
    text += (text.empty() ? "" : ",") + name + "=\"" + escaped(value) + '"';
  return text.empty() ? text : '{' + text + '}';
}

class Page {
 public:
  void metric(const std::string& name, const char* type, const char* help) {
    name_ = "pinlamp_" + name;
    text_ += "# HELP " + name_ + ' ' + help + "\n# TYPE " + name_ + ' ' + type + '\n';
  }
  // Of the metric that was begun last; `suffix` is a histogram's.
  void value(const Labels& labels, const Json& value, const char* suffix = "") {
    text_ += name_ + suffix + labelsText(labels) + ' ' + value.dump() + '\n';
  }
  void single(const char* name, const char* help, const Json& number) {
    metric(name, "gauge", help);
    value({}, number);
  }
  const std::string& text() const { return text_; }

 private:
  std::string name_;
  std::string text_;
};

// A value of each process, at `member` of its status. One of an earlier version may lack it.
struct OfProcess {
  const char* name;
  const char* type;
  const char* member;
  const char* help;
};
constexpr OfProcess kOfProcesses[] = {
    {"uptime_seconds", "gauge", "uptime", "How long the process runs."},
    {"clients", "gauge", "clients", "Connected clients."},
    {"published_total", "counter", "published", "Values that its agents published."},
    {"passes_total", "counter", "passes", "Passes of its loop."},
    {"deliveries_total", "counter", "deliveries", "Notifications that were delivered."},
    {"wakeups_total", "counter", "expiries", "Wake-ups by the clock, such as ticks of flashing LEDs."},
    {"refusals_total", "counter", "refusals", "Rows that did not fit their entity."},
    {"reconnects_total", "counter", "reconnects", "How often a lost state database was reached again."},
};

struct ProcessStatus {
  std::string socket;
  const Json* status;  // null: it does not answer
};

std::vector<ProcessStatus> processesIn(const Json& status, const std::string& socket) {
  std::vector<ProcessStatus> all{{socket, &status}};
  const auto others = status.find("processes");
  if (others == status.end()) return all;
  for (const Json& each : *others)
    all.push_back({each.at("socket"), each.contains("status") ? &each.at("status") : nullptr});
  return all;
}

void addHistogram(Page& page, const ProcessStatus& process) {
  const Json& lateness = process.status->at("lateness");
  const Json &bounds = lateness.at("bounds"), &counts = lateness.at("counts");
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    count += counts[i].get<std::uint64_t>();
    page.value({{"socket", process.socket}, {"le", i < bounds.size() ? bounds[i].dump() : "+Inf"}}, count,
               "_bucket");
  }
  page.value({{"socket", process.socket}}, lateness.at("sum"), "_sum");
  page.value({{"socket", process.socket}}, count, "_count");
}

void addProcesses(Page& page, const std::vector<ProcessStatus>& processes) {
  page.metric("up", "gauge", "Whether the process answers.");
  for (const auto& each : processes) page.value({{"socket", each.socket}}, each.status ? 1 : 0);
  for (const OfProcess& what : kOfProcesses) {
    page.metric(what.name, what.type, what.help);
    for (const auto& each : processes)
      if (each.status && each.status->contains(what.member))
        page.value({{"socket", each.socket}}, each.status->at(what.member));
  }
  page.metric("wakeup_lateness_seconds", "histogram", "How late wake-ups by the clock came.");
  for (const auto& each : processes)
    if (each.status && each.status->contains("lateness")) addHistogram(page, each);
}

void addLines(Page& page, const Json& lines) {
  const auto driven = std::ranges::count_if(
      lines, [](const Json& line) { return line.at("attributes").value("driven", false); });
  page.metric("lines", "gauge", "GPIO lines of pins, by whether they are driven.");
  page.value({{"driven", "yes"}}, driven);
  page.value({{"driven", "no"}}, lines.size() - static_cast<std::size_t>(driven));
}

}  // namespace

std::string metricsText(const Json& status, const Json& lines, const std::string& socket) {
  Page page;
  page.metric("info", "gauge", "The host's version and state database; always 1.");
  page.value({{"version", status.at("version")}, {"store", status.at("store")}}, 1);
  page.single("leds", "LEDs that have a setting.", status.at("leds"));
  page.single("mappings", "LEDs that have a mapping.", status.at("mappings"));
  page.single("machines", "LEDs that are driven.", status.at("machines"));
  page.single("pins", "Pins that have a value.", status.at("pins"));
  page.single("entities", "Entities in the state database.", status.at("entities"));
  page.single("store_reached", "Whether the state database is reached.",
              status.at("storeState").at("reached").get<bool>() ? 1 : 0);
  addLines(page, lines);
  addProcesses(page, processesIn(status, socket));
  return page.text();
}

std::string downMetricsText(const std::string& socket) {
  Page page;
  addProcesses(page, {{socket, nullptr}});
  return page.text();
}

}  // namespace Ctl
