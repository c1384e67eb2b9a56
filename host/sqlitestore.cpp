#include "host/sqlitestore.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <optional>
#include <system_error>

#include "host/filelock.h"
#include "host/json.h"

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Row;
using Statedb::StoreError;

namespace {

constexpr std::uint32_t kApplicationId = 0x50694C61;  // "PiLa"
constexpr std::uint32_t kVersion = 1;

[[noreturn]] void refuse(const std::string& file, const std::string& why) {
  throw StoreError("store file '" + file + "': " + why);
}

// What the header of an SQLite file says, read before SQLite touches the file.
struct Header {
  std::uint32_t applicationId;
  std::uint32_t version;
};

std::uint32_t bigEndian(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
         bytes[3];
}

// Nothing where the file is empty.
std::optional<Header> readHeader(const std::string& file, int descriptor) {
  std::array<unsigned char, 100> bytes{};
  const ssize_t size = ::pread(descriptor, bytes.data(), bytes.size(), 0);
  if (size < 0) refuse(file, "can't be read: " + std::generic_category().message(errno));
  if (size == 0) return std::nullopt;
  static constexpr std::string_view kMagic("SQLite format 3\0", 16);
  const std::string_view start(reinterpret_cast<const char*>(bytes.data()), kMagic.size());
  if (static_cast<std::size_t>(size) < bytes.size() || start != kMagic)
    refuse(file, "is not a database; give the file of a pinlampd, or one that is not there yet");
  return Header{bigEndian(&bytes[68]), bigEndian(&bytes[60])};
}

void checkHeader(const std::string& file, const Header& header) {
  if (header.applicationId != kApplicationId)
    refuse(
        file,
        "is the database of another application; give the file of a pinlampd, or one that is not there yet");
  if (header.version > kVersion)
    refuse(file, "has format version " + std::to_string(header.version) + ", newer than " +
                     std::to_string(kVersion) +
                     ", the newest that this pinlampd reads; run a newer pinlampd");
}

FileLock own(const std::string& file) {
  const auto folder = std::filesystem::path(file).parent_path();
  std::error_code ignored;
  if (!folder.empty() && !std::filesystem::is_directory(folder, ignored))
    refuse(file, "the folder '" + folder.string() + "' is not there; make it first");
  if (std::filesystem::is_directory(file, ignored)) refuse(file, "is a folder; give a file");
  try {
    if (auto lock = FileLock::tryTake(file)) return std::move(*lock);
  } catch (const std::system_error& error) {
    refuse(file, "can't be opened: " + error.code().message());
  }
  refuse(file,
         "is in use by another process" + FileLock::holderText(file) + "; one pinlampd owns it at a time");
}

}  // namespace

// Makes a T of a text, or takes the one that the last equal text made: rows repeat their paths, types and
// values, and making is what reading a large file costs.
template <class T, std::size_t Slots>
class Remembered {
 public:
  template <class Make>
  const T& of(std::string_view text, Make make) {
    Slot& slot = slots_[Slots == 1 ? 0 : std::hash<std::string_view>()(text) % Slots];
    if (!slot.made || slot.text != text) {
      slot.made = false;
      slot.value = make(text);
      slot.text = text;
      slot.made = true;
    }
    return slot.value;
  }

 private:
  struct Slot {
    std::string text;
    T value{};
    bool made = false;
  };
  std::array<Slot, Slots> slots_;
};

// The open file. Every failure is a StoreError with SQLite's own words.
class SqliteStore::Database {
 public:
  explicit Database(const std::string& file) : file_(file), lock_(own(file)) {
    const auto header = readHeader(file, lock_.descriptor());
    if (header) checkHeader(file, *header);
    open(!header);
    put_ = prepare(
        "INSERT INTO rows(path, attribute, type, value) VALUES(?1, ?2, ?3, ?4) ON CONFLICT(path, attribute) "
        "DO "
        "UPDATE SET type = excluded.type, value = excluded.value");
    del_ = prepare("DELETE FROM rows WHERE ?1 = '' OR path = ?1 OR (path > ?1 || '/' AND path < ?1 || '0')");
  }

  // Calls `take` with every row, those of one entity together. Rows whose path or names are beyond the limits
  // are left where they are: `report` gets the first few, and how many there are.
  template <class Take>
  void forEachRow(Take take, const Report& report) {
    const Statement select =
        prepare("SELECT path, attribute, type, value FROM rows ORDER BY path, attribute");
    Known known;
    std::size_t leftOut = 0;
    while (step(*select)) {
      try {
        take(row(*select, known));
      } catch (const Zel::ValueError& error) {
        constexpr std::size_t kReported = 10;
        if (++leftOut <= kReported) report("store file '" + file_ + "': a row is left out: " + error.what());
      }
    }
    if (leftOut > 0) report("store file '" + file_ + "': rows left out: " + std::to_string(leftOut));
  }

