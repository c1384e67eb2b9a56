#include "bench/table.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "bench/measure.h"

namespace Bench {

namespace {

const std::string kUs = "pinlamp";
const std::string kQueue = "hand-written queue";

constexpr double kPhase = 0.0002;  // seconds by which a phase may exceed its interval

std::vector<Goal> eventGoals() {
  return {{kUs, kQueue, 3.0},
          {kUs, "libsigc++", 1 / 4.0},
          {kUs, "Boost.Signals2", 1 / 6.0},
          {kUs, "Qt queued", 1 / 12.0}};
}
const std::vector<std::string> kEventFigures = {kUs,         "loop over pins", kQueue,
                                                "libsigc++", "Boost.Signals2", "Qt queued"};

Row flashRow(const std::string& count, std::vector<Goal> goals) {
  return {"flash-" + count,
          "one flash tick, " + count + " LEDs at 0.5 s",
          {kUs, "toggle and store", "libuv", "libev", "Boost.Asio"},
          std::move(goals)};
}

Row runningRow(const std::string& count) {
  return {
      "running-" + count,
      "the running host, " + count + " LEDs at 0.5 s: processor time a second; how much longer phases are",
      {"pinlampd", "libuv", "pinlampd + p50", "pinlampd + p99", "libuv + p50", "libuv + p99"},
      {{"pinlampd", "libuv", 1.0}, {"pinlampd + p50", "", kPhase}, {"pinlampd + p99", "", 0.002}}};
}

// The figures are medians, one for each interval.
Row phaseRow() {
  Row row{"phase", "how much longer than its interval a phase of a flashing LED is", {}, {}};
  for (const char* host : {"pinlampd ", "libuv "})
    for (const char* interval : {"1 s", "500 ms", "50 ms", "5 ms", "1 ms"})
      row.figures.push_back(std::string(host) + interval);
  for (std::size_t i = 0; i < row.figures.size() / 2; ++i) row.goals.push_back({row.figures[i], "", kPhase});
  return row;
}

Row scaleRow(const std::string& name, const std::string& title) {
  return {name, title, {"1,000", "10,000", "100,000"}, {{"100,000", "1,000", 3.0}}};
}

// The time until others have a setting, beside HSET and PUBLISH.
Row sharedRow(const std::string& name, const std::string& title, bool hasKeyspace, double most99) {
  Row row{name, title, {}, {{"pinlamp p50", "HSET + PUBLISH p50", 2.2}}};
  for (const char* contestant : {"pinlamp", "HSET + PUBLISH", "keyspace"})
    for (const char* figure : {" p50", " p99"})
      if (hasKeyspace || contestant != std::string("keyspace"))
        row.figures.push_back(contestant + std::string(figure));
  if (most99 > 0) row.goals.push_back({"pinlamp p99", "HSET + PUBLISH p99", most99});
  return row;
}
const std::vector<std::string> kBatches = {"1 a batch", "16 a batch",     "64 a batch",
                                           "4 HSETs",   "HSET + PUBLISH", "HSET + PUBLISH 64"};

std::vector<std::string> serverFigures() {
  std::vector<std::string> figures = {"volatile 1", "volatile 16", "volatile 64"};
  figures.insert(figures.end(), kBatches.begin(), kBatches.end());
  return figures;
}

// Hosts with a database each, and in one that they share.
std::vector<std::string> hostFigures(bool hasTrips = false) {
  std::vector<std::string> figures;
  for (const char* database : {" apart", " in one"})
    for (const char* hosts : {"1", "4", "16", "64"}) {
      figures.push_back(hosts + std::string(database));
      if (hasTrips) figures.push_back(figures.back() + " p50");
    }
  return figures;
}

Row commandsRow() {
  Row row{
      "commands", "pinlampctl, 100,000 LEDs with a mapping each: one command, its start included", {}, {}};
  for (const std::string store : {"memory: ", "sqlite: "}) {
    for (const char* command : {"load", "dump", "led set NAME", "led set 'Ethernet*'"})
      row.figures.push_back(store + command);
    row.goals.push_back({store + "load", "", 3.0});
    row.goals.push_back({store + "led set NAME", "", 0.015});
  }
  return row;
}

std::vector<Row> makeRows() {
  return {
      {"event", "one light-setting event, 64 a pass", kEventFigures, eventGoals()},
      {"event-single", "one light-setting event, one a pass", kEventFigures, eventGoals()},
      {"notify", "set, deferred notify and handler alone, 64 a pass", kEventFigures, {{kUs, kQueue, 2.0}}},
      flashRow("100", {}),
      flashRow("10000", {}),
      flashRow("100000", {{kUs, "libuv", 1 / 3.0}}),
      runningRow("1000"),
      runningRow("10000"),
      phaseRow(),
      {"trace",
       "one turn of a loop with a disabled trace record",
       {"with", "without"},
       {{"with", "without", 1.05}}},
      {"memory",
       "memory per driven LED with four pins",
       {"agent alone", kUs, "bare objects", kQueue, "libsigc++", "Boost.Signals2", "Qt queued"},
       {{"agent alone", "", 1536.0}},
       Unit::bytes},
      {"startup-1000", "start-up: 1,000 LEDs from the SQLite file to driven", {"pinlampd", "sqlite3"}, {}},
      {"startup-10000", "start-up: 10,000 LEDs", {"pinlampd", "sqlite3"}, {{"pinlampd", "sqlite3", 3.0}}},
      {"startup-100000", "start-up: 100,000 LEDs", {"pinlampd", "sqlite3"}, {{"pinlampd", "sqlite3", 3.0}}},
      {"startup-growth", "start-up: time per LED", {"1,000", "100,000"}, {{"100,000", "1,000", 1.5}}},
      {"roundtrip",
       "one event from a client to its pin value at a watching client",
       {"memory: p50", "memory: p99", "socket pair p50", "socket pair p99", "D-Bus p50", "D-Bus p99"},
       {{"memory: p50", "D-Bus p50", 0.5}}},
      {"pipelined", "one of 100,000 events pipelined", {"memory:", "D-Bus"}, {{"memory:", "", 1e-5}}},
      {"durable",
       "the same on sqlite: every acknowledged set is on disk",
       {"sqlite: p50", "sqlite: p99", "fsync p50", "fsync p99", "pipelined"},
       {}},
      commandsRow(),
      sharedRow("shared-set", "shared state: a setting, until another process has it", true, 0),
      sharedRow("shared-readers", "the same, until the last of 50 processes has it", true, 0),
      sharedRow("shared-trip", "a setting, through an LED agent in another process, until its pins are back",
                false, 3.0),
      {"shared-batch",
       "one event of four pins, stored: one batch after the other; of 16 and 64, up to four ahead",
       kBatches,
       {{"1 a batch", "4 HSETs", 2.5}, {"16 a batch", "4 HSETs", 1.0}, {"16 a batch", "", 1e-5}}},
      {"shared-server",
       "the server's processor time of such an event; volatile: with two stores connected",
       serverFigures(),
       {{"64 a batch", "", 6e-6}, {"volatile 64", "", 6e-6}}},
      {"shared-snapshot",
       "100,000 LEDs, until a new process has them; its longest round of events; the same with the LED "
       "agent, also "
       "when it reads them again",
       {"pinlamp", "pinlamp round", "LED agent", "LED agent round", "LED agent again", "HSCAN"},
       {{"pinlamp", "HSCAN", 2.0},
        {"pinlamp round", "", 0.005},
        {"LED agent round", "", 0.005},
        {"LED agent again", "", 0.005}}},
      {"shared-hosts",
       "hosts of 100 LEDs with a database each, and in one: the server's time of a setting and its pins; p50",
       hostFigures(true),
       {}},
      {"shared-idle", "the same: the server's processor time a second for each idle host", hostFigures(), {}},
      {"shared-memory", "the same: the server's memory an LED", hostFigures(), {}, Unit::bytes},
      {"policy",
       "a fact's change, until the pin follows: 10,000 LEDs, 500 rules that look at it, 500 requests",
       {"fact to pin p50", "fact to pin p99"},
       {{"fact to pin p50", "", 50e-6}}},
      scaleRow("expiry", "one request that ends among so many"),
      {"policy-idle",
       "the same 10,000 LEDs, idle: how often a second the host wakes up",
       {"pinlampd"},
       {{"pinlampd", "", 0.0}},
       Unit::times},
      scaleRow("removal", "removal of one LED among so many"),
      scaleRow("addition", "one mapping added among so many"),
  };
}

std::string number(double value, int digits = 3) {
  if (value == 0) return "0";
  std::ostringstream text;
  const int decimals = std::max(0, digits - 1 - static_cast<int>(std::floor(std::log10(std::abs(value)))));
  text << std::fixed << std::setprecision(std::min(decimals, 3)) << value;
  return text.str();
}

struct Scale {
  double unit;
  const char* text;
};

double median(const std::vector<double>& samples, double share = 0.5) {
  std::vector<double> sorted = samples;
  return quantile(sorted, share);
}

// The outcome of one goal.
struct Outcome {
  std::string measured;
  std::string wanted;
  bool reached;
};

Outcome outcome(const Goal& goal, double value, double other, Unit unit) {
  if (goal.other.empty()) return {"", "at most " + figureText(goal.most, unit), value <= goal.most};
  const double ratio = value / other;
  if (goal.most >= 1)
    return {number(ratio) + " times", "at most " + number(goal.most) + " times", ratio <= goal.most};
  return {number(1 / ratio) + " times as fast", "at least " + number(1 / goal.most), ratio <= goal.most};
}

class Printer {
 public:
  Printer(std::ostream& out, const Results& results) : out_(out), results_(results) {}

