// The real pinlampd as a process.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "client.h"
#include "folder.h"
#include "tests/places.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A process, killed by the destructor if it still runs. Its standard error goes to a file, as if that were
// the journal.
class Process {
 public:
  Process(const Folder& folder, std::vector<std::string> arguments, const std::string& notify = {})
      : errors_(folder.at("stderr")), process_(::fork()) {
    if (process_ != 0) return;
    if (!notify.empty()) ::setenv("NOTIFY_SOCKET", notify.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "20000", 1);
    if (!std::freopen(errors_.c_str(), "w", stderr)) ::_exit(126);
    struct stat status {};
    ::fstat(STDERR_FILENO, &status);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    std::vector<char*> pointers;
    arguments.insert(arguments.begin(), Places::pinlampd());
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    ::execv(Places::pinlampd().c_str(), pointers.data());
    ::_exit(127);
  }
  ~Process() {
    if (process_ > 0) signal(SIGKILL), exitStatus();
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void signal(int number) const { ::kill(process_, number); }
  // Waits for it to end; -1 if a signal killed it.
  int exitStatus() {
    int status = 0;
    ::waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string errors() const { return contentOf(errors_); }

 private:
  const std::string errors_;
  pid_t process_;
};

// The notification socket of a service manager.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path)
      : descriptor_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = addressOf(path);
    EXPECT_EQ(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~NotifySocket() { ::close(descriptor_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // Fills the queue, as if the manager were busy.
  void fill(const std::string& state) const {
    const int sender = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    socklen_t size = sizeof address;
    ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size);
    while (::sendto(sender, state.data(), state.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                    size) > 0) {
    }
    ::close(sender);
  }

  // Drops what has arrived.
  void drain() {
    char bytes[128];
    while (::recv(descriptor_, bytes, sizeof bytes, MSG_DONTWAIT) >= 0) {
    }
  }

  // Whether `state` arrives before any message but `meanwhile`.
  bool receives(const std::string& state, const std::string& meanwhile) {
    for (;;) {
      const std::string message = next();
      if (message == state) return true;
      if (message != meanwhile) return false;
    }
  }
  // The next message; empty if none comes.
  std::string next() {
    pollfd waiting{descriptor_, POLLIN, 0};
    if (::poll(&waiting, 1, 10000) != 1) return {};
    char bytes[1024];
    return {bytes, static_cast<std::size_t>(::recv(descriptor_, bytes, sizeof bytes, 0))};
  }

 private:
  const int descriptor_;
};

TEST(Pinlampd, NotifiesReadinessAndStopsInOrder) {
  const Folder folder;
  NotifySocket notify(folder.at("notify"));
  const std::string socket = folder.at("socket");
  const std::string store = "sqlite:" + folder.at("db");
  Process first(folder, {"--store", store, "--socket", socket, "--agent", Places::testAgents() + ":Plain"},
                folder.at("notify"));
  ASSERT_TRUE(notify.receives("READY=1", "WATCHDOG=1")) << first.errors();
  EXPECT_TRUE(notify.receives("STATUS=Serving, with the state database " + store, "WATCHDOG=1"));
  EXPECT_TRUE(notify.receives("WATCHDOG=1", ""));
  EXPECT_TRUE(Client(socket).connected());

  first.signal(SIGHUP);
  EXPECT_TRUE(Client(socket).connected());
  notify.fill("WATCHDOG=1");
  first.signal(SIGTERM);
  EXPECT_TRUE(notify.receives("STOPPING=1", "WATCHDOG=1"));
  EXPECT_EQ(first.exitStatus(), 0);
  EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST(Pinlampd, UnderAServiceManagerARefusedStartIsLoggedOnceAndTriedAgain) {
  const Folder folder;
  NotifySocket notify(folder.at("notify"));
  const std::string state = folder.at("db");
  std::ofstream(state) << "not a database at all";
  Process process(folder, {"--store", "sqlite:" + state, "--socket", folder.at("socket")},
                  folder.at("notify"));
  ASSERT_THAT(notify.next(),
              AllOf(StartsWith("STATUS=The start is refused"), HasSubstr("is not a database")));
  std::filesystem::rename(state, state + ".damaged");
  EXPECT_TRUE(notify.receives("READY=1", "WATCHDOG=1")) << process.errors();
  EXPECT_THAT(process.errors(), StartsWith("<3>pinlampd: store file"));
  EXPECT_EQ(std::ranges::count(process.errors(), '\n'), 1);
}

TEST(Pinlampd, AThrowingAgentEndsItWithTheAgentAndHandlerNamed) {
  const std::string agents = Places::testAgents();
  const std::pair<std::string, std::string> cases[] = {
      {agents + ":Faulty:lamp", "agent 'lamp', reactor Test::Alarm: the lamp fell over"},
      {agents + ":Throwing:lamp", "agent 'lamp', factory of '" + agents + "': no lamp oil"},
      {agents + ":Odd::Inner:lamp", "an exception of no known type"},
      {agents + ":Unwilling:lamp", "agent 'lamp', doInit: not today"},
      {agents + ":Late:lamp", "agent 'lamp', doMountsComplete: too late"},
  };
  for (const auto& [agent, text] : cases) {
    const Folder folder;
    Process process(folder, {"--socket", folder.at("socket"), "--agent", agent});
    EXPECT_EQ(process.exitStatus(), 70) << agent;
    EXPECT_THAT(process.errors(), AllOf(StartsWith("<3>pinlampd: "), HasSubstr(text)));
    EXPECT_FALSE(std::filesystem::exists(folder.at("socket")));
  }
}

// Sets a limit for the processes that the test starts.
class Limit {
 public:
  Limit(__rlimit_resource_t resource, rlim_t limit) : resource_(resource) {
    ::getrlimit(resource, &before_);
    const rlimit lower{limit, before_.rlim_max};
    ::setrlimit(resource, &lower);
  }
  ~Limit() { ::setrlimit(resource_, &before_); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  const __rlimit_resource_t resource_;
  rlimit before_{};
};

// Waits for the client's next line; "none" if the connection ends first.
std::string lineOf(Client& client) {
  std::optional<std::string> line;
  while (!line && !client.ended()) line = client.line();
  return line.value_or("none");
}

TEST(Pinlampd, ClientsThatHoldAllDescriptorsLeaveTheHostItsOwn) {
  const Folder folder;
  NotifySocket notify(folder.at("notify"));
  const std::string socket = folder.at("socket");
  std::optional<Limit> files(std::in_place, RLIMIT_NOFILE, 64);
  Process process(folder, {"--socket", socket, "--store", "sqlite:" + folder.at("db")}, folder.at("notify"));
  files.reset();
  ASSERT_TRUE(notify.receives("READY=1", "WATCHDOG=1")) << process.errors();
  Client client(socket);
  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 60; ++i) idle.push_back(std::make_unique<Client>(socket));
  EXPECT_THAT(lineOf(*idle.back()), HasSubstr("\"error\""));
  EXPECT_EQ(lineOf(*idle.back()), "none") << "it is disconnected";
  notify.drain();
  EXPECT_TRUE(notify.receives("WATCHDOG=1", ""));
  client.send(R"({"jsonrpc":"2.0","id":1,"method":"write","params":{"changes":[)"
              R"({"op":"put","path":"a","type":"Zel::Dir"}]}})"
              "\n");
  EXPECT_THAT(lineOf(client), HasSubstr("written"));
}

TEST(Pinlampd, AFileSizeLimitFailsTheWriteAndNotTheProcess) {
  const Folder folder;
  NotifySocket notify(folder.at("notify"));
  std::optional<Limit> fileSize(std::in_place, RLIMIT_FSIZE, rlim_t{256} << 10);
  Process process(folder, {"--socket", folder.at("socket"), "--store", "sqlite:" + folder.at("db")},
                  folder.at("notify"));
  fileSize.reset();
  ASSERT_TRUE(notify.receives("READY=1", "WATCHDOG=1")) << process.errors();
  Client client(folder.at("socket"));
  const auto answer = [&](const std::string& request) {
    client.send(R"({"jsonrpc":"2.0","id":1,"method":)" + request + "}\n");
    return lineOf(client);
  };
  const auto write = [&](const std::string& text) {
    return answer(R"("write","params":{"changes":[{"op":"put","path":"led",)"
                  R"("type":"Hardware::Gpio::GpioLineStatus","attributes":{"error":")" +
                  text + "\"}}]}");
  };
  EXPECT_THAT(write("small"), HasSubstr("written"));
  EXPECT_THAT(write(std::string(100'000, 't')), HasSubstr("written"));
  EXPECT_THAT(write(std::string(200'000, 'u')), HasSubstr(R"("error":{"code":2)"));
  EXPECT_THAT(answer(R"("read","params":{"path":"led"})"), HasSubstr("tttt")) << "the last good value";
  EXPECT_THAT(write("small again"), HasSubstr("written"));
  process.signal(SIGTERM);
  EXPECT_EQ(process.exitStatus(), 0);
}

// The bytes that arrive until the other end is closed, after `request` was sent and this end shut.
std::string exchanged(int descriptor, const std::string& request) {
  EXPECT_EQ(::send(descriptor, request.data(), request.size(), MSG_NOSIGNAL), ssize_t(request.size()));
  ::shutdown(descriptor, SHUT_WR);
  std::string arrived;
  char bytes[4096];
  for (ssize_t size; (size = ::recv(descriptor, bytes, sizeof bytes, 0)) > 0;)
    arrived.append(bytes, static_cast<std::size_t>(size));
  ::close(descriptor);
  return arrived;
}

TEST(Pinlampd, ServesAnInheritedClientAndEndsWithIt) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"memory:", 0, R"("name":"pinlampd")"}, {"sqlite:/no/where", 1, "the folder '/no' is not there"}};
  for (const auto& [store, status, answer] : cases) {
    const Folder folder;
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    Process process(folder, {"--client", std::to_string(ends[1]), "--store", store});
    ::close(ends[1]);
    EXPECT_THAT(exchanged(ends[0], "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"hello\"}\n"),
                HasSubstr(answer));
    EXPECT_EQ(process.exitStatus(), status);
    EXPECT_EQ(process.errors(), "");
  }
}

TEST(Pinlampd, ExitsWith2OnAWrongCommandLineAnd1OnARefusedStart) {
  const Folder folder;
  const std::string socket = folder.at("socket");
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"--nonsense"}, 2},
      {{"--cell", "70000"}, 2},
      {{"--trace", "Pinlamp"}, 2},
      {{"--agent", "x.so:9"}, 2},
      {{"--max-clients", "0"}, 2},
      {{"--socket", socket, "--max-clients", "3000000000"}, 1},
      {{"--version"}, 0},
      {{"--socket", socket, "--agent", Places::testAgents() + ":Null"}, 1},
      {{"--socket", socket, "--store", "paper:"}, 1},
      {{"--socket", socket, "--trace-file", folder.at("no/file")}, 1},
  };
  for (const auto& [arguments, status] : cases) {
    Process process(folder, arguments);
    EXPECT_EQ(process.exitStatus(), status) << arguments.back() << ": " << process.errors();
  }
}

}  // namespace
