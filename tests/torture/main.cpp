// Runs the real processes under faults, and compares what they did with what they must do:
//
//     torture [--for 10m] [--seed N] [--list] [SCENE...]
//
// docs/torture.md describes the scenes. Exits with 1 at the first difference.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

#include "tests/torture/scene.h"

namespace Torture {

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
void sleepFor(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

std::uint64_t& Report::count(const std::string& what) {
  const auto found = std::ranges::find(counts_, what, [](const auto& each) { return each.first; });
  return found != counts_.end() ? found->second : counts_.emplace_back(what, 0).second;
}

void Report::most(const std::string& what, std::uint64_t number) {
  std::uint64_t& known = count(what);
  known = std::max(known, number);
}

void Report::figure(const std::string& what, const std::string& value) {
  std::erase_if(figures_, [&](const auto& each) { return each.first == what; });
  figures_.emplace_back(what, value);
}

void Report::print(std::ostream& out) const {
  for (const auto& [what, number] : counts_) out << "  " << number << ' ' << what << '\n';
  for (const auto& [what, value] : figures_) out << "  " << what << ": " << value << '\n';
}

void Round::note(const std::string& event) {
  std::ostringstream line;
  line << std::fixed << std::setprecision(3) << now() - began_ << "  " << event;
  recent.push_back(line.str());
  if (recent.size() > 60) recent.pop_front();
}

namespace {

const Scene scenes[] = {
    {"kill", "kill -9 at random moments, the first start included, while clients write", false, &killRound},
    {"power", "power failures at every step of a run, and any part of what was not synced", false,
     &powerRound},
    {"disk", "a disk that is full, read-only, slow or broken, at every step of a start and of commits", false,
     &diskRound},
    {"processes", "the processes of a system killed and stopped while LEDs flash", false, &processesRound},
    {"clients", "clients that flood, sleep, send half messages, never read, come and go", false,
     &clientsRound},
    {"objects", "random operations on live objects, against a model", false, &objectsRound},
    {"time", "the host stopped for a while, up to a minute, while LEDs flash at milliseconds", false,
     &timeRound},
    {"day", "24 simulated hours of 1,000 LEDs at mixed intervals", false, &dayRound},
    {"soak", "a steady load in real time, to be run for an hour: memory, files and lateness", true,
     &soakRound},
};

struct Options {
  double time = 20;
  std::string timeText = "20s";
  std::uint64_t seed = std::random_device()() % 1'000'000;
  std::vector<const Scene*> scenes{};
};

int failed(const Scene& scene, const Options& options, const Round& round, std::uint64_t seed,
           const char* why) {
  for (const std::string& event : round.recent) std::cout << "  " << event << '\n';
  std::cout << "FAILED: " << scene.name << ": " << why << "\nonce more: scripts/torture --seed " << seed
            << " --for " << options.timeText << ' ' << scene.name << std::endl;
  return 1;
}

int run(const Scene& scene, const Options& options) {
  Report report;
  const double began = now(), end = began + options.time;
  std::uint64_t rounds = 0;
  const auto print = [&] {
    std::cout << scene.name << ": seed " << options.seed << ", rounds " << rounds << ", " << std::fixed
              << std::setprecision(1) << now() - began << " s\n";
    report.print(std::cout);
  };
  do {
    const std::uint64_t seed = options.seed + rounds++;
    Round round(seed, end, report);
    try {
      scene.round(round);
    } catch (const std::exception& error) {
      print();
      return failed(scene, options, round, seed, error.what());
    }
  } while (now() < end);
  print();
  std::cout << std::flush;
  return 0;
}

// "20s", "10m", "1h"; 0 if it is none of them.
double secondsOf(const char* text) {
  char* unit = nullptr;
  const double count = std::strtod(text, &unit);
  const double each = std::strcmp(unit, "s") == 0   ? 1
                      : std::strcmp(unit, "m") == 0 ? 60
                      : std::strcmp(unit, "h") == 0 ? 3600
                                                    : 0;
  return count > 0 && count < 1e6 ? count * each : 0;
}

[[noreturn]] void usage() {
  std::cerr << "usage: torture [--for TIME] [--seed N] [--list] [SCENE...], with a time for each scene such "
               "as 20s, 10m or "
               "1h\n";
  std::exit(2);
}

[[noreturn]] void list() {
  for (const Scene& scene : scenes)
    std::cout << std::left << std::setw(10) << scene.name << ' ' << scene.summary
              << (scene.isByHand ? "; only by its name" : "") << '\n';
  std::exit(0);
}

Options read(std::vector<std::string> words) {
  Options options;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string value = i + 1 < words.size() ? words[i + 1] : "";
    const auto scene = std::ranges::find(scenes, words[i], &Scene::name);
    if (words[i] == "--list") list();
    if (words[i] == "--for" && (options.time = secondsOf(value.c_str())) > 0)
      options.timeText = value, ++i;
    else if (words[i] == "--seed" && !value.empty() &&
             value.find_first_not_of("0123456789") == std::string::npos && value.size() < 19)
      options.seed = std::stoull(value), ++i;
    else if (scene != std::end(scenes))
      options.scenes.push_back(scene);
    else
      usage();
  }
  if (options.scenes.empty())
    for (const Scene& scene : scenes)
      if (!scene.isByHand) options.scenes.push_back(&scene);
  return options;
}

}  // namespace
}  // namespace Torture

int main(int count, char** words) {
  using namespace Torture;
  // Syncs are free in memory.
  if (!std::getenv("TMPDIR") && std::filesystem::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
  const Options options = read({words + 1, words + count});
  int status = 0;
  for (const Scene* scene : options.scenes) status |= run(*scene, options);
  return status;
}
