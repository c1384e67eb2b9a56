// A store under random operations, beside a model of it in plain maps.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>

#include "platform/statedb/store/store.h"

namespace StoreModel {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Record;
using Statedb::Records;
using Zel::Value;

// By path and attribute; the empty attribute has the type.
using Rows = std::map<std::pair<std::string, std::string>, Value>;

inline bool isUnder(const std::string& path, const std::string& above) {
  return above.empty() || path == above || path.starts_with(above + '/');
}

inline void carryInto(Rows& rows, const Changes& changes) {
  const auto del = [&](const std::string& path) {
    std::erase_if(rows, [&](const auto& each) { return isUnder(each.first.first, path); });
  };
  for (const Change& change : changes) {
    const std::string path = change.row.path.text(), attribute = change.row.attribute.stdString();
    if (change.kind == Change::Kind::del) {
      del(path);
    } else if (change.kind == Change::Kind::unset) {
      rows.erase({path, attribute});
    } else {
      const Value type = change.row.type.view();
      if (const auto there = rows.find({path, ""}); there != rows.end() && there->second != type) del(path);
      rows[{path, ""}] = type;
      if (!attribute.empty()) rows[{path, attribute}] = change.row.value;
    }
  }
}

inline Rows rowsOf(const Records& records) {
  Rows rows;
  for (const Record* record : records) {
    rows[{record->path.text(), ""}] = record->type.view();
    for (const auto& each : record->attributes)
      rows[{record->path.text(), each.name.stdString()}] = each.value;
  }
  return rows;
}

struct Model {
  struct Entity {
    std::string type;
    bool isStored = false;
    std::map<std::string, Value> stored{};
    std::map<std::string, Value> overlay{};
  };
  std::map<std::string, Entity> entities;

  // Returns whether the store is to take it; the model counts only then.
  bool apply(const Change& change, Durability durability) {
    const bool stored = durability == Durability::stored;
    const std::string path = change.row.path.text(), attribute = change.row.attribute.stdString();
    const auto found = entities.find(path);
    if (change.kind == Change::Kind::del) return stored ? del(path) : withdraw(path);
    if (change.kind == Change::Kind::unset) {
      if (found == entities.end()) return true;
      found->second.overlay.erase(attribute);
      if (stored) found->second.stored.erase(attribute);
      return true;
    }
    if (found != entities.end() && found->second.type != change.row.type.view()) {
      if (!stored && anyStored(path)) return false;
      del(path);
    }
    Entity& entity = entities.try_emplace(path, Entity{change.row.type.stdString()}).first->second;
    entity.isStored |= stored;
    if (!attribute.empty()) (stored ? entity.stored : entity.overlay)[attribute] = change.row.value;
    return true;
  }
  bool del(const std::string& path) {
    std::erase_if(entities, [&](const auto& each) { return isUnder(each.first, path); });
    return true;
  }
  bool withdraw(const std::string& path) {
    for (auto& [each, entity] : entities)
      if (isUnder(each, path)) entity.overlay.clear();
    std::erase_if(entities, [&](auto& each) { return isUnder(each.first, path) && !each.second.isStored; });
    return true;
  }
  bool anyStored(const std::string& path) const {
    return std::any_of(entities.begin(), entities.end(),
                       [&](auto& each) { return isUnder(each.first, path) && each.second.isStored; });
  }
  // What a process that starts again finds.
  void restart() { withdraw(""); }
  Rows rows(const std::string& above = {}) const {
    Rows rows;
    for (const auto& [path, entity] : entities) {
      if (!isUnder(path, above)) continue;
      rows[{path, ""}] = entity.type;
      for (const auto& [name, value] : entity.stored) rows[{path, name}] = value;
      for (const auto& [name, value] : entity.overlay) rows[{path, name}] = value;
    }
    return rows;
  }
};

// Keeps what a subscriber says.
struct Mirror : Statedb::Subscriber {
  explicit Mirror(std::string thePath) : path(std::move(thePath)) {}
  void onSnapshot(const Records& records) override { rows = rowsOf(records); }
  void onChanges(const Changes& changes) override {
    ++batches;
    for (const Change& change : changes)
      EXPECT_TRUE(isUnder(change.row.path.text(), path)) << change.row.path;
    carryInto(rows, changes);
  }

