// The rows of the stored and the volatile space, and what subscribers are to be notified of when they change.
// Internal to Mirror, whose header states the rules.
//
//     spaces.carry(Durability::volatile_, change, visible);
//     spaces.hide(Durability::volatile_, change);  // subscribers are not notified
//     spaces.showAll(visible);                     // until now
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "host/store/redis/recordtable.h"
#include "platform/statedb/store/row.h"

namespace Host::Redis {

void setIn(Statedb::Record& record, Statedb::Attribute attribute);
void unsetIn(Statedb::Record& record, Zel::Name attribute);
// Appends puts of the entity and its attributes.
void appendRows(const Statedb::Record& record, Statedb::Changes& changes);

// The entities of the two spaces at a path; null for nothing.
struct Layers {
  const Statedb::Record* stored;
  const Statedb::Record* volatile_;

  // The volatile record where it is visible: not under a stored one of another type.
  const Statedb::Record* top() const {
    return stored && volatile_ && stored->type != volatile_->type ? nullptr : volatile_;
  }
  bool isMerged() const { return stored && top(); }
  // Of the visible entity; empty if there is none.
  Zel::Name type() const;
  // The visible value; null if there is none.
  const Zel::Value* find(Zel::Name attribute) const;
  // The visible entity; without a type if there is none.
  Statedb::Record merged() const;
};

class Spaces {
 public:
  Layers at(Statedb::Path path) const { return {stored_.find(path), volatile_.find(path)}; }
  // Visible entities.
  std::size_t count() const { return count_; }
  // The visible entity; null if there is none. Valid until it changes.
  const Statedb::Record* find(Statedb::Path path);
  // The same as subscribers know it.
  const Statedb::Record* shown(Statedb::Path path);

  // Applies a change and appends what subscribers are to be notified of.
  void carry(Statedb::Durability space, const Statedb::Change& change, Statedb::Changes& visible);
  // Apply changes that subscribers are not notified of before showAll(), or a change at the same place.
  void hide(Statedb::Durability space, const Statedb::Change& change);
  // Makes the entity of one space at a path the same as `wanted`, where null is none; what is under it stays
  // as it is. What is hidden there stays so.
  void renew(Statedb::Durability space, Statedb::Path path, const Statedb::Record* wanted,
             Statedb::Changes& visible);
  void renewHidden(Statedb::Durability space, Statedb::Path path, const Statedb::Record* wanted);
  void showUnder(Statedb::Path path, Statedb::Changes& visible);
  void showAll(Statedb::Changes& visible);

 private:
  RecordTable& in(Statedb::Durability space) {
    return space == Statedb::Durability::stored ? stored_ : volatile_;
  }
  Statedb::Record& make(Statedb::Durability space, Statedb::Path path, Zel::Name type);
  void assign(Statedb::Durability space, const Statedb::Record& wanted);
  void remove(Statedb::Durability space, Statedb::Path path);
  void removeUnder(Statedb::Durability space, Statedb::Path path);
  void put(Statedb::Durability space, const Statedb::Row& row);
  void unset(Statedb::Durability space, Statedb::Path path, Zel::Name attribute);
  void carryValue(Statedb::Durability space, const Statedb::Change& change, Statedb::Changes& visible);

  void hold(Statedb::Path path);
  void show(Statedb::Path path, Statedb::Changes& visible);
  void showReplaced(Statedb::Path path, Statedb::Changes& visible);

  RecordTable stored_, volatile_;
  std::size_t count_ = 0;
  std::unordered_map<Statedb::Path, Statedb::Record> merged_;  // a cache of entities that are in both spaces
  // Entities of which subscribers were not notified yet, as they know them.
  std::unordered_map<Statedb::Path, Statedb::Record> held_;
};

}  // namespace Host::Redis
