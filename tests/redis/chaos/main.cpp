// Makes faults at random, and checks that nothing is lost, comes back or stays different:
//
//     redis_chaos [--for 20s] [--seed N]
//
// A real server, five processes that share their state through it (two of which publish the same mount), and
// rounds of a few seconds: random batches and random faults; then all faults are healed, and every subscriber
// must come to have what the server has. Exits with 1 at the first difference.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <numeric>

#include "tests/redis/chaos/faults.h"
#include "tests/redis/chaos/world.h"

namespace {

using namespace Chaos;

// Milliseconds. kPatience ends a run on a machine that is too busy, before whoever started it does.
constexpr std::uint64_t kStir = 2'500, kSettle = 30'000, kPatience = 200'000, kWatch = 40, kProbe = 200;

class Run {
 public:
  Run(std::uint64_t time, unsigned seed) : time_(time), seed_(seed), world_(seed), faults_(world_, seed) {}

  // Returns the exit code.
  int operator()() {
    const std::uint64_t end = now() + time_;
    settle();
    while (world_.faults.empty() && now() < end) {
      stir();
      settle();
      ++rounds_;
    }
    report();
    return world_.faults.empty() ? 0 : 1;
  }

 private:
  void stir() {
    std::mt19937 random(seed_ + rounds_);
    const std::uint64_t end = now() + kStir;
    while (now() < end && world_.faults.empty()) {
      faults_.act();
      for (const auto& each : world_.processes) {
        if (each->writer && random() % 3 == 0) each->writer->act();
        if (each->store && random() % 64 == 0) each->store->subscribe({}, *each->reader);  // reads again
      }
      step();
    }
  }

  void settle() {
    const std::uint64_t begin = world_.watched(), start = now();
    for (const auto& each : world_.processes)
      if (each->writer) each->writer->forgetProbe();
    std::vector<std::string> differing;
    do {
      const bool isHealed = faults_.heal();
      step();
      differing.clear();
      if (isHealed) probe();
      if (isHealed && world_.isSettled(differing)) return settled(begin);
    } while (world_.watched() < begin + kSettle && now() < start + kPatience && world_.faults.empty());
    if (!world_.faults.empty()) return;  // it ended before its time
    for (const std::string& each : differing)
      world_.fault("after " + std::to_string(now() - start) + " ms, of which the loop ran " +
                   std::to_string(world_.watched() - begin) + ": " + each);
  }
  void settled(std::uint64_t begin) {
    const std::uint64_t took = world_.watched() - begin;
    longest_ = std::max(longest_, took);
    world_.verify();
    world_.log("== settled after " + std::to_string(took) + " ms");
  }

  void step() {
    world_.run();
    if (!world_.isServerUp || now() < nextWatch_) return;
    world_.watchClaim();
    nextWatch_ = now() + kWatch;
  }
  void probe() {
    if (now() < nextProbe_) return;
    nextProbe_ = now() + kProbe;
    for (const auto& each : world_.processes)
      if (each->writer && !each->writer->isProbed()) each->writer->probe();
  }

  void report() {
    std::cout << "seed " << seed_ << ", " << rounds_ << " rounds, at most " << longest_
              << " ms until all was equal; " << world_.takeOvers << " claims taken\nfaults:";
    for (const auto& [name, count] : faults_.counts()) std::cout << ' ' << name << ' ' << count << ';';
    for (const auto& each : world_.processes) reportOn(*each);
    std::cout << '\n';
    if (world_.faults.empty()) return;
    std::cout << "the last events:\n";
    for (const std::string& each : world_.recent) std::cout << "  " << each << '\n';
    for (const std::string& each : world_.lastStates()) std::cout << each << '\n';
    for (const std::string& each : world_.faults) std::cout << "FAILED: " << each << '\n';
    std::cout << "once more: scripts/chaos --seed " << seed_ << " --for " << time_ / 1000 << "s\n";
  }
  static void reportOn(const Process& process) {
    std::cout << '\n' << process.name << ": notified " << process.reader->notifications << " times";
    if (!process.writer) return;
    const Writer::Counts& counts = process.writer->counts();
    std::cout << "; wrote " << counts.stored << " stored batches (" << counts.taken << " taken, "
              << counts.refused << " refused, " << counts.failed << " failed, " << counts.unknown
              << " unknown, " << counts.rejected << " rejected at once) and " << counts.volatile_
              << " volatile ones; covered " << counts.covers << " times";
  }

  const std::uint64_t time_;
  const unsigned seed_;
  World world_;
  Faults faults_;
  unsigned rounds_ = 0;
  std::uint64_t longest_ = 0, nextWatch_ = 0, nextProbe_ = 0;
};

// "20s", "10m"; 0 where it is neither.
std::uint64_t timeOf(const char* text) {
  char* unit = nullptr;
  const std::uint64_t count = std::strtoull(text, &unit, 10);
  if (count > 100'000) return 0;
  return std::strcmp(unit, "s") == 0 ? count * 1000 : std::strcmp(unit, "m") == 0 ? count * 60'000 : 0;
}

}  // namespace

int main(int count, char** words) {
  std::uint64_t time = 20'000;
  unsigned seed = std::random_device()() % 1'000'000;
  for (int i = 1; i < count; i += 2) {
    const std::string option = words[i], value = i + 1 < count ? words[i + 1] : "";
    if (option == "--for") time = timeOf(value.c_str());
    if (option == "--seed") seed = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
    if ((option != "--for" && option != "--seed") || value.empty() || time == 0) {
      std::cerr << "usage: redis_chaos [--for TIME] [--seed N], with a time such as 20s or 10m\n";
      return 2;
    }
  }
  // Syncs are free in memory.
  if (!std::getenv("TMPDIR") && std::filesystem::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
  return Run(time, seed)();
}
