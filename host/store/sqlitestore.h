// A store in one SQLite file: flushed rows survive a killed process and a power failure.
//
// Volatile rows stay in memory. One process at a time owns the file, and is recorded in it, so that no other
// opens a copy meanwhile.
// docs/state-database.md describes its format.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/io/fileguard.h"
#include "platform/statedb/store/memorystore.h"

namespace Host {

class SqliteStore : public Statedb::MemoryStore {
 public:
  using Report = std::function<void(const std::string& text)>;

  // Opens or creates the file and reads its rows. Rows whose paths or names exceed the limits are reported
  // and stay in the file. Throws StoreError if the folder is missing, another process owns the file or one
  // that it is a copy of, or it is not a database of this application and version; a refused file is not
  // changed.
  explicit SqliteStore(
      const std::string& file, const Report& report = [](const std::string&) {});
  // The same; also reports when the file or its log is removed or replaced. `loop` must outlive the store.
  SqliteStore(const std::string& file, Loop& loop, const Report& report);
  ~SqliteStore() override;

  std::string url() const override;

 protected:
  void persist(const Statedb::Changes& changes) override;
  void commit() override;
  void rollback() override;

 private:
  class Database;

  void guard(Loop& loop, const std::string& path, const Report& report);

  const std::string file_;
  std::unique_ptr<Database> database_;
  std::vector<std::unique_ptr<FileGuard>> guards_;
  Statedb::Changes uncommitted_;
};

}  // namespace Host
