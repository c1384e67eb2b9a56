// The bytes of a state file: it opens, or is refused with a StoreError.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>

#include "host/store/sqlitestore.h"
#include "tests/fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string file = FUZZ_FOLDER "/state-" + std::to_string(::getpid());
  for (const char* suffix : {"-wal", "-journal", ".new"}) std::filesystem::remove(file + suffix);
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  Fuzz::refusable<Statedb::StoreError>([] {
    Host::SqliteStore store(file);
    store.write({Statedb::Change::put("a", "T", "x", 1)}, Statedb::Durability::stored);
    store.flush();
    Fuzz::check(store.entities() > 0);
  });
  return 0;
}
