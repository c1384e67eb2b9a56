// Rows of a state file that somebody wrote: the file opens or is refused, and the LED agent's mounts take any
// rows. A line is PATH TAB ATTRIBUTE TAB TYPE TAB VALUE.
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "host/store/sqlitestore.h"
#include "host/store/statefile.h"
#include "tests/fuzz/files.h"
#include "tests/fuzz/quicksqlite.h"
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

// A database in memory of the state file's schema.
class Database {
 public:
  Database() {
    Fuzz::check(sqlite3_open(":memory:", &connection_) == SQLITE_OK);
    execute(Host::stateFileSchema().c_str());
    sqlite3_prepare_v2(connection_, "INSERT OR IGNORE INTO rows VALUES(?1, ?2, ?3, ?4)", -1, &insert_,
                       nullptr);
  }

  // Writes a state file with these rows.
  void write(const std::string& file, std::string_view rows) {
    execute("BEGIN");
    Fuzz::forEachLine(rows, [this](std::string_view line) { insert(line); });
    sqlite3_int64 size = 0;
    unsigned char* const bytes = sqlite3_serialize(connection_, "main", &size, 0);
    execute("ROLLBACK");
    Fuzz::writeFile(file, {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)});
    sqlite3_free(bytes);
  }

 private:
  void execute(const char* sql) {
    Fuzz::check(sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
  }
  void insert(std::string_view line) {
    int position = 0;
    for (const std::string_view part : partsOf(line))
      sqlite3_bind_text(insert_, ++position, part.data(), static_cast<int>(part.size()), SQLITE_STATIC);
    sqlite3_step(insert_);
    sqlite3_reset(insert_);
  }

  sqlite3* connection_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
};

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

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Fuzz::quickSqlite();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Database& database = *new Database;
  static const std::string file = Fuzz::fileOf("rows");
  database.write(file, {reinterpret_cast<const char*>(data), size});
  World& world = World::instance();
  Fuzz::refusable<Statedb::StoreError>([&] { mount(world, Host::SqliteStore(file)); });
  world.clear();
  return 0;
}
