// What this process has published into a state database that another process keeps, and how far that is known
// there.
//
// State, not a log: however long the other side is away, what is kept is one value for each attribute.
#pragma once

#include <deque>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Host {

class OwnRows {
 public:
  // Takes a batch that was published here.
  void write(const Statedb::Changes& changes);

  // Takes what is known there already of an entity for this process's own, as what a predecessor published;
  // what was written here stands.
  void adopt(const Statedb::Record& record);

  // Whether something is to be sent and nothing is under way.
  bool canSend() const { return !sending_ && !unsent_.empty(); }
  // What the other side does not know yet, as one batch; it is under way until acknowledged or lost. Removals
  // come before what was made again in their place.
  Statedb::Changes send();
  // The other side has taken, or has refused for good, what was under way.
  void acknowledged();
  // The connection is gone, and with it what the other side knew: everything is to be sent again.
  void lost();

  // A snapshot of the other side as it will be when it knows everything: with what was published here put
  // over it. Sorted as a person reads it; good until either changes.
  Statedb::Records over(const Statedb::Records& snapshot, Statedb::Path path);
  // What another process changed there, less what will be overwritten from here. What is left is taken note
  // of.
  Statedb::Changes told(const Statedb::Changes& changes);
  // What is seen there since the other side carried out removals that are under way from here, less what will
  // be overwritten.
  Statedb::Changes revealed(const Statedb::Changes& changes) const;

 private:
  // Steps that the other side does not know: entities that were removed, and attributes (the empty one: that
  // the entity is there) that were set, or unset where the entity has none of that name.
  struct Unknown {
    std::set<Statedb::Path> removed;
    std::set<std::pair<Statedb::Path, Zel::Name>> set;

    bool empty() const { return removed.empty() && set.empty(); }
    // Whether the path or something above it was removed.
    bool covers(Statedb::Path path) const;
    bool touches(const Statedb::Change& change) const;
  };

  void put(const Statedb::Row& row, Unknown* note);
  void unset(Statedb::Path path, Zel::Name attribute);
  const Statedb::Record* withoutUnset(const Statedb::Record* record);
  bool anyUnknown(Statedb::Path path) const;
  bool takeNote(const Statedb::Change& change);
  void sendAgain(Statedb::Path path);
  // Forgets the entities at and under a path.
  void forget(Statedb::Path path);
  bool isRemoved(Statedb::Path path) const { return unsent_.covers(path) || underWay_.covers(path); }

  std::unordered_map<Statedb::Path, Statedb::Record> entities_;  // as they stand here
  Unknown unsent_;
  Unknown underWay_;
  std::deque<Statedb::Record> merged_;  // what `over` made
  bool sending_ = false;
};

}  // namespace Host
