// When the host wakes for flashing LEDs. Each computes its next time from its wake-up.
#include "host/io/wakeups.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

using Zel::Ptr;

constexpr double kLatency = 30e-6;  // of a wake-up
constexpr double kCost = 0.3e-6;    // of a tick
constexpr double kInterval = 0.1;

class Flasher : public Zel::Reactor<Flasher, Zel::Clock::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::Flasher";
  Flasher(const Ptr<const Zel::Clock>& clock, Zel::System::ManualTime& time) : Reactor(clock), time_(time) {}
  void onTime() override {
    late = std::max(late, time_.now() - timeMin());
    time_.advance(kCost);
    timeMinIs(time_.now() + kInterval);
  }
  double late = 0;

 private:
  Zel::System::ManualTime& time_;
};

class WakeUps : public testing::Test {
 protected:
  void add(double first) {
    flashers.push_back(Zel::allocate<Flasher>(manager.clock(), time));
    flashers.back()->timeMinIs(first);
  }
  // Returns the number of wake-ups in so many intervals.
  int run(int intervals) {
    int wakes = 0;
    for (const double end = time.now() + intervals * kInterval; time.now() < end; ++wakes) {
      const double at = wakeUps.next(manager);
      EXPECT_GE(at, manager.nextWakeUp());
      time.nowIs(std::max(time.now(), at) + kLatency);
      manager.step();
    }
    return wakes;
  }
  double takeLatest() {
    double latest = 0;
    for (const auto& each : flashers) latest = std::max(latest, std::exchange(each->late, 0.0));
    return latest;
  }

  Zel::System::ManualTime time{100.0};
  Zel::ActivityManager manager;
  Host::WakeUps wakeUps;
  std::vector<Ptr<Flasher>> flashers;
};

TEST_F(WakeUps, RareOnesAreExactAndStayApart) {
  EXPECT_EQ(wakeUps.next(manager), Zel::Clock::kNever);
  add(100.01);
  add(100.0107);
  EXPECT_EQ(wakeUps.next(manager), 100.01);
  run(100);
  EXPECT_NEAR(takeLatest(), kLatency, 1e-9);
  const double apart = flashers[1]->timeMin() - flashers[0]->timeMin();
  EXPECT_NEAR(std::remainder(apart, kInterval + kLatency + kCost), 0.0007, 1e-9);
}

TEST_F(WakeUps, FrequentOnesMergeWithinTheSlack) {
  std::mt19937 random(5);
  for (int i = 0; i < 300; ++i) add(100.1 + kInterval * std::uniform_real_distribution<>()(random));
  const int atFirst = run(2);
  run(40);
  EXPECT_LE(takeLatest(), Host::WakeUps::kSlack + kLatency + 10e-6);
  EXPECT_LT(run(2), atFirst / 2);
  EXPECT_LT(takeLatest(), kLatency + 10e-6) << "once merged, they are exact again";
}

}  // namespace
