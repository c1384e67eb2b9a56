#include "bench/measure.h"

#include <algorithm>
#include <ctime>
#include <numeric>
#include <random>

#include "bench/table.h"
#include "platform/model/colourmembers.h"

namespace Bench {

namespace {

bool isQuick = false;

double clockSeconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

bool quick() { return isQuick; }
void quickIs(bool quick) { isQuick = quick; }

double threadTime() { return clockSeconds(CLOCK_THREAD_CPUTIME_ID); }
double now() { return clockSeconds(CLOCK_MONOTONIC); }

std::vector<std::uint32_t> shuffled(std::size_t count) {
  std::vector<std::uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0U);
  std::shuffle(order.begin(), order.end(), std::mt19937(20));
  return order;
}

const Led::LightSetting& steady(std::size_t colour) {
  static const std::array<Led::LightSetting, kPins> settings = [] {
    std::array<Led::LightSetting, kPins> made;
    for (std::size_t i = 0; i < kPins; ++i) made[i].*Led::kColourMembers[i].lit = true;
    return made;
  }();
  return settings[colour];
}

bool lights(const Led::LightSetting& setting, std::size_t colour) {
  return setting.*Led::kColourMembers[colour].lit;
}

double quantile(std::vector<double>& samples, double share) {
  std::ranges::sort(samples);
  const auto last = static_cast<double>(samples.size() - 1);
  return samples[static_cast<std::size_t>(share * last + 0.5)];
}

benchmark::internal::Benchmark* addLoop(const std::string& name, std::function<void(benchmark::State&)> run) {
  return benchmark::RegisterBenchmark(name.c_str(), std::move(run));
}

void perItem(benchmark::State& state, std::size_t items) {
  using benchmark::Counter;
  state.counters[""] =
      Counter(static_cast<double>(items), static_cast<Counter::Flags>(Counter::kIsRate | Counter::kInvert));
}

void addOnce(const std::string& name, std::function<std::vector<Figure>()> measure) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [name, measure](benchmark::State& state) {
                                 for (auto _ : state) {
                                   try {
                                     for (const Figure& figure : measure())
                                       results().add(name, figure.name, figure.value);
                                   } catch (const std::exception& error) {
                                     results().fail(name, error.what());
                                   }
                                   state.SetIterationTime(1.0);
                                 }
                               })
      ->Iterations(1)
      ->UseManualTime();
}

}  // namespace Bench
