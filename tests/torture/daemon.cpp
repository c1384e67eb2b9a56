#include "tests/torture/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>

#include "tests/host/client.h"

namespace Torture {

namespace {

constexpr double kPatience = 20;

// In the child.
[[noreturn]] void become(std::vector<std::string> words, const std::string& log,
                         const Daemon::Surroundings& surroundings) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::dup2(output, STDERR_FILENO);
  for (const auto& [name, value] : surroundings.environment) ::setenv(name.c_str(), value.c_str(), 1);
  if (surroundings.descriptors > 0) {
    const rlimit files{surroundings.descriptors, surroundings.descriptors};
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  ::execv(words[0].c_str(), pointers.data());
  ::_exit(127);
}

int connected(const std::string& socket) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const sockaddr_un address = addressOf(socket);
  for (const double end = now() + kPatience;;) {
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return descriptor;
    if (errno != EAGAIN || now() > end) break;  // EAGAIN: many wait to be accepted
    sleepFor(0.001);
  }
  ::close(descriptor);
  throw Lost("nobody listens at " + socket);
}

}  // namespace

std::string built(const std::string& file) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / file).string();
}

Daemon::Daemon(const Round& round, const std::string& name, std::vector<std::string> arguments,
               const Surroundings& surroundings)
    : name_(name),
      socket_(round.folder.at(name + ".sock")),
      log_(round.folder.at(name + ".log")),
      pid_(::fork()) {
  if (pid_ != 0) return;
  arguments.insert(arguments.begin(), {built("bin/pinlampd"), "--socket", socket_});
  become(std::move(arguments), log_, surroundings);
}

Daemon::~Daemon() {
  if (pid_ > 0) kill();
}

void Daemon::signal(int number) const { ::kill(pid_, number); }

void Daemon::kill() {
  signal(SIGKILL);
  ::waitpid(std::exchange(pid_, -1), nullptr, 0);
}

std::optional<int> Daemon::status(double seconds) {
  int status = 0;
  for (const double end = now() + seconds; ::waitpid(pid_, &status, WNOHANG) == 0; sleepFor(0.001))
    if (now() >= end) return std::nullopt;
  pid_ = -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  throw Failure(name_ + " was ended by signal " + std::to_string(WTERMSIG(status)) + "; its log:\n" + log());
}

void Daemon::waitReady() {
  await(name_ + " must start", kPatience, [this]() -> std::string {
    if (const auto code = status(0))
      throw Failure(name_ + " ended with " + std::to_string(*code) + " at its start; its log:\n" + log());
    try {
      Client(socket_).call("hello");
      return "";
    } catch (const Lost& lost) {
      return lost.what();
    }
  });
}

void Daemon::stop() {
  signal(SIGTERM);
  const auto code = status(kPatience);
  if (code != 0) throw Failure(name_ + " must end in order at SIGTERM; its log:\n" + log());
}

std::string Daemon::log() const {
  const std::string text = contentOf(log_);
  return text.size() < 4000 ? text : text.substr(text.size() - 4000);
}

std::uint64_t Daemon::memory() const {
  std::ifstream in("/proc/" + std::to_string(pid_) + "/statm");
  std::uint64_t size = 0, resident = 0;
  in >> size >> resident;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

Client::Client(const std::string& socket) : descriptor_(connected(socket)) {}
Client::~Client() { ::close(descriptor_); }

ssize_t Client::sendRaw(std::string_view bytes) {
  const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent >= 0) return sent;
  if (errno == EAGAIN) return 0;
  ended_ = true;
  return -1;
}

std::int64_t Client::send(const char* method, const Json& parameters) {
  static std::int64_t lastId = 0;
  const std::string line = Host::requestText(++lastId, method, parameters.dump()) + "\n";
  for (std::string_view rest = line; !rest.empty();) {
    const ssize_t sent = sendRaw(rest);
    if (sent < 0) break;
    if (sent == 0) receive(0.01);  // the other side may wait for this one to read
    rest.remove_prefix(static_cast<std::size_t>(sent));
  }
  return lastId;
}

bool Client::receive(double seconds) {
  pollfd waiting{descriptor_, POLLIN, 0};
  if (::poll(&waiting, 1, static_cast<int>(seconds * 1000 + 0.999)) != 1) return false;
  char bytes[1 << 16];
  const ssize_t size = ::recv(descriptor_, bytes, sizeof bytes, 0);
  if (size > 0) arrived_.append(bytes, static_cast<std::size_t>(size));
  if (size == 0 || (size < 0 && errno != EAGAIN)) ended_ = true;
  return size > 0;
}

std::optional<Json> Client::next(double seconds) {
  const double end = now() + seconds;
  for (std::size_t searched = begin_;;) {
    if (const std::size_t newline = arrived_.find('\n', searched); newline != std::string::npos) {
      const std::string_view line(arrived_.data() + begin_, newline - begin_);
      begin_ = newline + 1;
      return Json::parse(line);
    }
    arrived_.erase(0, std::exchange(begin_, 0));
    searched = arrived_.size();
    if (!receive(std::max(0.0, end - now())) && (now() >= end || ended_)) return std::nullopt;
  }
}

std::size_t Client::drop() {
  std::size_t lines = 0;
  while (receive(0)) {
    lines += static_cast<std::size_t>(std::count(arrived_.begin(), arrived_.end(), '\n'));
    arrived_.clear(), begin_ = 0;
  }
  return lines;
}

Json Client::answer(const char* method, const Json& parameters) {
  const std::int64_t id = send(method, parameters);
  for (const double end = now() + kPatience; now() < end && !ended_;)
    if (const auto message = next(end - now()); message && message->value("id", Json()) == id)
      return *message;
  throw Lost(std::string(method) + (ended_ ? ": the connection has ended" : ": no answer in 20 s"));
}

Json Client::call(const char* method, const Json& parameters) {
  Json answered = answer(method, parameters);
  if (answered.contains("result")) return answered["result"];
  throw Failure(std::string(method) + " " + parameters.dump().substr(0, 1000) + ": " +
                answered["error"].dump());
}

Rows Client::rows(const std::string& path) { return rowsOf(call("read", {{"path", path}})["entities"]); }

Rows rowsOf(const Json& entities) {
  Rows rows;
  for (const Json& entity : entities) {
    auto& row = rows[entity.at("path")];
    row = entity.at("attributes").get<std::map<std::string, Json>>();
    row[""] = entity.at("type");
  }
  return rows;
}

Json put(const std::string& path, const char* type, Json attributes) {
  return {{"op", "put"}, {"path", path}, {"type", type}, {"attributes", std::move(attributes)}};
}
Json del(const std::string& path) { return {{"op", "del"}, {"path", path}}; }

}  // namespace Torture
