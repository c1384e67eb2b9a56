// The bytes of a client of the control socket: lines, requests, every method, rows, the LED agent's entities
// and back. Bad input throws an exception that the control socket turns into an error. Rows survive a round
// trip through JSON, and entities through the rows.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "host/io/connection.h"
#include "host/rpc/changes.h"
#include "host/rpc/rpc.h"
#include "platform/zel/core/trace.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/world.h"

namespace {

using Fuzz::World;

void checkJson(const std::string& text) { Fuzz::check(Host::Json::accept(text)); }

// The answer is always the same, and takes as long as fifty others: LLVMFuzzerInitialize() checks it once.
bool isTypes(const Host::Request& request) {
  return request.method == "types" && request.parameters == Zel::Value(Zel::Value::Fields{});
}

void run(World& world, Host::Caller& caller, std::string_view line) {
  Host::Request request;
  request.read(Host::parseMessage(line));
  if (isTypes(request)) return;
  const auto& method = Host::Methods::find(request.method);
  checkJson(Host::resultText(request.id, world.methods.run(method, request.parameters, caller)));
}

// One execution leaves nothing to the next.
void endTrace() {
  for (const Zel::TraceFacility* facility : Zel::TraceFacility::all())
    if (facility->mask() != 0) Zel::traceLevelsIs(facility->name() + "/");
}

void checkRows(const World& world) {
  const auto records = world.store.read("");
  const auto back = Host::entityRecords(Host::parseJson(Host::entitiesText(records)));
  Fuzz::check(std::ranges::equal(back, records, [](const auto& a, const auto* b) { return a == *b; }));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  World& world = World::instance();
  Host::Caller caller(world.served, 1, checkJson);
  checkJson(world.methods.run(Host::Methods::find("types"), Zel::Value(Zel::Value::Fields{}), caller));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  World& world = World::instance();
  {
    Host::Caller caller(world.served, 1, checkJson);
    Host::Lines lines(4096);
    lines.add({reinterpret_cast<const char*>(data), size});
    while (lines.hasLine() && !lines.oversized()) {
      Fuzz::refusable<Host::RpcError>([&] { run(world, caller, lines.take()); });
      world.step();
    }
    checkRows(world);
  }
  endTrace();
  world.clear();
  return 0;
}
