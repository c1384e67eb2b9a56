#include "host/stores.h"

#include "host/sqlitestore.h"

namespace Host {

namespace {

using Statedb::Store;
using Statedb::StoreError;

std::unique_ptr<Store> makeMemory(const std::string& rest) {
  if (!rest.empty()) throw StoreError("store 'memory:" + rest + "': nothing follows \"memory:\"");
  return std::make_unique<Statedb::MemoryStore>();
}

std::unique_ptr<Store> makeSqlite(const std::string& file) {
  if (file.empty()) throw StoreError("store 'sqlite:': the file is missing; write sqlite:FILE");
  return std::make_unique<SqliteStore>(file);
}

struct Scheme {
  const char* prefix;
  const char* usage;
  std::unique_ptr<Store> (*make)(const std::string& rest);
};
constexpr Scheme kSchemes[] = {
    {"memory:", "memory:", makeMemory},
    {"sqlite:", "sqlite:FILE", makeSqlite},
};

}  // namespace

std::unique_ptr<Store> makeStore(const std::string& url) {
  std::string known;
  for (const Scheme& scheme : kSchemes) {
    if (url.starts_with(scheme.prefix))
      return scheme.make(url.substr(std::string_view(scheme.prefix).size()));
    known += (known.empty() ? "" : ", ") + std::string(scheme.usage);
  }
  throw StoreError("store '" + url + "': of no known kind; known: " + known);
}

}  // namespace Host
