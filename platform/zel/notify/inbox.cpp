#include "platform/zel/notify/inbox.h"

#include <algorithm>
#include <iterator>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/external.h"

namespace Zel {

namespace detail {

bool Mailbox::post(const std::shared_ptr<InboxState>& inbox, std::function<void()> task) {
  const std::lock_guard lock(mutex_);
  if (shutDown_ || !inbox->open) return false;
  tasks_.push_back({inbox, std::move(task)});
  if (!posted_.exchange(true, std::memory_order_relaxed) && host_) host_->wake();
  return true;
}

void Mailbox::close(InboxState& inbox) {
  std::deque<Task> dropped;
  const auto moveFrom = [&](std::deque<Task>& tasks) {
    const auto isOthers = [&](const Task& task) { return task.inbox.get() != &inbox; };
    const auto first = std::stable_partition(tasks.begin(), tasks.end(), isOthers);
    std::move(first, tasks.end(), std::back_inserter(dropped));
    tasks.erase(first, tasks.end());
  };
  moveFrom(taken_);
  const std::lock_guard lock(mutex_);
  inbox.open = false;
  moveFrom(tasks_);
}

void Mailbox::shutDown() {
  std::deque<Task> dropped;
  const auto alsoDropped = std::exchange(taken_, {});
  const std::lock_guard lock(mutex_);
  shutDown_ = true;
  host_ = nullptr;
  dropped.swap(tasks_);
}

void Mailbox::hostIs(HostServices* host) {
  const std::lock_guard lock(mutex_);
  host_ = host;
  if (host_ && posted_.load(std::memory_order_relaxed)) host_->wake();
}

void Mailbox::take() {
  const std::lock_guard lock(mutex_);
  posted_.store(false, std::memory_order_relaxed);
  std::ranges::move(tasks_, std::back_inserter(taken_));
  tasks_.clear();
}

void Mailbox::run() {
  if (posted_.load(std::memory_order_relaxed)) take();
  while (!taken_.empty()) {
    const Task task = std::move(taken_.front());
    taken_.pop_front();
    runFor(task.inbox->agent, "a posted task", task.run);
  }
}

}  // namespace detail

bool Inbox::Sender::post(std::function<void()> task) const {
  ZEL_REQUIRE(task, "an empty task");
  return state_->mailbox->post(state_, std::move(task));
}

Inbox::Inbox()
    : state_(std::make_shared<detail::InboxState>(
          detail::InboxState{activityManager().external().mailbox_, ActivityManager::currentAgent()})) {}
Inbox::~Inbox() { state_->mailbox->close(*state_); }

}  // namespace Zel
