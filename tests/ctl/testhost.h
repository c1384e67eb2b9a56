// The host's side of the control socket, and runs of pinlampctl against it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ctl/client.h"
#include "platform/statedb/store/memorystore.h"
#include "tests/servedstore.h"

namespace Ctl {

// The outcome of one run of pinlampctl.
struct Outcome {
  int status = 0;
  std::string out;
  std::string err;
};
Outcome run(std::vector<std::string> arguments);

struct KeepingLast : Statedb::MemoryStore {
  void persist(const Statedb::Changes& changes) override { last = changes; }
  Statedb::Records read(Statedb::Path path) const override {
    reads.push_back(path.text());
    return MemoryStore::read(path);
  }
  Statedb::Records readBase(Statedb::Path path) const override {
    reads.push_back(path.text());
    return MemoryStore::readBase(path);
  }
  Statedb::StoreState state() const override { return {.claims = claims}; }
  Statedb::Changes last;
  mutable std::vector<std::string> reads;  // paths
  std::vector<Statedb::StoreState::Claim> claims;
};

class TestHost : public Support::ServedProcess<KeepingLast> {
 public:
  // Runs pinlampctl against this host; `meanwhile` is called in every round of the loop until it ends.
  Outcome ctl(std::vector<std::string> arguments, const std::function<void()>& meanwhile = {});
  void put(const std::string& path, const char* type, const Json& attributes);
  void pinIs(const std::string& pin, unsigned value);
  // An entity's attributes; null if there is none.
  Json attributes(const std::string& path) const;
};

}  // namespace Ctl
