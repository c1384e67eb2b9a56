// Measures what Pinlamp costs, beside its peers, and prints one table.
#include <sched.h>
#include <sys/prctl.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <list>
#include <thread>

#include "bench/child.h"
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

// A process for each processor that runs while nothing else wants to. A virtual machine takes from 50 us to a
// millisecond to wake a processor that has halted, more than most of what is measured between processes.
std::list<Bench::Child> keepAwake() {
  std::list<Bench::Child> children;
  for (unsigned processor = 0; processor < std::thread::hardware_concurrency(); ++processor)
    children.emplace_back([] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const sched_param none{};
      if (sched_setscheduler(0, SCHED_IDLE, &none) != 0)
        return std::perror("--awake has no effect: sched_setscheduler");
      for (;;) __asm__ volatile("" ::: "memory");
    });
  return children;
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
  bool awake = false;
  std::string row;
  app.add_flag("--quick", quick, "Fewer and shorter repetitions");
  app.add_flag("--awake", awake,
               "Let no processor halt: for measurements between processes in a virtual machine");
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

  const auto children = awake ? keepAwake() : std::list<Bench::Child>();
  run(row);
  Bench::print(std::cout, Bench::results());
  return Bench::results().failures().empty() ? 0 : 1;
}
