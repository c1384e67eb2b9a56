// Shared by the scenes: rounds with a seed and a deadline, counts, and the report.
//
//     const Scene scene{"kill", "kill -9 at random moments", 8.0, &killRound};
//
//     void killRound(Round& round) {
//       const Daemon host(round, "host", {"--store", "memory:"});
//       while (!round.isOver()) round.count("requests") += …
//       if (lost) throw Failure("batch 7 was acknowledged and is not there");
//     }
#pragma once

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/host/folder.h"

namespace Torture {

// The first difference between what happened and what should have.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Monotonic seconds.
double now();
void sleepFor(double seconds);

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  std::uint64_t below(std::uint64_t bound) { return engine_() % bound; }
  bool chance(unsigned percent) { return below(100) < percent; }
  double within(double least, double most) {
    return least + (most - least) * static_cast<double>(below(1'000'001)) / 1e6;
  }
  template <class List>
  auto& among(List& list) {
    return list[below(std::size(list))];
  }

 private:
  std::mt19937_64 engine_;
};

// The numbers that a scene prints. Counts are added up over its rounds; a figure is that of the last round.
class Report {
 public:
  std::uint64_t& count(const std::string& what);
  // Counts the greatest of the numbers that it is given.
  void most(const std::string& what, std::uint64_t number);
  void figure(const std::string& what, const std::string& value);
  void print(std::ostream& out) const;

 private:
  std::vector<std::pair<std::string, std::uint64_t>> counts_;
  std::vector<std::pair<std::string, std::string>> figures_;
};

// One round of a scene: everything in it follows from its seed, but for the processes' timing. A run with
// --seed N begins with the round of seed N.
class Round {
 public:
  Round(std::uint64_t seed, double end, Report& all) : random(seed), report(all), end_(end) {}
  Round(const Round&) = delete;
  Round& operator=(const Round&) = delete;

  // Whether the scene's time is up. A round may end before; the next one follows then.
  bool isOver() const { return now() >= end_; }
  double left() const { return end_ - now(); }
  // An event, printed if the round fails.
  void note(const std::string& event);
  std::uint64_t& count(const std::string& what) { return report.count(what); }

  Random random;
  Report& report;
  const Folder folder{};
  std::deque<std::string> recent{};

 private:
  const double end_, began_ = now();
};

struct Scene {
  const char* name;
  const char* summary;
  bool isByHand;  // not among those that run by default
  void (*round)(Round& round);
};

// Calls `holds` until it returns an empty text; fails with the last one after `seconds`.
template <class Holds>
void await(const std::string& what, double seconds, Holds holds) {
  const double end = now() + seconds;
  std::string why;
  while (!(why = holds()).empty()) {
    if (now() > end)
      throw Failure(what + ": after " + std::to_string(static_cast<int>(seconds)) + " s " + why);
    sleepFor(0.01);
  }
}

void killRound(Round& round);
void powerRound(Round& round);
void diskRound(Round& round);
void processesRound(Round& round);
void clientsRound(Round& round);
void objectsRound(Round& round);
void timeRound(Round& round);
void dayRound(Round& round);
void soakRound(Round& round);

}  // namespace Torture
