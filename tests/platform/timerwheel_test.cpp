// The timer wheel against a std::multimap under random operations.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "platform/zel/notify/timerwheel.h"

namespace {

using Zel::TimerWheel;

struct Item {
  double time = 0;
  TimerWheel::Timer timer = TimerWheel::kNone;
};

// Timers by millisecond; std::multimap keeps equal keys in the order of insertion.
class Reference {
 public:
  using Items = std::multimap<double, Item*>;

  void insert(Item& item) { items_.emplace(std::max(std::floor(item.time * 1000), tick_), &item); }
  void erase(Item& item) {
    std::erase_if(items_, [&](const auto& each) { return each.second == &item; });
    std::erase(due_, &item);
  }
  void collect(double now) {
    tick_ = std::max(tick_, std::floor(now * 1000));
    const auto isDue = [&](const auto& each) { return each.second->time <= now; };
    for (const auto& each : items_)
      if (isDue(each)) due_.push_back(each.second);
    std::erase_if(items_, isDue);
  }
  double next() const {
    double next = due_.empty() ? TimerWheel::kNever : -TimerWheel::kNever;
    for (const auto& [tick, item] : items_) next = std::min(next, item->time);
    return next;
  }
  TimerWheel::Around around(double time, double reach) const {
    TimerWheel::Around found{-TimerWheel::kNever, TimerWheel::kNever};
    for (const auto& [tick, item] : items_)
      if (item->time >= time - reach && item->time <= time)
        found.before = std::max(found.before, item->time);
      else if (item->time > time && item->time <= time + reach)
        found.after = std::min(found.after, item->time);
    return found;
  }
  const std::vector<Item*>& due() const { return due_; }
  bool empty() const { return items_.empty() && due_.empty(); }

 private:
  double tick_ = 0;
  Items items_;
  std::vector<Item*> due_;
};

class TimerWheelTest : public testing::Test {
 protected:
  double uniform(double most) { return std::uniform_real_distribution<>(0, most)(random_); }
  // Many in one millisecond, and from the past to beyond all levels.
  double someTime() {
    const double spans[] = {0.002, 0.5, 3.0, 400.0, 1e6};
    const double time = now_ + uniform(spans[random_() % 5]);
    return random_() % 8 == 0 ? now_ - uniform(2) : random_() % 2 == 0 ? std::ceil(time) : time;
  }
  void arm(Item& item) {
    item.time = someTime();
    item.timer = wheel_.arm(item.time, &item);
    reference_.insert(item);
  }
  void rearm(Item& item) {
    item.time = someTime();
    wheel_.rearm(item.timer, item.time);
    reference_.erase(item);
    reference_.insert(item);
  }
  void disarm(Item& item) {
    wheel_.disarm(std::exchange(item.timer, TimerWheel::kNone));
    reference_.erase(item);
  }
  void anyOperationOn(Item& item) {
    if (item.timer == TimerWheel::kNone)
      arm(item);
    else if (random_() % 3 == 0)
      disarm(item);
    else
      rearm(item);
  }
  void collect() {
    const double next = reference_.next();
    if (random_() % 3 == 0 && next < TimerWheel::kNever)
      now_ = std::min(std::max(now_, next), now_ + 5000);
    else
      now_ += uniform(0.8);
    wheel_.collect(now_);
    reference_.collect(now_);
  }
  std::vector<Item*> due() const {
    std::vector<Item*> due;
    for (auto timer = wheel_.firstDue(); timer != TimerWheel::kNone; timer = wheel_.nextDue(timer))
      due.push_back(static_cast<Item*>(wheel_.payload(timer)));
    return due;
  }
  void expectAround(double time) {
    const auto found = wheel_.around(time, 0.01), wanted = reference_.around(time, 0.01);
    const bool isFine = std::floor((now_ + 0.02) / 1.024) == std::floor(now_ / 1.024);
    if (isFine && time < now_ + 0.01) {  // no timer of the coarse level is near
      ASSERT_EQ(found.before, wanted.before);
      ASSERT_EQ(found.after, wanted.after);
    }
    ASSERT_LE(found.before, wanted.before);
    ASSERT_GE(found.after, wanted.after);
  }

  std::mt19937 random_{11};
  double now_ = 100;
  TimerWheel wheel_{now_};
  Reference reference_;
};

TEST_F(TimerWheelTest, FollowsAReferenceUnderRandomOperations) {
  std::vector<Item> items(40);
  for (int step = 0; step < 20000; ++step) {
    SCOPED_TRACE(step);
    anyOperationOn(items[random_() % items.size()]);
    ASSERT_LE(wheel_.next(), reference_.next());
    if (reference_.empty()) {
      ASSERT_EQ(wheel_.next(), TimerWheel::kNever);
    }
    collect();
    ASSERT_EQ(due(), reference_.due());
    while (!reference_.due().empty() && random_() % 8 != 0) disarm(*reference_.due().front());
    if (reference_.due().empty()) {
      ASSERT_GT(wheel_.next(), now_) << "would wake for nothing";
    }
    expectAround(std::min(now_ + uniform(0.01), std::max(now_, reference_.next())));
    if (HasFatalFailure()) return;
  }
}

// Armed from near and far, so that timers of all levels expire in one millisecond.
TEST_F(TimerWheelTest, TimersOfOneMillisecondExpireInTheOrderOfArming) {
  for (const double time : {600.0, 524.2885 + 262.144, 524.2885 + 3 * 262.144}) {
    std::vector<Item> items(11);
    std::vector<Item*> all;
    for (const double ahead : {900.0, 500.0, 262.2, 262.0, 200.0, 100.0, 1.5, 1.1, 1.0, 0.5, 0.0}) {
      wheel_.collect(now_ = std::max(now_, time - ahead));
      Item& item = items[all.size()];
      item.timer = wheel_.arm(time + 0.0009 - 1e-5 * static_cast<double>(all.size()), &item);
      all.push_back(&item);
    }
    wheel_.collect(now_ = time + 0.001);
    EXPECT_EQ(due(), all) << time;
    for (const Item& item : items) wheel_.disarm(item.timer);
  }
}

}  // namespace
