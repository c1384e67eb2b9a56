// Input from outside the activity thread: file descriptors and tasks of other threads.
#include "platform/zel/notify/external.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <system_error>
#include <thread>

#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/inbox.h"
#include "tests/support.h"

namespace {

using Support::Lines;
using Zel::FdWatch;
using Zel::Inbox;

// Records the polled descriptors and counts the wake-ups.
struct FakeHost : Zel::HostServices {
  struct Poll : Zel::FdPoll {
    Poll(FakeHost& host, const FdWatch& watch) : host_(host), fd_(watch.fd()) { eventsIs(watch.events()); }
    ~Poll() override { host_.polled.erase(fd_); }
    void eventsIs(unsigned events) override { host_.polled[fd_] = events; }
    FakeHost& host_;
    const int fd_;
  };

  std::unique_ptr<Zel::FdPoll> poll(FdWatch& watch) override {
    if (watch.fd() == refused) throw std::system_error(EPERM, std::generic_category());
    return std::make_unique<Poll>(*this, watch);
  }
  void wake() override { ++wakes; }

  std::map<int, unsigned> polled;
  int wakes = 0;
  int refused = -1;
};

class External : public testing::Test {
 protected:
  std::unique_ptr<FdWatch> watch(int fd, unsigned events = FdWatch::kReadable) {
    return std::make_unique<FdWatch>(fd, events, [this, fd, own = std::make_shared<int>()](unsigned ready) {
      const std::weak_ptr<int> captured = own;
      lines.push_back(std::to_string(fd) + (ready & FdWatch::kReadable ? "r" : "") +
                      (ready & FdWatch::kWritable ? "w" : ""));
      if (const auto act = std::exchange(crime, nullptr)) act();
      EXPECT_FALSE(captured.expired()) << "a handler outlives the watch that it ends";
    });
  }
  void line(const std::string& text) { lines.push_back(text); }
  Lines step() {
    manager->step();
    return std::exchange(lines, {});
  }
  bool waiting() const { return manager->nextWakeUp() <= time.now(); }

