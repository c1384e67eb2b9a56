// Rows of a state file that somebody wrote: they are read or refused, and the LED agent's mounts take any
// rows. A line is PATH TAB ATTRIBUTE TAB TYPE TAB VALUE.
#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string_view>

#include "host/store/rowreader.h"
#include "platform/zel/core/exception.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/world.h"

namespace {

using Fuzz::World;

std::array<std::string_view, 4> partsOf(std::string_view line) {
  std::array<std::string_view, 4> parts;
  for (std::string_view& part : parts) {
    part = line.substr(0, line.find('\t'));
    line.remove_prefix(std::min(line.size(), part.size() + 1));
  }
  return parts;
}

// The store of a state file with these rows. The file keeps the first of two rows of one attribute,
// and is read in the order of path and attribute; statefile_fuzz opens files.
class Rows : public Statedb::MemoryStore {
 public:
  explicit Rows(std::string_view lines) {
    std::map<std::pair<std::string_view, std::string_view>, Host::RowReader::Texts> rows;
    Fuzz::forEachLine(lines, [&](std::string_view line) {
      const auto [path, attribute, type, value] = partsOf(line);
      rows.try_emplace({path, attribute}, Host::RowReader::Texts{path, attribute, type, value});
    });
    Host::RowReader reader("state.db");
    for (const auto& row : rows) Fuzz::refusable<Zel::ValueError>([&] { restore(reader.read(row.second)); });
  }
};

void mount(World& world, const Rows& store) {
  Statedb::Changes changes;
  for (const Statedb::Record* record : store.read("")) {
    changes.push_back(Statedb::Change::put(record->path, record->type, {}, {}));
    for (const auto& each : record->attributes)
      changes.push_back(Statedb::Change::put(record->path, record->type, each.name, each.value));
  }
  world.store.write(changes, Statedb::Durability::stored);
  world.step();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  World& world = World::instance();
  Fuzz::refusable<Statedb::StoreError>([&] {
    mount(world, Rows({reinterpret_cast<const char*>(data), size}));
  });
  world.clear();
  return 0;
}
