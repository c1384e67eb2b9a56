// A thread for calls that block.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace Facts {

// Runs jobs on one thread, in their order. Jobs must not throw. The destructor waits for the job that runs
// and drops the others.
class Worker {
 public:
  Worker();
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void run(std::function<void()> job);

 private:
  void serve();

  std::mutex mutex_;
  std::condition_variable more_;
  std::deque<std::function<void()>> jobs_;  // under the mutex, as is the next
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace Facts
