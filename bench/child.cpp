#include "bench/child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace Bench {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

pid_t forked(const std::function<void()>& run) {
  const pid_t pid = fork();
  if (pid < 0) fail("fork");
  if (pid != 0) return pid;
  run();
  _exit(0);
}

void execute(const std::vector<std::string>& command, const std::string& log) {
  std::vector<char*> arguments;
  for (const auto& each : command) arguments.push_back(const_cast<char*>(each.c_str()));
  arguments.push_back(nullptr);
  const int file = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(file, STDOUT_FILENO);
  dup2(file, STDERR_FILENO);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace

double inChild(const std::function<double()>& measure) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
  double result = 0;
  const pid_t pid = forked([&] {
    const double measured = measure();
    if (write(ends[1], &measured, sizeof measured) != sizeof measured) _exit(1);
  });
  close(ends[1]);
  const bool complete = read(ends[0], &result, sizeof result) == sizeof result;
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  if (!complete) throw std::runtime_error("the measuring process ended without a result");
  return result;
}

Child::Child(const std::vector<std::string>& command, const std::string& log)
    : pid_(forked([&] { execute(command, log); })) {}

Child::Child(const std::function<void()>& run) : pid_(forked(run)) {}

Child::~Child() { end(SIGKILL); }

bool Child::running() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

double Child::processorTime() const {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0) fail("clock_getcpuclockid");
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void Child::stop() { end(SIGTERM); }

void Child::wait() {
  if (pid_ > 0) waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void Child::end(int signal) {
  if (pid_ <= 0) return;
  kill(pid_, signal);
  wait();
}

std::string buildFolder() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path().string();
}

// Beside the program, as /tmp is often a tmpfs.
TemporaryFolder::TemporaryFolder() {
  std::string made = buildFolder() + "/run-XXXXXX";
  if (!mkdtemp(made.data())) fail("mkdtemp " + made);
  path_ = made;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace Bench
