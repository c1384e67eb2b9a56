// The store in one SQLite file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <random>

#include "folder.h"
#include "host/sqlitestore.h"
#include "host/stores.h"

namespace {

using Host::SqliteStore;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::StoreError;
using ::testing::HasSubstr;
using Zel::Value;

// What a store should hold: every row by path and attribute, and whether it is to live on.
struct Reference {
  std::map<std::pair<Statedb::Path, Zel::Name>, Value> rows;

  void apply(const Change& change) {
    if (change.kind == Change::Kind::put)
      rows[{change.row.path, ""}] = {}, rows[{change.row.path, change.row.attribute}] = change.row.value;
    else
      std::erase_if(rows, [&](const auto& row) { return row.first.first.isUnder(change.row.path); });
  }
  void dropDerived() {
    std::erase_if(rows, [](const auto& row) { return row.first.first.isUnder("derived"); });
  }
};

auto rowsOf(const Statedb::Store& store) {
  std::map<std::pair<Statedb::Path, Zel::Name>, Value> rows;
  for (const auto* record : store.read("")) {
    rows[{record->path, {}}] = {};
    for (const auto& each : record->attributes) rows[{record->path, each.name}] = each.value;
  }
  return rows;
}

TEST(SqliteStore, HoldsWhatAMapHoldsAcrossReopening) {
  const Folder folder;
  std::mt19937 random(7);
  const auto pick = [&](auto... choices) { return std::array{choices...}[random() % sizeof...(choices)]; };
  Reference reference;
  auto store = std::make_unique<SqliteStore>(folder.at("db"));
  for (int i = 0; i < 1500; ++i) {
    const bool derived = random() % 4 == 0;
    std::string path = derived ? "derived" : "kept";
    for (auto depth = random() % 4; depth > 0; --depth) path += pick("/a", "/a.b", "/a0", "/'x\"%2F", "/ü");
    const Change change =
        random() % 5 == 0 ? Change::del(path) : Change::put(path, "T", pick("", "x", "y"), pick(1, 2, 3));
    store->write({change}, derived ? Durability::derived : Durability::stored);
    reference.apply(change.row.attribute.empty() ? Change{change.kind, {path, "T", "", {}}} : change);
    if (random() % 3 == 0) store->flush();
    if (random() % 50 != 0) continue;
    EXPECT_EQ(rowsOf(*store), reference.rows);
    store->flush();
    store.reset();
    store = std::make_unique<SqliteStore>(folder.at("db"));
    reference.dropDerived();
    ASSERT_EQ(rowsOf(*store), reference.rows) << "after reopening at step " << i;
  }
}

TEST(SqliteStore, AKilledProcessLosesNothingThatWasFlushedAndNothingElseIsThere) {
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
  EXPECT_EQ(rowsOf(store).at({"led", "n"}), Value(19));
}

TEST(SqliteStore, AFullDiskUndoesTheBatchAndTheStoreGoesOn) {
  const Folder folder;
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  {
    SqliteStore store(folder.at("db"));
    store.write({Change::put("a", "T", "x", 1)}, Durability::stored);
    store.flush();
    const auto held = rowsOf(store);

    const rlimit small{8192, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
    store.write({Change::del("a"), Change::put("b", "T", "x", std::string(100000, 'x'))}, Durability::stored);
    EXPECT_THROW(store.flush(), StoreError);
    ::setrlimit(RLIMIT_FSIZE, &before);

    EXPECT_EQ(rowsOf(store), held);
    store.write({Change::put("a", "T", "x", 2)}, Durability::stored);
    store.flush();
  }
  EXPECT_EQ(rowsOf(SqliteStore(folder.at("db"))).at({"a", "x"}), Value(2));
}

// Why the file is not opened; empty where it is.
std::string refusal(const std::string& file) {
  try {
    const SqliteStore store(file);
  } catch (const StoreError& error) {
    return error.what();
  }
  return {};
}

void runSql(const std::string& file, const char* sql) {
  sqlite3* connection = nullptr;
  sqlite3_open(file.c_str(), &connection);
  EXPECT_EQ(sqlite3_exec(connection, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(connection);
}

TEST(SqliteStore, AFileThatIsNotItsOwnIsRefusedAndLeftAsItWas) {
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

TEST(SqliteStore, RowsBeyondTheLimitsAreLeftOutAndReported) {
  const Folder folder;
  { SqliteStore(folder.at("db")).write({Change::put("kept", "T", "", {})}, Durability::stored); }
  runSql(folder.at("db"),
         "PRAGMA journal_mode = DELETE; INSERT INTO rows VALUES('kept', '', 'T', 'null');"
         "INSERT INTO rows VALUES('deep' || replace(hex(zeroblob(50000)), '00', '/d'), '', 'T', 'null');"
         "INSERT INTO rows VALUES('kept/' || hex(zeroblob(200)), '', 'T', 'null');"
         "INSERT INTO rows VALUES('kept', hex(zeroblob(200)), 'T', '1');");
  std::string reported;
  const SqliteStore store(folder.at("db"), [&](const std::string& text) { reported += text + '\n'; });
  EXPECT_EQ(rowsOf(store).size(), 1U);
  EXPECT_THAT(reported, HasSubstr("a row is left out: the path 'deep/d/d"));
  EXPECT_THAT(reported, HasSubstr("a row is left out: the name '0000"));
  EXPECT_THAT(reported, HasSubstr("rows left out: 3"));
}

TEST(SqliteStore, HasOneOwnerAtATime) {
  const Folder folder;
  Host::Loop loop;
  const auto first = Host::makeStore("sqlite:" + folder.at("db"), loop, {});
  first->write({Change::put("a", "T", "", {})}, Durability::stored);
  EXPECT_THAT(refusal(folder.at("db")), HasSubstr("(pid " + std::to_string(::getpid()) + ")"));
  EXPECT_NO_THROW(first->flush());
}

TEST(Stores, AUrlThatIsNoneSaysWhatWouldBe) {
  Host::Loop loop;
  for (const char* url :
       {"", "sqlite", "file:x", "sqlite:", "memory:x", "sqlite:/no/such/folder/db", "sqlite:/tmp"})
    EXPECT_THROW(Host::makeStore(url, loop, {}), StoreError) << url;
}

}  // namespace
