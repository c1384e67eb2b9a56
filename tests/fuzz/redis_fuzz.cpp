// The bytes of a Redis server: replies, the entries of the log, and the rows that a scan finds. What is read
// survives a round trip.
#include <cstdint>
#include <string>
#include <string_view>

#include "host/store/redis/layout.h"
#include "host/store/redis/reply.h"
#include "host/store/redis/rows.h"
#include "platform/zel/core/exception.h"
#include "tests/fuzz/check.h"

namespace {

using Host::Redis::Reply;

void read(const Reply& reply) {
  reply.refusal();
  reply.unsignedNumber();
  std::vector<std::string> errors;
  const auto changes = Host::Redis::changesOf(reply.text, errors);
  Fuzz::refusable<Zel::ValueError>([&] {
    const std::string text = Host::Redis::deltaText(changes);
    Fuzz::check(Host::Redis::deltaText(Host::Redis::changesOf(text)) == text);
  });
  for (const Reply& each : reply.list) read(each);
}

void scan(const std::vector<Reply>& fields) {
  Host::Redis::Rows rows;
  for (std::size_t at = 0; at + 2 < fields.size(); at += 3)
    Fuzz::refusable<Zel::ValueError>([&] {
      rows.scanned(Host::Redis::Directory(fields[at].text), fields[at + 1].text, fields[at + 2].text);
    });
  rows.endScan();
  for (const Statedb::Record* each : rows.all())
    Fuzz::refusable<Zel::ValueError>([&] { Host::Redis::entityText(*each); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Host::Redis::ReplyReader reader;
  if (!reader.feed({reinterpret_cast<const char*>(data), size})) return 0;
  while (const auto reply = reader.next()) {
    read(*reply);
    scan(reply->list);
  }
  return 0;
}
