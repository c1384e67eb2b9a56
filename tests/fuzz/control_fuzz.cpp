// Fuzzes the path of a client's bytes to the store: lines, requests, changes, rows. Bad input must throw an
// exception that the control socket turns into an error; rows that were stored must survive a round trip
// through JSON.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "host/control/batch.h"
#include "host/io/connection.h"
#include "host/rpc/changes.h"
#include "host/rpc/rpc.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/core/trace.h"

namespace {

void check(bool holds) {
  if (!holds) __builtin_trap();
}

void takeRequest(std::string_view line) {
  Host::Request request;
  request.read(Host::parseMessage(line));
  Statedb::MemoryStore store;
  const auto typeAt = [&](std::string_view path) {
    const auto known = Statedb::Path::existing(path);
    return known ? store.typeAt(*known) : Zel::Name();
  };
  Host::Announcements announcements;
  const Host::Announcements::Process writer(announcements);
  const Host::Batch batch =
      Host::readBatch(Host::listField(request.parameters, "changes"), {typeAt, {}, announcements, writer});
  if (!batch.errors.empty()) return;
  store.write(batch.changes, Statedb::Durability::stored);
  store.flush();
  const auto records = store.read("");
  const auto back = Host::entityRecords(Host::parseJson(Host::entitiesText(records)));
  check(std::ranges::equal(back, records, [](const auto& a, const auto* b) { return a == *b; }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  Host::Lines lines(4096);
  lines.take(bytes, [](std::string_view line) {
    try {
      takeRequest(line);
    } catch (const Host::RpcError&) {
    } catch (const Zel::ValueError&) {
    }
    return true;
  });
  try {
    Zel::traceLevelsIs(bytes);
  } catch (const Zel::ValueError&) {
  }
  return 0;
}
