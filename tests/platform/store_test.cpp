// The store in memory, against a map of rows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "platform/statedb/store.h"

namespace {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;

using Rows = std::map<std::pair<Path, Zel::Name>, std::pair<Zel::Name, Zel::Value>>;  // with their types

void putInto(Rows& rows, const Statedb::Row& row) {
  rows[{row.path, {}}] = {row.type, {}};
  rows[{row.path, row.attribute}] = {row.type, row.value};
}

Rows asRows(const Records& records) {
  Rows rows;
  for (const Record* record : records) {
    putInto(rows, {record->path, record->type, {}, {}});
    for (const auto& each : record->attributes)
      putInto(rows, {record->path, record->type, each.name, each.value});
  }
  return rows;
}

// Keeps what a feed says; must stay equal to what the store reads.
struct Mirror : Statedb::Feed {
  void onSnapshot(const Records& records) override { rows = asRows(records); }
  void onChanges(const Changes& changes) override {
    ++batches;
    for (const Change& change : changes) {
      if (change.kind == Change::Kind::put)
        putInto(rows, change.row);
      else
        std::erase_if(rows, [&](const auto& each) { return each.first.first.isUnder(change.row.path); });
    }
  }

  Rows rows;
  int batches = 0;
};

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
  store.subscribe({}, all);
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
    const auto before = asRows(store.read(""));
    store.full = random() % 4 == 0;
    store.write(changes, random() % 2 ? Durability::stored : Durability::derived);
    if (store.full && asRows(store.read("")) != before) {
      ASSERT_THROW(store.flush(), Statedb::StoreError);
      ASSERT_EQ(asRows(store.read("")), before) << "undone, step " << step;
    } else {
      store.full = false;
      store.flush();
    }
    ASSERT_EQ(all.rows, asRows(store.read(""))) << "step " << step;
    ASSERT_EQ(under.rows, asRows(store.read("a"))) << "step " << step;
  }
  std::string order;
  for (const Record* record : store.read("")) order += record->path.text() + ' ';
  std::vector<Record> there;
  for (const Record* record : store.read("")) there.push_back(*record);
  EXPECT_TRUE(std::ranges::is_sorted(there, &Statedb::readsBefore, &Record::path)) << order;
}

// A text finds the same path again, and a path its text, whatever the components are.
TEST(Path, IsItsTextAndATree) {
  const std::vector<std::string> texts = {"",  "a",  "a/b", "a/b/c", "a-b", "a//b",
                                          "/", "/a", "a/",  "a%2Fb", "ä"};
  for (const std::string& text : texts) EXPECT_EQ(Path(text).text(), text);
  const std::size_t count = Path::count();
  for (const std::string& text : texts) EXPECT_EQ(Path::existing(text), Path(text)) << text;
  EXPECT_FALSE(Path::existing("a/never"));
  EXPECT_FALSE(Path::existing("never/made/b"));
  EXPECT_EQ(Path::count(), count) << "looking up adds nothing";
  for (const std::string& text : texts)
    for (const std::string& above : texts)
      EXPECT_EQ(Path(text).isUnder(above), above.empty() || text == above || text.starts_with(above + '/'))
          << text << " under " << above;
  EXPECT_EQ(Path("a").childNamed("x/y"), Path("a/x%2Fy"));
  EXPECT_EQ(Path("a/b/c").parent().parent(), Path("a"));
  std::vector<std::string> under;
  Path("a").forEachUnder([&](Path path) { under.push_back(path.text()); });
  EXPECT_EQ(std::ranges::count(under, "a/b/c"), 1);
  EXPECT_LT(std::ranges::find(under, "a/b"), std::ranges::find(under, "a/b/c"));
  EXPECT_EQ(std::ranges::count(under, "a-b"), 0);
  for (int i = 0; i < 5000; ++i) Path("many/" + std::to_string(i));
  for (int i = 0; i < 5000; ++i)
    ASSERT_EQ(Path::existing("many/" + std::to_string(i))->component(), Zel::Name(std::to_string(i)));
}

TEST(Path, HasLimitsThatKeepTheTablesAsTheyAre) {
  const auto deep = [](int components) {
    std::string text = "limit";
    for (int i = 1; i < components; ++i) text += "/limit";
    return text;
  };
  const std::string name(255, 'n');
  std::string escaped;
  for (int i = 0; i < 255; ++i) escaped += "%2F";
  for (const std::string& text : {deep(64), "limit/" + name, "limit/" + escaped})
    EXPECT_EQ(Path(text).text(), text);
  const std::pair<std::string, const char*> refused[] = {
      {deep(65), "has more than 64 components"},
      {deep(150000), "is longer than 4096 bytes"},
      {"limit/" + name + "o", "is longer than 255 bytes"},
      {"limit/" + escaped + "o/x", "is longer than 255 bytes"},
      {"limit/new" + std::string(5000, 'x'), "is longer than 4096 bytes"},
  };
  const std::size_t paths = Path::count();
  const std::size_t names = Zel::Name::count();
  for (const auto& [text, why] : refused) {
    try {
      const Path path(text);
      ADD_FAILURE() << why;
    } catch (const Zel::ValueError& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr(why));
      EXPECT_LT(std::string_view(error.what()).size(), 400U);
    }
    EXPECT_FALSE(Path::existing(text));
  }
  EXPECT_THROW(Zel::Name(name + "o"), Zel::ValueError);
  EXPECT_EQ(Path::count(), paths);
  EXPECT_EQ(Zel::Name::count(), names);
}

// What agents make is not limited, so nothing may recurse by depth.
TEST(Path, MayBeAsDeepAsAgentsMakeIt) {
  const Path top("deep");
  Path bottom = top;
  for (int i = 0; i < 200000; ++i) bottom = bottom.child("d");
  EXPECT_EQ(bottom.text().size(), 4U + 2 * 200000);
  int count = 0;
  top.forEachUnder([&](Path) { ++count; });
  EXPECT_EQ(count, 200001);
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
