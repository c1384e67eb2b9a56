// Shared by all measurements: their registration, the names of their figures, and common workloads.
//
// A row of the table has a name ("event"); the contestants of a row are registered under it ("event/libuv").
// Google Benchmark shuffles the repetitions of all contestants, so that other load on the machine affects all
// alike. Each repetition yields one or more figures: seconds or bytes, less is better.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "platform/model/colours.h"
#include "platform/model/led.h"

namespace Bench {

inline constexpr std::size_t kLeds = 10'000;
inline constexpr std::size_t kPins = Led::kPinColours.size();  // of each LED, one a colour
inline constexpr double kFlashInterval = 0.5;

// Whether to run briefly, at the price of noise.
bool quick();
void quickIs(bool quick);

// Seconds of processor time that this thread has used.
double threadTime();
// Monotonic seconds.
double now();

// A permutation of the numbers from 0 to count - 1: pseudo-random, the same in every process.
std::vector<std::uint32_t> shuffled(std::size_t count);
// Steady, with one colour lit, by its place in Led::kPinColours.
const Led::LightSetting& steady(std::size_t colour);
bool lights(const Led::LightSetting& setting, std::size_t colour);

// The `share` quantile (0 to 1) of the samples; sorts them. REQUIRES: there are samples.
double quantile(std::vector<double>& samples, double share);

// Registers a loop: `run(state)` does `for (auto _ : state)`, then calls perItem.
benchmark::internal::Benchmark* addLoop(const std::string& name, std::function<void(benchmark::State&)> run);
// Sets the figure of a loop: its processor time per item.
void perItem(benchmark::State& state, std::size_t items);

struct Figure {
  std::string name;  // empty for a contestant's main figure; else such as "p99"
  double value;      // seconds or bytes
};
// Registers a measurement that runs once per repetition and measures by itself.
void addOnce(const std::string& name, std::function<std::vector<Figure>()> measure);

// Register the contestants.
void addEvents();
void addQtEvents();
void addTimers();
void addTrace();
void addMemory();
void addScale();
void addHost();
void addRoundTrip();
void addCommands();
void addShared();
void addSharedLoad();
void addSharedHosts();
void addPolicy();

}  // namespace Bench
