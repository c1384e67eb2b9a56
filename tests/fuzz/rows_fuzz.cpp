// Rows of a state file that somebody wrote: the file opens or is refused, and the LED agent's mounts take any
// rows. A line is PATH TAB ATTRIBUTE TAB TYPE TAB VALUE.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "host/store/sqlitestore.h"
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

void insert(sqlite3* connection, std::string_view rows) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(connection, "INSERT OR IGNORE INTO rows VALUES(?1, ?2, ?3, ?4)", -1, &statement,
                     nullptr);
  Fuzz::forEachLine(rows, [&](std::string_view line) {
    int position = 0;
    for (const std::string_view part : partsOf(line))
      sqlite3_bind_text(statement, ++position, part.data(), static_cast<int>(part.size()), SQLITE_TRANSIENT);
    sqlite3_step(statement);
    sqlite3_reset(statement);
  });
  sqlite3_finalize(statement);
}

// A valid file, made once, with these rows.
void writeFile(const std::string& file, std::string_view rows) {
  static const std::string pattern = file + ".empty";
  if (!std::filesystem::exists(pattern)) {
    { const Host::SqliteStore made(pattern); }
    sqlite3* connection = nullptr;
    sqlite3_open(pattern.c_str(), &connection);
    sqlite3_exec(connection, "PRAGMA journal_mode = MEMORY", nullptr, nullptr, nullptr);
    sqlite3_close(connection);
  }
  std::filesystem::copy_file(pattern, file, std::filesystem::copy_options::overwrite_existing);
  sqlite3* connection = nullptr;
  sqlite3_open(file.c_str(), &connection);
  sqlite3_exec(connection, "PRAGMA synchronous = OFF; BEGIN", nullptr, nullptr, nullptr);
  insert(connection, rows);
  sqlite3_exec(connection, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(connection);
}

void mount(World& world, const Host::SqliteStore& store) {
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
  static const std::string file = FUZZ_FOLDER "/rows-" + std::to_string(::getpid());
  writeFile(file, {reinterpret_cast<const char*>(data), size});
  World& world = World::instance();
  Fuzz::refusable<Statedb::StoreError>([&] { mount(world, Host::SqliteStore(file)); });
  world.clear();
  return 0;
}
