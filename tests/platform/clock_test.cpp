// Edge cases of the clock. timerwheel_test.cpp tests the order of expiries.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

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

TEST_F(ClockTest, ATimeStaysReadableAndNanMeansNever) {
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

TEST_F(ClockTest, AWokenReactorMayDestroyTheOthers) {
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

// Cases: an act before the expiry, the acts after it, and how often the reactor is woken then.
TEST_F(ClockTest, AnExpiryWhileNotificationsAreOffIsKeptOrDropped) {
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
      {"detached: kept for the next clock", detach, {attach}, 1},
      {"unregistered: kept", leave, {join}, 1},
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

TEST_F(ClockTest, WorstLatenessIsThatOfTheLatestWakeUp) {
  const auto a = waker(101.0);
  const auto b = waker(101.25);
  stepAt(101.5);
  EXPECT_DOUBLE_EQ(manager.clock()->worstLateness(true), 0.5);
  EXPECT_EQ(manager.clock()->worstLateness(), 0.0);
}

}  // namespace
