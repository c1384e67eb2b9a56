// A Redis server of the measurements' own, and what others would do with it: connections of hiredis alone.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/child.h"

struct redisContext;
struct redisReply;

namespace Bench {

// Configured as docs/shared-state.md recommends. On a socket in a folder of its own; the destructor ends it.
class RedisServer {
 public:
  RedisServer();

  std::string socket() const { return folder_.file("redis.sock"); }
  // Of a database on it, for `--store`.
  std::string url(const std::string& prefix) const { return "redis-unix:" + socket() + "?prefix=" + prefix; }
  // Seconds, since its start.
  double processorTime() const { return process_.processorTime(); }

 private:
  const TemporaryFolder folder_;
  const Child process_;
};

// A blocking connection. Throws std::runtime_error if it breaks or the server reports an error.
class Bare {
 public:
  using Words = std::vector<std::string_view>;
  struct Free {
    void operator()(redisReply* reply) const;
  };
  using Reply = std::unique_ptr<redisReply, Free>;

  // Waits until the server runs.
  explicit Bare(const std::string& socket);
  ~Bare();
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  // Requests are sent by flush(), or with the next reply().
  void append(const Words& words);
  void flush();
  Reply reply();
  Reply call(const Words& words) {
    append(words);
    return reply();
  }
  // A number in the answer of INFO; 0 where there is none.
  double info(const std::string& name);

 private:
  redisContext* const context_;
};

// Child processes that report when each has got something.
class Readers {
 public:
  // `run` runs in each process for ever. It calls `got` when the process is ready, and for each thing it
  // gets.
  Readers(std::size_t count, const std::function<void(const std::function<void()>& got)>& run);
  ~Readers();
  Readers(const Readers&) = delete;
  Readers& operator=(const Readers&) = delete;

  // Waits until each has got one more, and returns when the last one had it.
  double wait();
  // Seconds of processor time of all.
  double processorTime() const;

 private:
  const std::size_t count_;
  double* const times_;  // in shared memory, one of each
  int ends_[2];
  std::vector<std::unique_ptr<Child>> processes_;
};

}  // namespace Bench