  const std::string path;
  Rows rows;
  int batches = 0;
};

// A store that can be made to fail where it keeps its rows.
template <class Base>
struct Failing : Base {
  using Base::Base;
  void persist(const Changes& changes) override {
    if (failsToPersist) throw Statedb::StoreError("can't persist");
    Base::persist(changes);
    persisted += changes.size();
  }
  void commit() override {
    if (failsToCommit) throw Statedb::StoreError("can't commit");
    Base::commit();
  }
  bool failsToPersist = false;
  bool failsToCommit = false;
  std::size_t persisted = 0;
};

// Random writes of both kinds, failures and restarts. `open` makes a Failing store over the rows that the
// last one kept.
template <class Open>
void compare(unsigned seed, int steps, Open open) {
  std::mt19937 random(seed);
  const auto oneIn = [&](unsigned n) { return random() % n == 0; };
  const auto pick = [&](auto... choices) { return std::array{choices...}[random() % sizeof...(choices)]; };
  const auto change = [&] {
    const std::string path = pick("a", "a/b", "a/b/c", "a-b", "a0", "a/'x\"%2F", "b", "b/ü", "b/x/y");
    const unsigned kind = random() % 8;
    if (kind == 0) return Change::del(pick("", "a", "a/b", "b", "b/x", "c"));
    if (kind == 1) return Change::unset(path, pick("x", "y"));
    return Change::put(path, oneIn(12) ? "U" : "T", pick("", "x", "y", "z"), pick(1, 2, 3));
  };
  auto store = open();
  Model model, durable;
  Mirror mirrors[] = {Mirror(""), Mirror("a"), Mirror("a/b"), Mirror("b")};
  Mirror origin("");
  const auto subscribe = [&] {
    for (Mirror& mirror : mirrors) store->subscribe(mirror.path, mirror);
    store->subscribe("", origin);
  };
  const auto flush = [&](bool fails) {
    store->failsToCommit = fails;
    try {
      store->flush();
      durable = model;
    } catch (const Statedb::StoreError&) {
      model = durable;
      origin.rows = model.rows();
    }
    store->failsToCommit = false;
  };
  subscribe();
  for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    Changes changes;
    for (auto count = random() % 4; changes.size() <= count;) changes.push_back(change());
    const auto durability = pick(Durability::stored, Durability::volatile_);
    Statedb::Subscriber* const from = oneIn(3) ? &origin : nullptr;
    if (from) flush(false);
    Model after = model;
    bool taken = true;
    for (const Change& each : changes) taken = taken && after.apply(each, durability);
    store->failsToPersist = oneIn(6);
    try {
      store->write(changes, durability, from);
      EXPECT_TRUE(taken);
      model = after;
      if (from) carryInto(origin.rows, changes);
    } catch (const Statedb::RefusedError&) {
      EXPECT_FALSE(taken);
    } catch (const Statedb::StoreError&) {
      EXPECT_TRUE(store->failsToPersist);
    }
    store->failsToPersist = false;
    ASSERT_EQ(rowsOf(store->read("")), model.rows());
    if (!from && !oneIn(3)) continue;
    flush(oneIn(5));
    ASSERT_EQ(rowsOf(store->read("")), model.rows());
    for (const Mirror& mirror : mirrors) ASSERT_EQ(mirror.rows, model.rows(mirror.path)) << mirror.path;
    ASSERT_EQ(origin.rows, model.rows()) << "of the origin";
    if (!oneIn(40)) continue;
    store.reset();
    store = open();
    model.restart();
    durable = model;
    ASSERT_EQ(rowsOf(store->read("")), model.rows()) << "after a restart";
    subscribe();
  }
}

}  // namespace StoreModel
