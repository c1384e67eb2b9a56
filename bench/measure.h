// What every measurement shares: how it is registered, how its figures are named, and the work that all
// contestants of a row are given.
//
// A row of the table has a name ("event"); the contestants of a row are registered under it ("event/libuv").
// Google Benchmark runs the repetitions of all contestants in one shuffled order, so that whatever else the
// machine does hits all alike. Each repetition yields one or more figures: seconds or bytes, less is better.
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

// Whether the run is to be short, at the price of noise.
bool quick();
void quickIs(bool quick);

// Seconds of processor time that this thread has used.
double threadTime();
// Monotonic seconds.
double now();

// The numbers from 0 to count - 1 in an order without a pattern; the same in every process.
std::vector<std::uint32_t> shuffled(std::size_t count);
// Steady, with one colour lit, by its place in Led::kPinColours.
const Led::LightSetting& steady(std::size_t colour);
bool lights(const Led::LightSetting& setting, std::size_t colour);

// The value below which `share` (0 to 1) of the samples lie; sorts them. REQUIRES: there are samples.
double quantile(std::vector<double>& samples, double share);

// Registers a loop: `run(state)` does `for (auto _ : state)`, then calls perItem.
benchmark::internal::Benchmark* addLoop(const std::string& name, std::function<void(benchmark::State&)> run);
// The figure of a loop: its processor time for each of `items`.
void perItem(benchmark::State& state, std::size_t items);

struct Figure {
  std::string name;  // empty for the figure that a contestant's own name stands for, "p99" for another
  double value;      // seconds or bytes
};
// Registers a measurement that runs once a repetition and takes its own time.
void addOnce(const std::string& name, std::function<std::vector<Figure>()> measure);

// Each row's contestants.
void addEvents();
void addQtEvents();
void addTimers();
void addTrace();
void addMemory();
void addScale();
void addHost();
void addRoundTrip();

}  // namespace Bench
