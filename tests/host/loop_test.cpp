// When the loop wakes.
#include "host/io/loop.h"

#include <gtest/gtest.h>

#include "platform/zel/notify/clock.h"

namespace {

TEST(Loop, WakesOnceAndNotBeforeTheTime) {
  Host::Loop loop;
  const double due = Zel::System::currentTime() + 0.0123;
  int turns = 0;
  loop.turnIs([&] {
    ++turns;
    if (Zel::System::currentTime() >= due) loop.stop();
    return due;
  });
  loop.run();
  EXPECT_EQ(turns, 2);
}

}  // namespace