  void head() { cells("what", "median", "quarters", "against", "measured", "to reach", ""); }

  void row(const Row& row) {
    const bool any =
        std::ranges::any_of(row.figures, [&](const auto& each) { return results_.samples(row.name, each); });
    if (!any) return;
    out_ << "\n[" << row.name << "] " << row.title << '\n';
    for (const std::string& figure : row.figures) line(row, figure);
  }

  int missed() const { return missed_; }

 private:
  void line(const Row& row, const std::string& figure) {
    const auto* samples = results_.samples(row.name, figure);
    if (!samples) return cells("  " + figure, "not measured", "", "", "", "", "");
    const auto text = [&](double share) { return figureText(median(*samples, share), row.unit); };
    std::string name = "  " + figure;
    std::string middle = text(0.5);
    std::string quarters = samples->size() > 2 ? text(0.25) + " - " + text(0.75) : "";
    bool plain = true;
    for (const Goal& goal : row.goals) {
      if (goal.figure != figure) continue;
      const auto* other = goal.other.empty() ? samples : results_.samples(row.name, goal.other);
      if (!other) continue;
      const Outcome result = outcome(goal, median(*samples), median(*other), row.unit);
      cells(name, middle, quarters, goal.other, result.measured, result.wanted,
            result.reached ? "reached" : "MISSED");
      missed_ += !result.reached;
      plain = false;
      name = middle = quarters = "";
    }
    if (plain) cells(name, middle, quarters, "", "", "", "");
  }

