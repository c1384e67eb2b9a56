// Processes that measurements start.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Bench {

// Runs `measure` in a child process and returns its number. Throws std::runtime_error where the child failed.
double inChild(const std::function<double()>& measure);

// A program, or a function, that runs in a process of its own and is killed with this object.
class Child {
 public:
  // Both streams of the program go to `log`. Throws std::runtime_error where it cannot be started.
  Child(const std::vector<std::string>& command, const std::string& log);
  explicit Child(const std::function<void()>& run);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool running() const;
  // Seconds of processor time that it has used so far.
  double processorTime() const;
  // Asks it to end, and waits until it did.
  void stop();
  // Waits until it ended by itself.
  void wait();

 private:
  void end(int signal);

  pid_t pid_;
};

// Where this program was built: programs are in its bin, libraries in its lib.
std::string buildFolder();

// A folder on disk that is removed with everything in it.
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