  Zel::System::ManualTime time{1.0};
  FakeHost host;
  std::optional<Zel::ActivityManager> manager{std::in_place};
  Lines lines;
  std::function<void()> crime;  // of the handler that runs next
};

TEST_F(External, AWatchRunsInTheNextPassForItsEventsOnly) {
  const auto reader = watch(3);
  const auto both = watch(4, FdWatch::kReadable | FdWatch::kWritable);
  EXPECT_FALSE(waiting());
  reader->readyIs(FdWatch::kWritable);
  EXPECT_FALSE(waiting());
  both->readyIs(FdWatch::kWritable);
  reader->readyIs(FdWatch::kReadable);
  both->readyIs(FdWatch::kReadable);
  EXPECT_TRUE(waiting());
  EXPECT_EQ(step(), (Lines{"4rw", "3r"}));
  EXPECT_EQ(step(), Lines{});

  both->readyIs(FdWatch::kWritable);
  both->eventsIs(FdWatch::kReadable);
  EXPECT_EQ(step(), Lines{});
}

// The first of three ready watches acts; `notified` has the handlers run in this pass, `later` in the next.
TEST_F(External, AHandlerMayDoAnythingToAnyWatch) {
  std::unique_ptr<FdWatch> first, second, third;
  const std::tuple<const char*, std::function<void()>, Lines, Lines> cases[] = {
      {"ends itself", [&] { first = nullptr; }, {"3r", "4r", "5r"}, {}},
      {"ends another", [&] { second = nullptr; }, {"3r", "5r"}, {}},
      {"ends all", [&] { first = nullptr, second = nullptr, third = nullptr; }, {"3r"}, {}},
      {"replaces another", [&] { second = watch(6), second->readyIs(1); }, {"3r", "5r"}, {"6r"}},
      {"pauses another", [&] { third->eventsIs(0); }, {"3r", "4r"}, {}},
      {"is ready again", [&] { first->readyIs(1); }, {"3r", "4r", "5r"}, {"3r"}},
  };
  for (const auto& [name, act, notified, later] : cases) {
    first = watch(3), second = watch(4), third = watch(5);
    for (const auto& each : {&first, &second, &third}) (*each)->readyIs(FdWatch::kReadable);
    crime = act;
    EXPECT_EQ(step(), notified) << name;
    EXPECT_EQ(step(), later) << name;
  }
}

TEST_F(External, TheHostPollsADescriptorWhileItIsWatched) {
  using Polled = std::map<int, unsigned>;
  auto early = watch(3);
  manager->external().hostIs(&host);
  auto late = watch(4);
  late->eventsIs(FdWatch::kWritable);
  EXPECT_EQ(host.polled, (Polled{{3, 1}, {4, 2}}));
  early = nullptr;
  EXPECT_EQ(host.polled, (Polled{{4, 2}}));
  manager->external().hostIs(nullptr);
  EXPECT_EQ(host.polled, Polled{});

  host.refused = 4;
  EXPECT_THROW(manager->external().hostIs(&host), std::system_error);
  host.refused = 7;
  manager->external().hostIs(&host);
  EXPECT_THROW(watch(7), std::system_error);
  late->readyIs(FdWatch::kWritable);
  manager.reset();
  EXPECT_EQ(host.polled, Polled{});
  late->readyIs(FdWatch::kWritable);
  late->eventsIs(FdWatch::kReadable);
}

TEST_F(External, AFaultNamesTheAgentAndLeavesTheRestForTheNextPass) {
  std::unique_ptr<FdWatch> bad;
  std::optional<Inbox> inbox;
  {
    const Zel::ActivityManager::AgentScope scope("lamp");
    bad = watch(3);
    inbox.emplace();
  }
  const auto next = watch(4);
  inbox->sender().post([] { throw std::runtime_error("a bad task"); });
  inbox->sender().post([&] { line("next task"); });
  crime = [] { throw std::runtime_error("a bad watch"); };
  bad->readyIs(FdWatch::kReadable);
  next->readyIs(FdWatch::kReadable);
  for (const char* text : {"agent 'lamp', the handler of file descriptor 3: a bad watch",
                           "agent 'lamp', a posted task: a bad task"}) {
    EXPECT_EQ(Support::errorOf<Zel::HandlerFault>([this] { return manager->step(); }), text);
    EXPECT_TRUE(waiting());
  }
  EXPECT_EQ(step(), (Lines{"3r", "4r", "next task"}));
}

TEST_F(External, TasksRunInThePassAfterTheyWerePosted) {
  const Inbox inbox, another;
  const auto sender = inbox.sender();
  sender.post([&] { line("1"), sender.post([&] { line("3"); }); });
  another.sender().post([&] { line("2"); });
  for (const Lines& ran : {Lines{"1", "2"}, Lines{"3"}}) {
    EXPECT_TRUE(waiting());
    EXPECT_EQ(step(), ran);
  }
  EXPECT_FALSE(waiting());
}

TEST_F(External, AnInboxDestroysItsTasks) {
  // Acts when its task is destroyed, like a closure that owns something.
  struct OnDrop {
    std::function<void()> act;
    ~OnDrop() { act(); }
  };
  const Inbox other;
  auto inbox = std::make_optional<Inbox>();
  const auto sender = inbox->sender();
  std::shared_ptr<OnDrop> holder(new OnDrop{[&] {
    line("dropped");
    EXPECT_FALSE(sender.post([] {}));
    EXPECT_TRUE(other.sender().post([&] { line("other"); }));
  }});
  sender.post([&] {
    inbox.reset();
    line("ended");
  });
  sender.post([held = std::move(holder), this] { line("ran"); });
  EXPECT_EQ(step(), (Lines{"dropped", "ended"}));
  EXPECT_FALSE(sender.post([&] { line("late"); }));
  EXPECT_EQ(step(), Lines{"other"});

  other.sender().post([&] { line("without a loop"); });
  manager.reset();
  EXPECT_FALSE(other.sender().post([] {}));
  EXPECT_EQ(lines, Lines{});
}

TEST_F(External, TheTasksOfOnePassWakeTheHostOnce) {
  const Inbox inbox;
  const auto postAndCount = [&] { return inbox.sender().post([] {}), host.wakes; };
  postAndCount();
  manager->external().hostIs(&host);
  EXPECT_EQ(host.wakes, 1);
  EXPECT_EQ(postAndCount(), 1);
  step();
  EXPECT_EQ(postAndCount(), 2);
  manager->external().hostIs(nullptr);
  step();
  EXPECT_EQ(postAndCount(), 2);
}

// Threads post while passes run, and while the inbox is destroyed. Also for the thread sanitizer.
TEST_F(External, ManyThreadsPostAndNothingIsLostOrRunTwice) {
  constexpr int kThreads = 4, kPosts = 2000;
  manager->external().hostIs(&host);
  std::vector<std::vector<int>> ran(kThreads);
  std::atomic<int> ended{0};
  auto brief = std::make_optional<Inbox>();
  const Inbox inbox;
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&, thread, sender = inbox.sender(), cut = brief->sender()] {
      for (int i = 0; i < kPosts; ++i)
        sender.post([&ran, thread, i] { ran[std::size_t(thread)].push_back(i); });
      while (cut.post([] {})) {
      }
      ++ended;
    });
  while (std::ranges::any_of(ran, [](const auto& each) { return each.size() < kPosts; })) manager->step();
  brief.reset();
  threads.clear();
  EXPECT_EQ(ended, kThreads);
  for (const auto& each : ran) EXPECT_TRUE(each.size() == kPosts && std::ranges::is_sorted(each));
}

}  // namespace
