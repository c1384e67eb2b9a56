// A store in one SQLite file: what was flushed survives a killed process and a lost power supply.
//
// Volatile rows stay in memory and are never written. The file belongs to one process at a time.
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

  // Opens the file, making it where it is not there, and reads its rows. Rows whose paths or names are beyond
  // the limits stay in the file, and are only reported. Throws StoreError where its folder is missing,
  // another process owns it, or it is not a database of this application and version; a file that is refused
  // is left as it was.
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