  // All of it or nothing.
  void write(const Changes& changes) {
    execute("BEGIN IMMEDIATE");
    try {
      for (const Change& change : changes) write(change);
      execute("COMMIT");
    } catch (const StoreError&) {
      // Some errors end the transaction by themselves.
      if (sqlite3_get_autocommit(connection_.get()) == 0)
        sqlite3_exec(connection_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
      throw;
    }
  }

 private:
  struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Close>;

  void open(bool isNew) {
    sqlite3* connection = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    const int result = sqlite3_open_v2(uriFree().c_str(), &connection, flags, nullptr);
    connection_.reset(connection);
    check(result);
    if (sqlite3_db_readonly(connection, "main") == 1) refuse(file_, "can't be written; it is read only");
    execute("PRAGMA locking_mode = EXCLUSIVE");
    if (isNew) create();
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = FULL");
  }

  // A path that SQLite takes for a plain file, whatever it begins with.
  std::string uriFree() const { return std::filesystem::absolute(file_).string(); }

  void create() {
    execute("BEGIN EXCLUSIVE");
    execute("PRAGMA application_id = " + std::to_string(kApplicationId));
    execute("PRAGMA user_version = " + std::to_string(kVersion));
    execute(
        "CREATE TABLE rows(path TEXT NOT NULL, attribute TEXT NOT NULL, type TEXT NOT NULL, value TEXT NOT "
        "NULL, "
        "PRIMARY KEY(path, attribute)) WITHOUT ROWID");
    execute("COMMIT");
  }

  void write(const Change& change) {
    const Row& row = change.row;
    if (change.kind == Change::Kind::del) return run(*del_, {row.path.text()});
    run(*put_, {row.path.text(), row.attribute.view(), row.type.view(), jsonText(row.value)});
  }

  void run(sqlite3_stmt& statement, std::initializer_list<std::string_view> texts) {
    int position = 0;
    for (const std::string_view text : texts)
      check(sqlite3_bind_text(&statement, ++position, text.data(), static_cast<int>(text.size()),
                              SQLITE_TRANSIENT));
    const int result = sqlite3_step(&statement);
    sqlite3_reset(&statement);
    if (result != SQLITE_DONE) check(result);
  }

  bool step(sqlite3_stmt& statement) {
    const int result = sqlite3_step(&statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) check(result);
    return result == SQLITE_ROW;
  }

  struct Known {
    Remembered<Statedb::Path, 1> path;
    Remembered<Zel::Name, 1> type;
    Remembered<Zel::Value, 64> value;
  };

  Row row(sqlite3_stmt& statement, Known& known) const {
    Row row{known.path.of(text(statement, 0), [](auto text) { return Statedb::Path(text); }),
            known.type.of(text(statement, 2), [](auto text) { return Zel::Name(text); }),
            Zel::Name(text(statement, 1)),
            {}};
    try {
      row.value = known.value.of(text(statement, 3), &parseJson);
    } catch (const Zel::ValueError& error) {
      refuse(file_, "the value of '" + row.path.text() + "' " + row.attribute.stdString() +
                        " can't be read: " + error.what());
    }
    return row;
  }

  // Good until the next step.
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
    refuse(file_, connection_ ? sqlite3_errmsg(connection_.get()) : sqlite3_errstr(result));
  }

  const std::string file_;
  // Before the connection: closing any descriptor of the file would drop SQLite's own locks on it.
  const FileLock lock_;
  std::unique_ptr<sqlite3, Close> connection_;
  Statement put_;
  Statement del_;
};

SqliteStore::SqliteStore(const std::string& file, const Report& report)
    : file_(file), database_(std::make_unique<Database>(file)) {
  database_->forEachRow([this](Row row) { restore(std::move(row)); }, report);
}
SqliteStore::~SqliteStore() = default;

std::string SqliteStore::url() const { return "sqlite:" + file_; }

void SqliteStore::persist(const Changes& changes) {
  uncommitted_.insert(uncommitted_.end(), changes.begin(), changes.end());
}

void SqliteStore::commit() {
  if (uncommitted_.empty()) return;
  database_->write(uncommitted_);
  uncommitted_.clear();
}

void SqliteStore::rollback() { uncommitted_.clear(); }

}  // namespace Host
