// When the loop wakes.
#include "host/io/loop.h"

#include <gtest/gtest.h>

#include <stdexcept>

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

TEST(Loop, RethrowsTheExceptionOfATurn) {
  Host::Loop loop;
  loop.turnIs([]() -> double { throw std::logic_error("oops"); });
  EXPECT_THROW(loop.run(), std::logic_error);
}

}  // namespace
