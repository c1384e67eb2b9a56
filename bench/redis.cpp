#include "bench/redis.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "bench/measure.h"

namespace Bench {

namespace {

constexpr double kTimeout = 30;  // seconds for anything that a server or a reader is asked to do

std::string configuration(const TemporaryFolder& folder) {
  const std::string name = folder.file("redis.conf");
  std::ofstream(name) << "port 0\nunixsocket " << folder.file("redis.sock") << "\ndir " << folder.file("")
                      << "\nlogfile " << folder.file("redis.log")
                      << "\nappendonly yes\nappendfsync everysec\nsave \"\"\nmaxmemory-policy noeviction\n"
                         "client-output-buffer-limit pubsub 32mb 8mb 60\n";
  return name;
}

// One binary with the server, chosen by argv[0]. It is in a package that starts no service.
void runServer(const std::string& configuration, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == parent)
    ::execl("/usr/bin/redis-check-rdb", "redis-server", configuration.c_str(), nullptr);
  ::_exit(127);
}

redisContext* connectTo(const std::string& socket) {
  for (const double end = now() + kTimeout; now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
    redisContext* context = redisConnectUnix(socket.c_str());
    if (context && context->err == 0) return context;
    redisFree(context);
  }
  throw std::runtime_error(socket + ": no server answers");
}

}  // namespace

RedisServer::RedisServer()
    : process_([configuration = configuration(folder_), parent = ::getpid()] {
        runServer(configuration, parent);
      }) {
  Bare connection(socket());
}

void Bare::Free::operator()(redisReply* reply) const { freeReplyObject(reply); }

Bare::Bare(const std::string& socket) : context_(connectTo(socket)) {}
Bare::~Bare() { redisFree(context_); }

void Bare::append(const Words& words) {
  std::vector<const char*> texts;
  std::vector<std::size_t> sizes;
  for (const std::string_view word : words) {
    texts.push_back(word.data());
    sizes.push_back(word.size());
  }
  redisAppendCommandArgv(context_, static_cast<int>(words.size()), texts.data(), sizes.data());
}

void Bare::flush() {
  for (int done = 0; !done;)
    if (redisBufferWrite(context_, &done) != REDIS_OK) throw std::runtime_error(context_->errstr);
}

Bare::Reply Bare::reply() {
  void* got = nullptr;
  if (redisGetReply(context_, &got) != REDIS_OK) throw std::runtime_error(context_->errstr);
  Reply reply(static_cast<redisReply*>(got));
  if (reply->type == REDIS_REPLY_ERROR) throw std::runtime_error(reply->str);
  return reply;
}

double Bare::info(const std::string& name) {
  const Reply reply = call({"INFO"});
  const std::string text(reply->str, reply->len);
  const std::size_t at = text.find("\n" + name + ":");
  return at == std::string::npos ? 0 : std::stod(text.substr(at + name.size() + 2));
}

Readers::Readers(std::size_t count, const std::function<void(const std::function<void()>& got)>& run)
    : count_(count),
      times_(static_cast<double*>(::mmap(nullptr, count * sizeof(double), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
  if (times_ == MAP_FAILED || ::pipe(ends_) != 0) throw std::runtime_error("no memory to share, or no pipe");
  for (std::size_t i = 0; i < count; ++i)
    processes_.push_back(std::make_unique<Child>([=, this] {
      const auto got = [&] {
        times_[i] = now();
        if (::write(ends_[1], "", 1) != 1) ::_exit(1);
      };
      try {
        run(got);
      } catch (const std::exception& error) {
        std::fprintf(stderr, "reader: %s\n", error.what());
        ::_exit(1);
      }
    }));
  wait();
}

Readers::~Readers() {
  processes_.clear();
  ::close(ends_[0]);
  ::close(ends_[1]);
  ::munmap(times_, count_ * sizeof(double));
}

double Readers::wait() {
  char bytes[64];
  for (std::size_t got = 0; got < count_;) {
    pollfd waiting{ends_[0], POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(kTimeout * 1000)) != 1)
      throw std::runtime_error("a reader has not got a change");
    got += static_cast<std::size_t>(
        std::max<ssize_t>(0, ::read(ends_[0], bytes, std::min(sizeof bytes, count_ - got))));
  }
  return *std::max_element(times_, times_ + count_);
}

double Readers::processorTime() const {
  double sum = 0;
  for (const auto& each : processes_) sum += each->processorTime();
  return sum;
}

}  // namespace Bench
