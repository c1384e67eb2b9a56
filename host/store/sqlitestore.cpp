#include "host/store/sqlitestore.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <span>
#include <utility>

#include "host/io/processid.h"
#include "host/rpc/json.h"
#include "host/store/rowreader.h"
#include "host/store/statefile.h"
#include "host/store/writeaheadlog.h"

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Row;
using Statedb::StoreError;

// The open file. Every failure is a StoreError with SQLite's message.
class SqliteStore::Database {
 public:
  explicit Database(const std::string& file) : file_(file), owned_(file) {
    open();
    put_ = prepare(putOf(1).c_str());
    putMany_ = prepare(putOf(kPutsAtOnce).c_str());
    insertMany_ = prepare(insertOf(kPutsAtOnce).c_str());
    del_ = prepare("DELETE FROM rows WHERE ?1 = '' OR path = ?1 OR (path > ?1 || '/' AND path < ?1 || '0')");
    unset_ = prepare("DELETE FROM rows WHERE path = ?1 AND attribute = ?2");
  }

  ~Database() { sqlite3_exec(connection_.get(), "DELETE FROM owner", nullptr, nullptr, nullptr); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Absolute, links followed.
  const std::string& path() const { return owned_.path(); }

  // Records this process in the file itself, and not only in the log, which a copy may lack.
  void own(const Report& report) {
    try {
      execute("BEGIN IMMEDIATE");
      writeAll([&] {
        execute(
            "CREATE TABLE IF NOT EXISTS owner(process TEXT NOT NULL); DELETE FROM owner; "
            "INSERT INTO owner VALUES('" +
            ownProcessText() + "')");
      });
      check(log_->empty());
    } catch (const StoreError& error) {
      report(std::string(error.what()) + "; so nothing keeps a second host from a copy of the file");
    }
  }

  // Calls `take` with every row, grouped by entity. Skips rows whose path or names exceed the limits: reports
  // the first few, and their number.
  template <class Take>
  void forEachRow(Take take, const Report& report) {
    const Statement select =
        prepare("SELECT path, attribute, type, value FROM rows ORDER BY path, attribute");
    RowReader reader(file_);
    std::size_t leftOut = 0;
    while (step(*select)) {
      try {
        take(row(*select, reader));
      } catch (const Zel::ValueError& error) {
        constexpr std::size_t kReported = 10;
        if (++leftOut <= kReported) report("store file '" + file_ + "': a row is left out: " + error.what());
      }
    }
    if (leftOut > 0) report("store file '" + file_ + "': rows left out: " + std::to_string(leftOut));
  }

  // All of it or nothing.
  void write(const Changes& changes) {
    if (!log_->isKnown()) check(log_->empty());
    execute("BEGIN IMMEDIATE");
    writeAll([&] { writeSteps(changes); });
    if (changes.size() > kPutsAtOnce) texts_ = {};
  }

 private:
  // Rows in one statement: takes less than half the time of as many statements.
  static constexpr std::size_t kPutsAtOnce = 64;

  // Undoes nothing where a row is there: without the means to, SQLite takes a fifth less time.
  static std::string insertOf(std::size_t rows) {
    std::string sql = "INSERT OR FAIL INTO rows(path, attribute, type, value) VALUES";
    for (std::size_t i = 0; i < rows; ++i) sql += i == 0 ? "(?, ?, ?, ?)" : ", (?, ?, ?, ?)";
    return sql;
  }
  static std::string putOf(std::size_t rows) {
    return insertOf(rows) +
           " ON CONFLICT(path, attribute) DO UPDATE SET type = excluded.type, value = excluded.value";
  }

  struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Close>;

  void open() {
    sqlite3* connection = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    const int result = sqlite3_open_v2(owned_.path().c_str(), &connection, flags, nullptr);
    connection_.reset(connection);
    check(result);
    if (sqlite3_db_readonly(connection, "main") == 1)
      refuseStateFile(file_, "can't be written; it is read only");
    execute("PRAGMA locking_mode = EXCLUSIVE");
    checkOwner();
    if (isEmpty()) execute(stateFileSchema());
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = FULL");
    log_.emplace(connection);
  }

  // The lock on this very file is ours: a process that is recorded and runs has another one open.
  void checkOwner() {
    if (!step(*prepare("SELECT 1 FROM sqlite_master WHERE name = 'owner'"))) return;
    const Statement select = prepare("SELECT process FROM owner");
    if (!step(*select)) return;
    const auto pid = runningProcess(std::string(text(*select, 0)));
    if (pid == 0) return;
    // Closing would carry the copy's log over into it; without one it removes what this opening has made.
    std::error_code missing;
    if (const auto size = std::filesystem::file_size(path() + "-wal", missing); !missing && size > 0)
      sqlite3_db_config(connection_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    refuseStateFile(file_, "is a copy of the file that another process (pid " + std::to_string(pid) +
                               ") has open; stop that one first. For a file of its own, save the state with "
                               "pinlampctl dump and load it");
  }

  // Commits what `write` does, or rolls it back.
  template <class Write>
  void writeAll(Write write) {
    try {
      write();
      execute("COMMIT");
    } catch (const StoreError& error) {
      // Some errors end the transaction by themselves.
      if (sqlite3_get_autocommit(connection_.get()) == 0)
        sqlite3_exec(connection_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
      if (log_->dropFailed()) throw;
      throw StoreError(error.what() + std::string("; it stays in the log, and may come back after a kill"));
    }
  }

  bool isEmpty() {
    const Statement select = prepare("SELECT 1 FROM sqlite_master");
    return !step(*select);
  }

  void writeSteps(std::span<const Change> changes) {
    const auto isOther = [](const Change& change) { return change.kind != Change::Kind::put; };
    while (!changes.empty()) {
      const auto next = changes.first(std::min(changes.size(), kPutsAtOnce));
      const auto puts = static_cast<std::size_t>(std::ranges::find_if(next, isOther) - next.begin());
      if (puts == kPutsAtOnce)
        putMany(next);
      else
        for (const Change& change : next.first(std::max<std::size_t>(puts, 1))) write(change);
      changes = changes.subspan(std::max<std::size_t>(puts, 1));
    }
  }

  void write(const Change& change) {
    const Row& row = change.row;
    if (change.kind == Change::Kind::del) return run(*del_, {row.path.text()});
    if (change.kind == Change::Kind::unset) return run(*unset_, {row.path.text(), row.attribute.view()});
    makeTexts({&change, 1});
    put(*put_, {&change, 1});
  }

  // Most large transactions have new rows only. Where a row is there, the first statement stops at it.
  void putMany(std::span<const Change> puts) {
    makeTexts(puts);
    bindRows(*insertMany_, puts);
    const int result = sqlite3_step(insertMany_.get());
    sqlite3_reset(insertMany_.get());
    if (result == SQLITE_CONSTRAINT) return put(*putMany_, puts);
    if (result != SQLITE_DONE) check(result);
  }

  void makeTexts(std::span<const Change> puts) {
    for (std::size_t i = 0; i < puts.size(); ++i) {
      auto& [path, value] = texts_[i];
      path.clear();
      puts[i].row.path.appendTo(path);
      value.clear();
      appendJson(value, puts[i].row.value);
    }
  }

  // Stores as many rows as the statement takes. REQUIRES: their texts are made.
  void put(sqlite3_stmt& statement, std::span<const Change> puts) {
    bindRows(statement, puts);
    run(statement);
  }
  void bindRows(sqlite3_stmt& statement, std::span<const Change> puts) const {
    int position = 0;
    for (std::size_t i = 0; i < puts.size(); ++i) {
      const Row& row = puts[i].row;
      const auto& [path, value] = texts_[i];
      for (const std::string_view text :
           {std::string_view(path), row.attribute.view(), row.type.view(), std::string_view(value)})
        bind(statement, ++position, text);
    }
  }

  void run(sqlite3_stmt& statement, std::initializer_list<std::string_view> texts) {
    int position = 0;
    for (const std::string_view text : texts) bind(statement, ++position, text);
    run(statement);
  }

  // The text must stay until the statement has run.
  void bind(sqlite3_stmt& statement, int position, std::string_view text) const {
    check(sqlite3_bind_text(&statement, position, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
  }

  void run(sqlite3_stmt& statement) {
    const int result = sqlite3_step(&statement);
    sqlite3_reset(&statement);
    if (result != SQLITE_DONE) check(result);
  }

  bool step(sqlite3_stmt& statement) {
    const int result = sqlite3_step(&statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) check(result);
    return result == SQLITE_ROW;
  }

  static Row row(sqlite3_stmt& statement, RowReader& reader) {
    return reader.read({.path = text(statement, 0),
                        .attribute = text(statement, 1),
                        .type = text(statement, 2),
                        .value = text(statement, 3)});
  }

  // Valid until the next step.
  static std::string_view text(sqlite3_stmt& statement, int column) {
    const auto* bytes = sqlite3_column_text(&statement, column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(&statement, column));
    return bytes ? std::string_view(reinterpret_cast<const char*>(bytes), size) : std::string_view();
  }

  Statement prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(connection_.get(), sql, -1, &statement, nullptr));
    return Statement(statement);
  }
  void execute(const std::string& sql) {
    check(sqlite3_exec(connection_.get(), sql.c_str(), nullptr, nullptr, nullptr));
  }
  void check(int result) const {
    if (result == SQLITE_OK) return;
    refuseStateFile(file_, connection_ ? sqlite3_errmsg(connection_.get()) : sqlite3_errstr(result));
  }

  const std::string file_;
  const StateFile owned_;  // before the connection, which it must outlive
  std::unique_ptr<sqlite3, Close> connection_;
  std::optional<WriteAheadLog> log_;
  Statement put_;
  Statement putMany_;
  Statement insertMany_;
  Statement del_;
  Statement unset_;
  std::array<std::pair<std::string, std::string>, kPutsAtOnce> texts_;  // of paths and values, being stored
};

SqliteStore::SqliteStore(const std::string& file, const Report& report)
    : file_(file), database_(std::make_unique<Database>(file)) {
  database_->forEachRow([this](Row row) { restore(std::move(row)); }, report);
  database_->own(report);
}

SqliteStore::SqliteStore(const std::string& file, Loop& loop, const Report& report)
    : SqliteStore(file, report) {
  for (const char* suffix : {"", "-wal"}) guard(loop, database_->path() + suffix, report);
}

void SqliteStore::guard(Loop& loop, const std::string& path, const Report& report) {
  guards_.push_back(std::make_unique<FileGuard>(loop, path, [path, report](bool isThere) {
    report("store file '" + path + "': " +
           (isThere ? "is back"
                    : "was removed or replaced; this host goes on with the one that it opened, and what is "
                      "written now is lost at its end. Save the state with pinlampctl dump, then stop the "
                      "host, put the file back or load what was saved, and start again"));
  }));
}
SqliteStore::~SqliteStore() = default;

std::string SqliteStore::url() const { return "sqlite:" + file_; }

void SqliteStore::persist(const Changes& changes) {
  const std::size_t before = uncommitted_.size();
  try {
    uncommitted_.insert(uncommitted_.end(), changes.begin(), changes.end());
  } catch (...) {
    uncommitted_.resize(before);
    throw;
  }
}

void SqliteStore::commit() {
  if (uncommitted_.empty()) return;
  database_->write(uncommitted_);
  uncommitted_.clear();
}

void SqliteStore::rollback() { uncommitted_.clear(); }

}  // namespace Host
