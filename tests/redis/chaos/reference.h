// The server as plain, blocking commands see it, past all that stores and proxies do.
#pragma once

#include <hiredis/hiredis.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Chaos {

// "PATH" with the type, and "PATH\tATTRIBUTE" with the value as JSON.
using Rows = std::map<std::string, std::string>;

class Reference {
 public:
  using Words = std::vector<std::string>;
  struct Free {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
    void operator()(redisContext* context) const { redisFree(context); }
  };
  using Answer = std::unique_ptr<redisReply, Free>;

  explicit Reference(std::string socket) : socket_(std::move(socket)) {}

  // Whether the server answers. REQUIRES, as all here: it is not stopped.
  bool isReady();
  // Null where it did not answer within 20 s.
  Answer operator()(const Words& words);
  // The same; empty for anything but a text.
  std::string text(const Words& words);

  // Of one space, "s", "v" or "c", from every hash; `differing` gets what is wrong with the set of
  // directories.
  Rows rows(const std::string& space, std::vector<std::string>& differing);
  // The volatile over the stored ones, and covers over entities of their type.
  Rows merged(std::vector<std::string>& differing);

 private:
  bool connect();

  const std::string socket_;
  std::unique_ptr<redisContext, Free> context_;
};

// Words of a reply that is an array.
std::vector<std::string> wordsOf(const redisReply* reply);

}  // namespace Chaos
