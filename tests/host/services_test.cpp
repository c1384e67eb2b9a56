// Descriptors and tasks of other threads, on the real loop.
#include "host/io/services.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <latch>
#include <optional>
#include <system_error>
#include <thread>

#include "folder.h"
#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/inbox.h"

namespace {

using Zel::FdWatch;

class Services : public testing::Test {
 protected:
  Services() {
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    loop.turnIs([this] {
      activity.step();
      const double next = activity.nextWakeUp();
      if (!asleep.try_wait()) asleep.count_down();
      return next;
    });
  }
  ~Services() override {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  std::string read(int fd) {
    char bytes[16];
    const ssize_t size = ::read(fd, bytes, sizeof bytes);
    return size < 0 ? "error" : std::string(bytes, std::size_t(size));
  }
  void rounds() {
    for (int i = 0; i < 5; ++i) loop.runOnce();
  }

  Host::Loop loop;
  Zel::ActivityManager activity;
  Host::Services services{loop, activity.external()};
  std::array<int, 2> ends;
  std::latch asleep{1};  // reached after the first turn, which has nothing to do
};

TEST_F(Services, DescriptorsAndTasksWakeASleepingLoop) {
  const Zel::Inbox inbox;
  std::string log;
  const FdWatch watch(ends[0], FdWatch::kReadable, [&](unsigned) {
    log += read(ends[0]);
    loop.stop();
  });
  std::jthread thread([&, sender = inbox.sender()] {
    asleep.wait();
    sender.post([&] {
      log += "task ";
      EXPECT_EQ(::write(ends[1], "bytes", 5), 5);
    });
  });
  loop.run();
  EXPECT_EQ(log, "task bytes");
}

TEST_F(Services, WatchesOfOneDescriptorAreIndependent) {
  int reads = 0, writes = 0, others = 0;
  FdWatch first(ends[0], FdWatch::kReadable, [&](unsigned) { ++reads; });
  auto second = std::make_optional<FdWatch>(ends[0], FdWatch::kReadable, [&](unsigned) { ++others; });
  FdWatch writable(ends[1], FdWatch::kWritable, [&](unsigned) { ++writes; });
  rounds();
  EXPECT_TRUE(reads == 0 && others == 0 && writes > 1) << reads << others << writes;
  writable.eventsIs(0);
  second.reset();
  EXPECT_EQ(::write(ends[1], "x", 1), 1);
  writes = 0;
  rounds();
  EXPECT_TRUE(reads > 1 && others == 0 && writes == 0) << reads << others << writes;
}

// Without a duplicate, the second watch of the same number would not be polled.
TEST_F(Services, ADescriptorClosedTooEarlyLeavesOtherWatchesWorking) {
  std::optional<FdWatch> late(std::in_place, ends[0], FdWatch::kReadable, [](unsigned) {});
  const int number = ends[0];
  ::close(ends[0]);
  ::close(ends[1]);
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  ASSERT_EQ(ends[0], number);
  int reads = 0;
  const FdWatch watch(ends[0], FdWatch::kReadable, [&](unsigned) { ++reads; });
  late.reset();
  EXPECT_EQ(::write(ends[1], "x", 1), 1);
  rounds();
  EXPECT_GT(reads, 1);
}

TEST_F(Services, AnErrorOfTheFileIsReportedWhileItLasts) {
  int writes = 0;
  const FdWatch watch(ends[1], FdWatch::kWritable, [&](unsigned) { ++writes; });
  ::close(std::exchange(ends[0], -1));
  rounds();
  EXPECT_GT(writes, 1);
}

TEST_F(Services, AFileThatCantBePolledIsRefused) {
  const Folder folder;
  contentIs(folder.at("file"), "text");
  const int file = ::open(folder.at("file").c_str(), O_RDONLY | O_CLOEXEC);
  for (int i = 0; i < 2; ++i, ::close(file))
    EXPECT_THROW(FdWatch(file, FdWatch::kReadable, [](unsigned) {}), std::system_error);
  rounds();
}

}  // namespace
