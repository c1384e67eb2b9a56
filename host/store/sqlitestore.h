// A store in one SQLite file: flushed rows survive a killed process and a power failure.
//
// Volatile rows stay in memory. One process at a time owns the file.
// docs/state-database.md describes its format.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/statedb/store/memorystore.h"

namespace Host {

class SqliteStore : public Statedb::MemoryStore {
 public:
  using Report = std::function<void(const std::string& text)>;

  // Opens or creates the file and reads its rows. Rows whose paths or names exceed the limits are reported
  // and stay in the file. Throws StoreError if the folder is missing, another process owns the file, or it is
  // not a database of this application and version; a refused file is not changed.
  explicit SqliteStore(
      const std::string& file, const Report& report = [](const std::string&) {});
  ~SqliteStore() override;

  std::string url() const override;

 protected:
  void persist(const Statedb::Changes& changes) override;
  void commit() override;
  void rollback() override;

 private:
  class Database;

  const std::string file_;
  std::unique_ptr<Database> database_;
  Statedb::Changes uncommitted_;
};

}  // namespace Host
