// The bytes of a state file: it opens, or is refused with a StoreError.
#include <cstdint>

#include "host/store/sqlitestore.h"
#include "tests/fuzz/files.h"
#include "tests/fuzz/quicksqlite.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Fuzz::quickSqlite();
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
