// A model of a store in plain maps, and helpers to compare a store with it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "platform/statedb/store/store.h"

namespace StoreModel {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Layer;
using Statedb::Record;
using Statedb::Records;
using Zel::Value;

// By path and attribute; the empty attribute maps to the type.
using Rows = std::map<std::pair<std::string, std::string>, Value>;

inline bool isUnder(const std::string& path, const std::string& above) {
  return above.empty() || path == above || path.starts_with(above + '/');
}

inline void carryInto(Rows& rows, const Changes& changes) {
  const auto erase = [&](const std::string& from, const std::string& to) {
    rows.erase(rows.lower_bound({from, ""}), rows.lower_bound({to, ""}));
  };
  const auto del = [&](const std::string& path) {
    if (path.empty()) return rows.clear();
    erase(path, path + '\0');
    erase(path + '/', path + '0');  // the character after '/'
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
  struct Cover {
    std::string type;
    std::map<std::string, Value> values{};
  };
  std::map<std::string, Cover> covers{};

  // Returns whether the store must accept the change; if not, discard the model.
  bool apply(const Change& change, Durability durability) {
    if (durability == Durability::cover) return cover(change), true;
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
  void cover(const Change& change) {
    const std::string path = change.row.path.text(), attribute = change.row.attribute.stdString();
    if (change.kind == Change::Kind::del) {
      std::erase_if(covers, [&](const auto& each) { return isUnder(each.first, path); });
    } else if (change.kind == Change::Kind::unset) {
      if (const auto found = covers.find(path); found != covers.end()) found->second.values.erase(attribute);
    } else if (!attribute.empty()) {
      const std::string type = change.row.type.stdString();
      if (covers[path].type != type) covers[path] = {type};
      covers[path].values[attribute] = change.row.value;
    }
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
  // A restart loses the volatile values and the covers.
  void restart() {
    withdraw("");
    covers.clear();
  }
  Rows coverRows() const {
    Rows rows;
    for (const auto& [path, cover] : covers)
      for (const auto& [name, value] : cover.values)
        rows[{path, ""}] = cover.type, rows[{path, name}] = value;
    return rows;
  }
  Rows rows(const std::string& above = {}, Layer layer = Layer::effective) const {
    Rows rows;
    for (const auto& [path, entity] : entities) {
      if (!isUnder(path, above)) continue;
      rows[{path, ""}] = entity.type;
      for (const auto& [name, value] : entity.stored) rows[{path, name}] = value;
      for (const auto& [name, value] : entity.overlay) rows[{path, name}] = value;
      const auto cover = covers.find(path);
      if (layer == Layer::base || cover == covers.end() || cover->second.type != entity.type) continue;
      for (const auto& [name, value] : cover->second.values) rows[{path, name}] = value;
    }
    return rows;
  }
};

// Applies its notifications to rows of its own.
struct Mirror : Statedb::Subscriber {
  explicit Mirror(std::string thePath, Layer theLayer = Layer::effective)
      : path(std::move(thePath)), layer_(theLayer) {}
  Layer layer() const override { return layer_; }
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

 private:
  const Layer layer_;
};

// A store with injected failures of persist() and commit().
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

}  // namespace StoreModel
