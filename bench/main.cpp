// Measures what Pinlamp costs, beside its peers, and prints one table.
#include <CLI/CLI.hpp>
#include <iostream>

#include "bench/measure.h"
#include "bench/table.h"

namespace {

// Stores the figures of loops; the other measurements store their own.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration)
        for (const auto& [figure, counter] : run.counters)
          Bench::results().add(run.run_name.function_name, figure, counter.value);
  }
};

std::string pattern(const std::string& row) {
  if (row.empty()) return ".";
  return "^" + row + (row.find('/') == std::string::npos ? "/" : "");
}

void run(const std::string& row) {
  const std::string repetitions = "--benchmark_repetitions=" + std::to_string(Bench::quick() ? 3 : 9);
  const std::string time = std::string("--benchmark_min_time=") + (Bench::quick() ? "0.02" : "0.1");
  std::vector<std::string> arguments = {"pinlamp-bench", "--benchmark_enable_random_interleaving=true",
                                        repetitions, time};
  std::vector<char*> pointers;
  for (auto& each : arguments) pointers.push_back(each.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector, pattern(row));
}

std::string rowNames() {
  std::string names;
  for (const auto& row : Bench::rows()) names += (names.empty() ? "" : ", ") + row.name;
  return names;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures what Pinlamp costs, beside its peers");
  bool quick = false;
  std::string row;
  app.add_flag("--quick", quick, "Fewer and shorter repetitions");
  app.add_option("--row", row, "One row only, or ROW/CONTESTANT; the rows are " + rowNames())
      ->check([](const std::string& name) {
        const bool known = Bench::findRow(name.substr(0, name.find('/')));
        return known ? "" : "no row '" + name + "'; there are " + rowNames();
      });
  CLI11_PARSE(app, argc, argv);

  Bench::quickIs(quick);
  Bench::addEvents();
  Bench::addQtEvents();
  Bench::addTimers();
  Bench::addTrace();
  Bench::addMemory();
  Bench::addScale();
  Bench::addHost();
  Bench::addRoundTrip();
  Bench::addCommands();
  Bench::addShared();
  Bench::addSharedLoad();
  Bench::addSharedHosts();
  Bench::addPolicy();

  run(row);
  Bench::print(std::cout, Bench::results());
  return Bench::results().failures().empty() ? 0 : 1;
}
