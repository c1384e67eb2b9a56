#include "facts/worker.h"

namespace Facts {

Worker::Worker() : thread_([this] { serve(); }) {}

Worker::~Worker() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  more_.notify_one();
  thread_.join();
}

void Worker::run(std::function<void()> job) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  more_.notify_one();
}

void Worker::serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    more_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
    if (ending_) return;
    const auto job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace Facts
