// The store in one SQLite file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "folder.h"
#include "host/io/filelock.h"
#include "host/store/sqlitestore.h"
#include "host/store/stores.h"
#include "tests/platform/storemodel.h"
#include "tests/support.h"

namespace {
bool syncsFail = false;
}

// Takes the place of the C library's, which SQLite calls.
extern "C" [[gnu::visibility("default")]] int fdatasync(int descriptor) {
  if (!syncsFail) return static_cast<int>(::syscall(SYS_fdatasync, descriptor));
  errno = EIO;
  return -1;
}

namespace {

using Host::SqliteStore;
using Statedb::Change;
using Statedb::Durability;
using Statedb::StoreError;
using ::testing::HasSubstr;
using Zel::Value;

using StoreModel::rowsOf;

TEST(SqliteStore, AfterAKillExactlyTheFlushedRowsAreThere) {
  const Folder folder;
  const pid_t child = ::fork();
  if (child == 0) {
    SqliteStore store(folder.at("db"));
    for (int i = 0; i < 20; ++i) {
      store.write({Change::put("led", "T", "n", i), Change::put("led/" + std::to_string(i), "T", "", {})},
                  Durability::stored);
      store.flush();
    }
    store.write({Change::del("led")}, Durability::stored);
    ::raise(SIGKILL);
  }
  ::waitpid(child, nullptr, 0);
  const SqliteStore store(folder.at("db"));
  EXPECT_EQ(store.entities(), 21U);
  EXPECT_EQ(rowsOf(store.read("")).at({"led", "n"}), Value(19));
}

// With many rows before, the log has started again from its beginning.
TEST(SqliteStore, ARowThatWasNotSyncedDoesNotComeBackAfterAKill) {
  for (const int before : {0, 1, 60}) {
    const Folder folder;
    const auto commit = [](SqliteStore& store, int i) {
      const Value value(std::string(100'000, static_cast<char>('a' + i % 26)));
      store.write({Change::put("led/" + std::to_string(i), "T", "x", value)}, Durability::stored);
      return Support::errorOf<StoreError>([&] { store.flush(); }) == "none";
    };
    const pid_t child = ::fork();
    if (child == 0) {
      SqliteStore store(folder.at("db"));
      bool isRight = true;
      for (int i = 0; i < before; ++i) isRight &= commit(store, i);
      syncsFail = true;
      for (int i = 0; i < 3; ++i) isRight &= !commit(store, 1000 + i);
      ::raise(isRight ? SIGKILL : SIGABRT);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_EQ(SqliteStore(folder.at("db")).entities(), static_cast<std::size_t>(before));
  }
}

// The error of opening the file; "none" if it opens.
std::string refusal(const std::string& file) {
  return Support::errorOf<StoreError>([&] { return SqliteStore(file).entities(); });
}

void runSql(const std::string& file, const char* sql, const std::function<void(sqlite3*)>& then = {}) {
  sqlite3* connection = nullptr;
  sqlite3_open(file.c_str(), &connection);
  EXPECT_EQ(sqlite3_exec(connection, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  if (then) then(connection);
  sqlite3_close(connection);
}

TEST(SqliteStore, AForeignFileIsRefusedAndNotChanged) {
  const Folder folder;
  contentIs(folder.at("text"), std::string(5000, 'x'));
  contentIs(folder.at("short"), "SQLite");
  runSql(folder.at("other"), "CREATE TABLE letters(x)");
  { SqliteStore(folder.at("newer")); }
  runSql(folder.at("newer"), "PRAGMA journal_mode = DELETE; PRAGMA user_version = 2");
  { SqliteStore(folder.at("broken")); }
  runSql(folder.at("broken"), "INSERT INTO rows VALUES('led', 'x', 'T', '{\"a\":')");
  const std::pair<const char*, const char*> cases[] = {{"text", "is not a database"},
                                                       {"short", "is not a database"},
                                                       {"other", "of another application"},
                                                       {"newer", "format version 2, newer than 1"},
                                                       {"broken", "the value of 'led' x can't"}};
  for (const auto& [name, reason] : cases) {
    const std::string before = contentOf(folder.at(name));
    EXPECT_THAT(refusal(folder.at(name)), ::testing::AllOf(HasSubstr(folder.at(name)), HasSubstr(reason)));
    EXPECT_EQ(contentOf(folder.at(name)), before) << name;
  }
}

std::vector<std::string> filesIn(const Folder& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder.at("")))
    names.push_back(entry.path().filename().string());
  return names;
}

// Remains of a process that was killed while it created the file, atomically or in place.
TEST(SqliteStore, AnIncompleteFileIsReplaced) {
  constexpr const char* kId = "PRAGMA application_id = 0x50694C61; PRAGMA user_version = 1";
  using Make = void (*)(const Folder& folder, const std::string& file);
  const std::pair<const char*, Make> cases[] = {
      {"nothing", [](auto&, auto&) {}},
      {"an empty file", [](auto&, auto& file) { contentIs(file, ""); }},
      {"an empty file and a journal",
       [](auto&, auto& file) { contentIs(file, ""), contentIs(file + "-journal", "x"); }},
      {"a new file that was begun", [](auto&, auto& file) { contentIs(file + ".new", "SQLite format 3"); }},
      {"a link that leads nowhere",
       [](auto& folder, auto& file) { std::filesystem::create_symlink(folder.at("there"), file); }},
      {"an application without a table", [](auto&, auto& file) { runSql(file, kId); }},
      {"the same, in the log",
       [](auto& folder, auto& file) {
         const std::string other = folder.at("other");
         runSql(other, kId);
         runSql(other, "PRAGMA journal_mode = WAL; PRAGMA user_version = 0", [&](sqlite3* connection) {
           sqlite3_exec(connection, kId, nullptr, nullptr, nullptr);
           for (const char* suffix : {"", "-wal"}) std::filesystem::copy(other + suffix, file + suffix);
         });
         std::filesystem::remove(other);
       }},
      {"a database without anything", [](auto&, auto& file) { runSql(file, "PRAGMA journal_mode = WAL"); }},
  };
  for (const auto& [name, make] : cases) {
    SCOPED_TRACE(name);
    const Folder folder;
    const std::string file = folder.at("db");
    make(folder, file);
    {
      SqliteStore store(file);
      EXPECT_EQ(store.entities(), 0U);
      store.write({Change::put("a", "T", "x", 1)}, Durability::stored);
      store.flush();
    }
    EXPECT_EQ(SqliteStore(file).entities(), 1U);
    const bool isLink = std::filesystem::is_symlink(file);
    EXPECT_THAT(filesIn(folder),
                ::testing::UnorderedElementsAreArray(isLink ? std::vector<std::string>{"db", "there"}
                                                            : std::vector<std::string>{"db"}));
  }
  const Folder folder;
  contentIs(folder.at("db-wal"), "changes");
  EXPECT_THAT(refusal(folder.at("db")), HasSubstr("db-wal' holds changes that belong to it"));
  EXPECT_EQ(filesIn(folder), std::vector<std::string>{"db-wal"});
}

TEST(SqliteStore, ALargeBatchIsStoredInItsOrder) {
  const Folder folder;
  Statedb::Changes changes;
  for (int i = 0; i < 300; ++i) {
    const std::string path = "e" + std::to_string(i % 50);
    changes.push_back(Change::put(path, "T", "", {}));
    changes.push_back(Change::put(path, "T", i % 3 == 0 ? "a" : "b", "value " + std::to_string(i)));
    if (i % 120 == 110) changes.push_back(Change::unset(path, "b"));
    if (i % 120 == 115) changes.push_back(Change::del(path));
  }
  StoreModel::Rows written;
  {
    SqliteStore store(folder.at("db"));
    store.write(changes, Durability::stored);
    store.flush();
    written = rowsOf(store.read(""));
  }
  EXPECT_EQ(written.at({"e49", "b"}), Value("value 299"));
  EXPECT_EQ(rowsOf(SqliteStore(folder.at("db")).read("")), written);
}

TEST(SqliteStore, RowsBeyondTheLimitsAndDuplicatesAreSkippedAndReported) {
  const Folder folder;
  { SqliteStore(folder.at("db")).write({Change::put("kept", "T", "", {})}, Durability::stored); }
  runSql(folder.at("db"),
         "PRAGMA journal_mode = DELETE; INSERT INTO rows VALUES('kept', '', 'T', 'null');"
         "INSERT INTO rows VALUES('deep' || replace(hex(zeroblob(50000)), '00', '/d'), '', 'T', 'null');"
         "INSERT INTO rows VALUES('kept/' || hex(zeroblob(200)), '', 'T', 'null');"
         "INSERT INTO rows VALUES('kept', hex(zeroblob(200)), 'T', '1');"
         "INSERT INTO rows VALUES('kept', 'x', 'T', '1');"
         "INSERT INTO rows VALUES(CAST('kept' AS BLOB), 'x', 'T', '2');");
  std::string reported;
  const SqliteStore store(folder.at("db"), [&](const std::string& text) { reported += text + '\n'; });
  EXPECT_EQ(rowsOf(store.read("")).size(), 2U);
  EXPECT_THAT(reported, HasSubstr("a row is left out: the path 'deep/d/d"));
  EXPECT_THAT(reported, HasSubstr("a row is left out: the name '0000"));
  EXPECT_THAT(reported, HasSubstr("a row is left out: 'kept' has another value of 'x'"));
  EXPECT_THAT(reported, HasSubstr("rows left out: 4"));
}

TEST(SqliteStore, HasOneOwnerAtATime) {
  const Folder folder;
  Host::Loop loop;
  const auto first = Host::makeStore("sqlite:" + folder.at("db"), loop, {});
  first->write({Change::put("a", "T", "", {})}, Durability::stored);
  EXPECT_THAT(refusal(folder.at("db")), HasSubstr("(pid " + std::to_string(::getpid()) + ")"));
  EXPECT_NO_THROW(first->flush());
}

TEST(SqliteStore, IsNotOpenedAsACopyWhileItsOwnerRuns) {
  const Folder folder;
  std::filesystem::create_directory(folder.at("copy"));
  const auto copy = [&](std::initializer_list<const char*> suffixes) {
    for (const char* suffix : suffixes)
      std::filesystem::copy_file(folder.at("db") + suffix, folder.at("copy/db") + suffix,
                                 std::filesystem::copy_options::overwrite_existing);
  };
  {
    SqliteStore store(folder.at("db"));
    store.write({Change::put("a", "T", "", {})}, Durability::stored);
    store.flush();
    copy({"", "-wal"});
    const std::string before = contentOf(folder.at("copy/db"));
    EXPECT_THAT(refusal(folder.at("copy/db")),
                HasSubstr("is a copy of the file that another process (pid " + std::to_string(::getpid())));
    EXPECT_EQ(contentOf(folder.at("copy/db")), before);
    std::filesystem::remove(folder.at("copy/db-wal"));
    copy({""});
    EXPECT_THAT(refusal(folder.at("copy/db")), HasSubstr("is a copy"));
    EXPECT_FALSE(std::filesystem::exists(folder.at("copy/db-wal")));
    std::filesystem::remove_all(folder.at("copy"));
    std::filesystem::create_directory(folder.at("copy"));
  }
  copy({""});
  EXPECT_EQ(SqliteStore(folder.at("copy/db")).entities(), 1U);
  // Killed: nobody owns the copy.
  const pid_t child = ::fork();
  if (child == 0) {
    const SqliteStore store(folder.at("db"));
    ::raise(SIGKILL);
  }
  ::waitpid(child, nullptr, 0);
  copy({"", "-wal"});
  EXPECT_EQ(SqliteStore(folder.at("copy/db")).entities(), 1U);
}

TEST(SqliteStore, ReportsOnceThatItsFileWasRemovedOrReplaced) {
  const Folder folder;
  Host::Loop loop;
  std::vector<std::string> reports;
  const auto store = Host::makeStore("sqlite:" + folder.at("db"), loop,
                                     [&](const std::string& text) { reports.push_back(text); });
  const auto reportsAfter = [&](auto&& change) {
    reports.clear();
    change();
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (reports.empty() && std::chrono::steady_clock::now() < latest) loop.runOnce();
    for (int i = 0; i < 100; ++i) loop.runOnce();
    return reports;
  };
  const auto move = [&](const char* from, const char* to) {
    std::filesystem::rename(folder.at(from), folder.at(to));
  };
  const auto says = [](const char* text) { return ::testing::ElementsAre(HasSubstr(text)); };
  EXPECT_THAT(reportsAfter([&] { move("db", "away"); }), says("db': was removed or replaced"));
  EXPECT_THAT(reportsAfter([&] { move("away", "db"); }), says("db': is back"));
  contentIs(folder.at("other"), "x");
  EXPECT_THAT(reportsAfter([&] { move("other", "db"); }), says("db': was removed or replaced"));
  EXPECT_THAT(reportsAfter([&] { std::filesystem::remove(folder.at("db-wal")); }),
              says("db-wal': was removed or replaced"));
}

// Any process that can open a file can lock it, and keep the host from starting.
TEST(SqliteStore, StateAndLockFilesAreTheOwnersAlone) {
  const Folder folder;
  const auto modeOf = [&](const char* name) {
    struct stat status {};
    EXPECT_EQ(::stat(folder.at(name).c_str(), &status), 0) << name;
    return status.st_mode & 0777;
  };
  { SqliteStore(folder.at("wide")); }
  contentIs(folder.at("wide lock"), "");
  for (const char* name : {"wide", "wide lock"}) ::chmod(folder.at(name).c_str(), 0664);
  const SqliteStore fresh(folder.at("fresh")), wide(folder.at("wide"));
  const auto freshLock = Host::FileLock::tryTake(folder.at("fresh lock"));
  const auto wideLock = Host::FileLock::tryTake(folder.at("wide lock"));
  for (const char* name : {"fresh", "wide", "fresh lock", "wide lock"})
    EXPECT_EQ(modeOf(name), 0600U) << name;
}

TEST(Stores, AnInvalidUrlIsRefused) {
  Host::Loop loop;
  for (const char* url :
       {"", "sqlite", "file:x", "sqlite:", "memory:x", "sqlite:/no/such/folder/db", "sqlite:/tmp"})
    EXPECT_THROW(Host::makeStore(url, loop, {}), StoreError) << url;
}

}  // namespace
