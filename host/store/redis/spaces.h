// The rows of the three spaces, and what subscribers are to be notified of when they change. Internal to
// Mirror, whose header states the rules.
//
//     spaces.carry(Durability::volatile_, change, visible);
//     spaces.hide(Durability::volatile_, change);  // subscribers are not notified
//     spaces.showAll(visible);                     // until now
//
// Activity thread only.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <unordered_map>

#include "host/store/redis/layeredchanges.h"
#include "host/store/redis/recordtable.h"
#include "platform/statedb/store/row.h"

namespace Host::Redis {

void setIn(Statedb::Record& record, Statedb::Attribute attribute);
void unsetIn(Statedb::Record& record, Zel::Name attribute);
// Appends puts of the entity and its attributes.
void appendRows(const Statedb::Record& record, Statedb::Changes& changes);

// The entities of the spaces at a path; null for nothing.
struct Layers {
  const Statedb::Record* stored;
  const Statedb::Record* volatile_;
  const Statedb::Record* covers;

  // The volatile record where it is visible: not under a stored one of another type.
  const Statedb::Record* top() const {
    return stored && volatile_ && stored->type != volatile_->type ? nullptr : volatile_;
  }
  bool isMerged() const { return stored && top(); }
  // The covers where they show: over an entity of their type.
  const Statedb::Record* shownCovers() const { return covers && covers->type == type() ? covers : nullptr; }
  // Of the visible entity; empty if there is none.
  Zel::Name type() const;
  // The value without covers; null if there is none.
  const Zel::Value* findBase(Zel::Name attribute) const;
  // The entity in a layer; without a type if there is none.
  Statedb::Record merged(Statedb::Layer layer) const;
};

class Spaces {
 public:
  Layers at(Statedb::Path path) const {
    return {tables_[0].find(path), tables_[1].find(path), tables_[2].find(path)};
  }
  // Whether there ever was a cover.
  bool hasCovers() const { return !tables_[2].empty(); }
  // Visible entities.
  std::size_t count() const { return count_; }
  // The entity in a layer; null if there is none. Valid until it changes.
  const Statedb::Record* find(Statedb::Path path, Statedb::Layer layer);
  // The same as subscribers know it.
  const Statedb::Record* shown(Statedb::Path path, Statedb::Layer layer);

  // Applies a change and appends what subscribers are to be notified of.
  void carry(Statedb::Durability space, const Statedb::Change& change, LayeredChanges& visible);
  // Apply changes that subscribers are not notified of before showAll(), or a change at the same place.
  void hide(Statedb::Durability space, const Statedb::Change& change);
  // Makes the entity of one space at a path the same as `wanted`, where null is none; what is under it stays
  // as it is. What is hidden there stays so, but for an entity whose covers change.
  void renew(Statedb::Durability space, Statedb::Path path, const Statedb::Record* wanted,
             LayeredChanges& visible);
  void renewHidden(Statedb::Durability space, Statedb::Path path, const Statedb::Record* wanted);
  void showUnder(Statedb::Path path, LayeredChanges& visible);
  void showAll(LayeredChanges& visible);

 private:
  using Entities = std::unordered_map<Statedb::Path, Statedb::Record>;
  // An entity as subscribers know it.
  struct Held {
    Statedb::Record base;
    std::optional<Statedb::Record> covered;  // nothing: the same

    const Statedb::Record& of(Statedb::Layer layer) const {
      return layer == Statedb::Layer::effective && covered ? *covered : base;
    }
  };

  RecordTable& in(Statedb::Durability space) { return tables_[static_cast<std::size_t>(space)]; }
  Statedb::Record& make(Statedb::Durability space, Statedb::Path path, Zel::Name type);
  void assign(Statedb::Durability space, const Statedb::Record& wanted);
  void remove(Statedb::Durability space, Statedb::Path path);
  void removeUnder(Statedb::Durability space, Statedb::Path path);
  void put(Statedb::Durability space, const Statedb::Row& row);
  void unset(Statedb::Durability space, Statedb::Path path, Zel::Name attribute);
  void carryValue(Statedb::Durability space, const Statedb::Change& change, LayeredChanges& visible);

  void forgetMerged(Statedb::Path path);
  void hold(Statedb::Path path);
  void show(Statedb::Path path, LayeredChanges& visible);
  void showDifferences(const Held& before, Statedb::Path path, LayeredChanges& visible);
  void showNew(Statedb::Path path, LayeredChanges& visible);
  void showReplaced(Statedb::Path path, LayeredChanges& visible);

  std::array<RecordTable, 3> tables_;  // by Durability
  std::size_t count_ = 0;
  Entities merged_, covered_;  // caches: of stored and volatile rows, and of these with covers
  // Entities of which subscribers were not notified yet.
  std::unordered_map<Statedb::Path, Held> held_;
};

}  // namespace Host::Redis
