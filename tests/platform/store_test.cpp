// The store in memory, against a map of rows.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "platform/statedb/store.h"

namespace {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Row;

// Keeps what a feed says; must stay equal to what the store reads.
struct Mirror : Statedb::Feed {
  void onSnapshot(const std::vector<Row>& all) override {
    rows.clear();
    for (const Row& row : all) put(row);
  }
  void onChanges(const Changes& changes) override {
    ++batches;
    for (const Change& change : changes) {
      if (change.kind == Change::Kind::put)
        put(change.row);
      else
        std::erase_if(rows,
                      [&](const auto& each) { return Statedb::isUnder(each.first.first, change.row.path); });
    }
  }
  void put(const Row& row) { rows[{row.path, row.attribute}] = row; }

  std::map<std::pair<std::string, std::string>, Row> rows;
  int batches = 0;
};

std::map<std::pair<std::string, std::string>, Row> asMap(const std::vector<Row>& rows) {
  std::map<std::pair<std::string, std::string>, Row> map;
  for (const Row& row : rows) map[{row.path, row.attribute}] = row;
  return map;
}

// A store whose disk can be made to fail; counts what it was given.
struct Flaky : Statedb::MemoryStore {
  void persist(const Changes& changes) override {
    persisted.insert(persisted.end(), changes.begin(), changes.end());
  }
  void commit() override {
    if (full) throw Statedb::StoreError("disk full");
  }
  bool full = false;
  Changes persisted;
};

TEST(MemoryStore, FeedsFollowTheRowsUnderRandomBatches) {
  std::mt19937 random(3);
  const std::vector<std::string> paths = {"a", "a/b", "a/b/c", "a-b", "a0", "b", "b/x", "b/y"};
  Flaky store;
  Mirror all;
  Mirror under;
  store.subscribe("", all);
  store.subscribe("a", under);
  for (int step = 0; step < 3000; ++step) {
    Changes changes;
    for (unsigned i = 0; i <= random() % 3; ++i) {
      const std::string& path = paths[random() % paths.size()];
      if (random() % 4 == 0)
        changes.push_back(Change::del(path));
      else
        changes.push_back(Change::put(path, random() % 8 ? "T" : "U", random() % 2 ? "x" : "y",
                                      static_cast<int>(random() % 3)));
    }
    const auto before = asMap(store.read(""));
    store.full = random() % 4 == 0;
    store.write(changes, random() % 2 ? Durability::stored : Durability::derived);
    if (store.full && asMap(store.read("")) != before) {
      ASSERT_THROW(store.flush(), Statedb::StoreError);
      ASSERT_EQ(asMap(store.read("")), before) << "undone, step " << step;
    } else {
      store.full = false;
      store.flush();
    }
    ASSERT_EQ(all.rows, asMap(store.read(""))) << "step " << step;
    ASSERT_EQ(under.rows, asMap(store.read("a"))) << "step " << step;
  }
}

TEST(MemoryStore, WhatChangesNothingIsToldToNobody) {
  Flaky store;
  Mirror mirror;
  store.subscribe("", mirror);
  store.write({Change::put("a", "T", "x", 1)}, Durability::stored);
  store.flush();
  EXPECT_EQ(mirror.batches, 1);
  EXPECT_EQ(store.persisted.size(), 2U) << "that it is there, and the attribute";
  store.write({Change::put("a", "T", "x", 1), Change::del("b")}, Durability::stored);
  store.flush();
  EXPECT_EQ(mirror.batches, 1);
  EXPECT_EQ(store.persisted.size(), 2U);
  store.write({Change::put("a", "T", "x", 2)}, Durability::stored, &mirror);
  store.flush();
  EXPECT_EQ(mirror.batches, 1) << "nor are one's own changes";
}

TEST(MemoryStore, DerivedRowsAreNeverPersisted) {
  Flaky store;
  store.write({Change::put("pin", "T", "value", 1)}, Durability::derived);
  store.write({Change::put("pin", "T", "value", 2)}, Durability::stored);
  store.write({Change::del("pin")}, Durability::stored);
  store.flush();
  EXPECT_TRUE(store.persisted.empty());
}

}  // namespace
