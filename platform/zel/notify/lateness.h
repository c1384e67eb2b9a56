// How late wake-ups came, as a histogram.
//
//     for (std::size_t i = 0; i < Lateness::kBounds.size(); ++i)
//       print(Lateness::kBounds[i], Lateness::ofProcess().counts()[i]);
//
// Activity thread only.
#pragma once

#include <array>
#include <cstdint>

#include "platform/zel/core/export.h"

namespace Zel {

class ZEL_API Lateness {
 public:
  // The most seconds that each bucket counts; the last bucket has no bound.
  static constexpr std::array kBounds{0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01,
                                      0.025,  0.05,    0.1,    0.25,  0.5,    1.0};
  using Counts = std::array<std::uint64_t, kBounds.size() + 1>;

  // That of all clocks, since the start of the process.
  static Lateness& ofProcess();

  // Nearly all wake-ups are in the first buckets.
  void add(double seconds) {
    std::size_t bucket = 0;
    while (bucket < kBounds.size() && seconds > kBounds[bucket]) ++bucket;
    ++counts_[bucket];
    sum_ += seconds;
  }
  // Wake-ups in each bucket, without those in the ones before.
  const Counts& counts() const { return counts_; }
  // Seconds, of all wake-ups.
  double sum() const { return sum_; }

 private:
  Counts counts_{};
  double sum_ = 0;
};

}  // namespace Zel
