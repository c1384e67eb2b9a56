// The clock: against a reference under random operations, and its contract at the edges.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Support::Waker;
using Zel::Clock;
using Zel::Ptr;

class ClockTest : public testing::Test {
 protected:
  Ptr<Waker> waker(double at) {
    auto made = Zel::allocate<Waker>(manager.clock());
    made->timeMinIs(at);
    return made;
  }
  void stepAt(double now) {
    time.nowIs(now);
    manager.step();
  }

  Zel::System::ManualTime time{100.0};
  Zel::ActivityManager manager;
};

TEST_F(ClockTest, ATimeStaysReadableAndNoNumberIsNever) {
  const auto a = waker(100.5);
  stepAt(100.5);
  EXPECT_EQ(a->timeMin(), 100.5);
  a->timeMinIs(std::nan(""));
  EXPECT_EQ(a->timeMin(), Clock::kNever);
}

TEST_F(ClockTest, ATimeThatHasPassedFiresOncePerPass) {
  for (const double again : {0.0, -5.0, -Clock::kNever, 100.0}) {
    const auto a = waker(again);
    const auto b = waker(again);
    a->then = [&] { a->timeMinIs(again); };
    time.nowIs(100.0);
    EXPECT_LE(manager.step(), 100.0);
    EXPECT_EQ(a->woken, 1);
    EXPECT_EQ(b->woken, 1) << "the restless one does not starve the other";
    manager.step();
    EXPECT_EQ(a->woken, 2);
    EXPECT_EQ(b->woken, 1);
  }
}

TEST_F(ClockTest, AWokenReactorMayEndTheOthers) {
  auto a = waker(101);
  auto b = waker(101);
  auto c = waker(101);
  a->then = [&] {
    b = nullptr;
    c->timeMinIs(102);
    a = nullptr;
  };
  stepAt(101.5);
  EXPECT_EQ(c->woken, 0);
  stepAt(102);
  EXPECT_EQ(c->woken, 1);
}

// What is done to a reactor before its time comes, between that and switching it on again, and how often it
// is woken then.
TEST_F(ClockTest, ATimeThatComesWhileNobodyIsNotified) {
  using Act = void (*)(Waker & waker, const Ptr<const Clock>& clock);
  const Act nothing = [](auto&, auto&) {};
  const Act off = [](auto& waker, auto&) { waker.hasNotificationActiveIs(false); };
  const Act on = [](auto& waker, auto&) { waker.hasNotificationActiveIs(true); };
  const Act retire = [](auto& waker, auto&) { waker.zelDoZombieReactors(true); };
  const Act retireOff = [](auto& waker, auto&) {
    waker.zelDoZombieReactors(true), waker.hasNotificationActiveIs(false);
  };
  const Act revive = [](auto& waker, auto&) { waker.zelDoZombieReactors(false); };
  const Act detach = [](auto& waker, auto&) { waker.notifierIs(nullptr); };
  const Act attach = [](auto& waker, auto& clock) { waker.notifierIs(clock); };
  const Act leave = [](auto& waker, auto&) { waker.isRegisteredNotifieeIs(false); };
  const Act join = [](auto& waker, auto&) { waker.isRegisteredNotifieeIs(true); };
  const Act never = [](auto& waker, auto&) { waker.timeMinIs(Clock::kNever); };
  const std::tuple<const char*, Act, std::vector<Act>, int> cases[] = {
      {"off: kept", off, {on}, 1},
      {"off and on and off: kept", off, {on, off, on}, 1},
      {"off, then another time", off, {never, on}, 0},
      {"off, then retired: dropped", off, {retire, revive, on}, 0},
      {"off, then re-pointed: dropped", off, {detach, attach, on}, 0},
      {"off, then unregistered: dropped", off, {leave, join, on}, 0},
      {"retired: dropped", retire, {revive}, 0},
      {"retired and off: dropped", retireOff, {revive, on}, 0},
      {"detached: goes along to the next clock", detach, {attach}, 1},
      {"unregistered: goes along", leave, {join}, 1},
      {"switched on before", nothing, {off, on}, 0},
  };
  double now = time.now();
  for (const auto& [what, before, after, woken] : cases) {
    const auto waker = this->waker(now + 1);
    before(*waker, manager.clock());
    stepAt(now += 2);
    EXPECT_EQ(std::exchange(waker->woken, 0), before == nothing ? 1 : 0) << what;
    EXPECT_EQ(manager.nextWakeUp(), Clock::kNever) << what;
    for (const Act act : after) act(*waker, manager.clock());
    for (int i = 0; i < 3; ++i) stepAt(now += 1);
    EXPECT_EQ(waker->woken, woken) << what;
  }
}

// Every reactor is woken in the first pass at or after its time; the pass never comes later than nextWakeUp
// says.
TEST_F(ClockTest, FollowsAReferenceUnderRandomOperations) {
  std::mt19937 random(11);
  const auto uniform = [&](double most) { return std::uniform_real_distribution<>(0, most)(random); };
  std::vector<Ptr<Waker>> wakers;
  for (int i = 0; i < 40; ++i) wakers.push_back(waker(Clock::kNever));
  std::vector<double> times(40, Clock::kNever);
  std::vector<int> expected(40);
  double now = time.now();
  for (int step = 0; step < 6000; ++step) {
    const auto i = static_cast<std::size_t>(random() % wakers.size());
    const double spans[] = {0.002, 0.5, 3.0, 400.0, 1e6};
    times[i] = random() % 5 == 0 ? Clock::kNever : now + uniform(spans[random() % 5]);
    wakers[i]->timeMinIs(times[i]);
    const double earliest = *std::min_element(times.begin(), times.end());
    ASSERT_LE(manager.nextWakeUp(), earliest) << "step " << step;
    now = random() % 3 == 0 ? std::min(std::max(now, earliest), now + 5000) : now + uniform(0.8);
    for (std::size_t each = 0; each < times.size(); ++each)
      if (times[each] <= now) {
        ++expected[each];
        times[each] = Clock::kNever;
      }
    stepAt(now);
    for (std::size_t each = 0; each < times.size(); ++each)
      ASSERT_EQ(wakers[each]->woken, expected[each]) << "step " << step;
  }
}

// From near and far, so that all levels of the wheel meet in one millisecond.
TEST_F(ClockTest, ExpiriesOfOneMillisecondComeInTheOrderOfArming) {
  for (const double due : {600.0, 524.2885 + 262.144, 524.2885 + 3 * 262.144}) {
    std::vector<std::size_t> woken, all;
    std::vector<Ptr<Waker>> wakers;
    for (const double ahead : {900.0, 500.0, 262.2, 262.0, 200.0, 100.0, 1.5, 1.1, 1.0, 0.5, 0.0}) {
      stepAt(std::max(time.now(), due - ahead));
      const std::size_t i = wakers.size();
      wakers.push_back(waker(due + 0.0009 - 1e-5 * static_cast<double>(i)));
      wakers.back()->then = [&, i] { woken.push_back(i); };
      all.push_back(i);
    }
    stepAt(due + 0.001);
    EXPECT_EQ(woken, all) << due;
  }
}

TEST_F(ClockTest, LatenessIsTheWorstOfTheWakeUps) {
  const auto a = waker(101.0);
  const auto b = waker(101.25);
  stepAt(101.5);
  EXPECT_DOUBLE_EQ(manager.clock()->worstLateness(true), 0.5);
  EXPECT_EQ(manager.clock()->worstLateness(), 0.0);
}

}  // namespace
