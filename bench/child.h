// Processes that measurements start.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Bench {

// Runs `measure` in a child process and returns its result. Throws std::runtime_error if the child fails.
double inChild(const std::function<double()>& measure);

// A child process that runs a program or a function. The destructor kills it.
class Child {
 public:
  // Appends the program's output and errors to `log`. Throws std::runtime_error if it cannot be forked.
  Child(const std::vector<std::string>& command, const std::string& log);
  explicit Child(const std::function<void()>& run);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool running() const;
  // Seconds of processor time that it has used so far.
  double processorTime() const;
  // Sends SIGTERM and waits until it ends.
  void stop();
  // Waits until it ends by itself.
  void wait();

 private:
  void end(int signal);

  pid_t pid_;
};

// The build folder: programs are in its bin, libraries in its lib.
std::string buildFolder();

// A folder on disk, removed with its contents by the destructor.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  std::string file(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

}  // namespace Bench
