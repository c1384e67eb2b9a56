#include "ctl/ownhost.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ctl/refusal.h"

namespace Ctl {

namespace {

namespace fs = std::filesystem;

constexpr int kClient = 3;                // its descriptor of the connection
constexpr int kLongestShutDown = 10'000;  // milliseconds; it is killed after that

std::string programBeside() {
  std::error_code ignored;
  const fs::path program = fs::read_symlink("/proc/self/exe", ignored).parent_path() / "pinlampd";
  if (!fs::exists(program, ignored))
    throw Refusal("--store: '" + program.string() + "' is not there; it is what reads the state database");
  return program.string();
}

// How the process starts: with standard error alone of this process's files, in a process group of its own,
// as Ctrl-C ends this process, and it by that, and with no signal blocked.
class Start {
 public:
  explicit Start(int connection) {
    posix_spawn_file_actions_init(&files_);
    posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&files_, connection, kClient);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes_, &none);
  }
  ~Start() {
    posix_spawn_file_actions_destroy(&files_);
    posix_spawnattr_destroy(&attributes_);
  }
  Start(const Start&) = delete;
  Start& operator=(const Start&) = delete;

  pid_t run(std::vector<std::string> words) const {
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    pid_t process = -1;
    if (const int error = posix_spawn(&process, pointers[0], &files_, &attributes_, pointers.data(), environ))
      throw Refusal("'" + words[0] + "' does not start: " + std::strerror(error));
    return process;
  }

 private:
  posix_spawn_file_actions_t files_;
  posix_spawnattr_t attributes_;
};

// A descriptor, closed at its end.
struct Closing {
  ~Closing() { close(descriptor); }
  const int descriptor;
};

std::vector<std::string> wordsFor(const std::string& store, const std::vector<std::string>& types) {
  std::vector<std::string> words{programBeside(), "--client", std::to_string(kClient), "--store=" + store};
  for (const std::string& library : types) words.push_back("--types=" + library);
  return words;
}

}  // namespace

OwnHost::OwnHost(const std::string& store, const std::vector<std::string>& types) {
  const auto words = wordsFor(store, types);
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    throw Refusal(std::string("can't make a socket: ") + std::strerror(errno));
  const Closing its{ends[1]};
  try {
    process_ = Start(its.descriptor).run(words);
  } catch (...) {
    close(ends[0]);
    throw;
  }
  descriptor_ = ends[0];
}

OwnHost::~OwnHost() {
  const Closing ended{static_cast<int>(syscall(SYS_pidfd_open, process_, 0))};
  pollfd entry{ended.descriptor, POLLIN, 0};
  if (ended.descriptor >= 0 && poll(&entry, 1, kLongestShutDown) == 0) kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

}  // namespace Ctl
