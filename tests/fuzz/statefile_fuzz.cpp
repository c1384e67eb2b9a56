// The bytes of a state file: it opens, or is refused with a StoreError.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "host/store/sqlitestore.h"
#include "tests/fuzz/files.h"

extern "C" {
// glibc's allocator beside the sanitizer's.
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* bytes, std::size_t size);
void __libc_free(void* bytes);
}

namespace {

// One thread needs no mutexes. SQLite is not instrumented, and most texts that it returns are in pools of its
// own: the sanitizer's allocator finds next to nothing there, and would take a third of the time.
// REQUIRES: SQLite is not in use yet.
void quickSqlite() {
  struct alignas(std::max_align_t) Block {
    std::size_t size;
  };
  static const auto made = [](void* whole, int size) -> void* {
    if (!whole) return nullptr;
    return new (whole) Block{static_cast<std::size_t>(size)} + 1;
  };
  static const auto blockOf = [](void* bytes) { return static_cast<Block*>(bytes) - 1; };
  static const sqlite3_mem_methods methods{
      .xMalloc =
          [](int size) { return made(__libc_malloc(sizeof(Block) + static_cast<std::size_t>(size)), size); },
      .xFree = [](void* bytes) { __libc_free(blockOf(bytes)); },
      .xRealloc =
          [](void* bytes, int size) {
            return made(__libc_realloc(blockOf(bytes), sizeof(Block) + static_cast<std::size_t>(size)), size);
          },
      .xSize = [](void* bytes) { return static_cast<int>(blockOf(bytes)->size); },
      .xRoundup = [](int size) { return (size + 7) & ~7; },
      .xInit = [](void*) { return SQLITE_OK; },
      .xShutdown = [](void*) {},
      .pAppData = nullptr};
  Fuzz::check(sqlite3_config(SQLITE_CONFIG_SINGLETHREAD) == SQLITE_OK);
  Fuzz::check(sqlite3_config(SQLITE_CONFIG_MALLOC, &methods) == SQLITE_OK);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quickSqlite();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string file = Fuzz::fileOf("state");
  for (const char* suffix : {"-wal", "-journal", ".new"}) ::unlink((file + suffix).c_str());
  Fuzz::writeFile(file, {reinterpret_cast<const char*>(data), size});
  Fuzz::refusable<Statedb::StoreError>([] {
    Host::SqliteStore store(file);
    store.write({Statedb::Change::put("a", "T", "x", 1)}, Statedb::Durability::stored);
    store.flush();
    Fuzz::check(store.entities() > 0);
  });
  return 0;
}