  void cells(const std::string& what, const std::string& middle, const std::string& quarters,
             const std::string& other, const std::string& measured, const std::string& wanted,
             const std::string& verdict) {
    std::ostringstream text;
    text << std::left << std::setw(24) << what << std::right << std::setw(14) << middle << std::setw(24)
         << quarters << "  " << std::left << std::setw(20) << other << std::setw(21) << measured
         << std::setw(19) << wanted << verdict;
    std::string line = text.str();
    line.erase(line.find_last_not_of(' ') + 1);
    out_ << line << '\n';
  }

  std::ostream& out_;
  const Results& results_;
  int missed_ = 0;
};

}  // namespace

const std::vector<Row>& rows() {
  static const std::vector<Row> all = makeRows();
  return all;
}

const Row* findRow(const std::string& name) {
  const auto found = std::ranges::find(rows(), name, &Row::name);
  return found == rows().end() ? nullptr : &*found;
}

Results& results() {
  static Results all;
  return all;
}

const std::vector<double>* Results::samples(const std::string& row, const std::string& figure) const {
  const auto found = samples_.find(row + '/' + figure);
  return found == samples_.end() ? nullptr : &found->second;
}

std::string figureText(double value, Unit unit) {
  static constexpr Scale kSeconds[] = {{1e-9, " ns"}, {1e-6, " us"}, {1e-3, " ms"}, {1, " s"}};
  static constexpr Scale kBytes[] = {{1, " B"}, {1024, " KiB"}};
  if (unit == Unit::times) return number(value);
  const std::span<const Scale> scales =
      unit == Unit::bytes ? std::span<const Scale>(kBytes) : std::span<const Scale>(kSeconds);
  const Scale* best = &scales.front();
  for (const Scale& scale : scales)
    if (std::abs(value) >= scale.unit) best = &scale;
  return number(value / best->unit) + best->text;
}

int print(std::ostream& out, const Results& results) {
  Printer printer(out, results);
  printer.head();
  for (const Row& row : rows()) printer.row(row);
  for (const auto& [contestant, why] : results.failures()) out << '\n' << contestant << ": " << why;
  out << '\n' << printer.missed() << " targets missed\n";
  return printer.missed();
}

}  // namespace Bench
