#include "host/store/stores.h"

#include "host/store/redis/redisstore.h"
#include "host/store/sqlitestore.h"
#include "host/store/unixstore.h"
#include "platform/statedb/store/memorystore.h"

namespace Host {

namespace {

using Statedb::Store;
using Statedb::StoreError;
using Report = std::function<void(const std::string&)>;

std::unique_ptr<Store> makeMemory(const std::string& rest, Loop&, const Report&) {
  if (!rest.empty()) throw StoreError("store 'memory:" + rest + "': nothing follows \"memory:\"");
  return std::make_unique<Statedb::MemoryStore>();
}

std::unique_ptr<Store> makeSqlite(const std::string& file, Loop& loop, const Report& report) {
  if (file.empty()) throw StoreError("store 'sqlite:': the file is missing; write sqlite:FILE");
  return std::make_unique<SqliteStore>(file, loop, report);
}

std::unique_ptr<Store> makeUnix(const std::string& socket, Loop& loop, const Report& report) {
  if (socket.empty()) throw StoreError("store 'unix:': the socket is missing; write unix:SOCKET");
  return std::make_unique<UnixStore>(loop, socket, report);
}

template <const auto& prefix>
std::unique_ptr<Store> makeRedis(const std::string& rest, Loop& loop, const Report& report) {
  return std::make_unique<Redis::RedisStore>(loop, prefix + rest, report);
}
constexpr char kRedisUnix[] = "redis-unix:";
constexpr char kRedis[] = "redis://";
constexpr char kSentinel[] = "redis+sentinel://";

struct Scheme {
  const char* prefix;
  const char* usage;
  std::unique_ptr<Store> (*make)(const std::string& rest, Loop& loop, const Report& report);
};
constexpr Scheme kSchemes[] = {
    {"memory:", "memory:", makeMemory},
    {"sqlite:", "sqlite:FILE", makeSqlite},
    {"unix:", "unix:SOCKET (of another pinlampd)", makeUnix},
    {kRedisUnix, "redis-unix:SOCKET", makeRedis<kRedisUnix>},
    {kRedis, "redis://HOST[:PORT]", makeRedis<kRedis>},
    {kSentinel, "redis+sentinel://HOST,.../NAME", makeRedis<kSentinel>},
};

}  // namespace

std::string storeUrls() {
  std::string urls;
  for (const Scheme& scheme : kSchemes) urls += (urls.empty() ? "" : ", ") + std::string(scheme.usage);
  return urls;
}

std::unique_ptr<Store> makeStore(const std::string& url, Loop& loop, Report report) {
  for (const Scheme& scheme : kSchemes)
    if (url.starts_with(scheme.prefix))
      return scheme.make(url.substr(std::string_view(scheme.prefix).size()), loop, report);
  throw StoreError("store '" + url + "': not a known form; known: " + storeUrls());
}

}  // namespace Host
