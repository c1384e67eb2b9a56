// The rows that this process has published into a state database of another process, and which of them that
// process has.
//
// State, not a log: however long the other side is away, one value is kept for each attribute.
#pragma once

#include <deque>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Host {

class PublishedRows {
 public:
  // Takes a batch that was published here.
  void write(const Statedb::Changes& changes);

  // Adopts an entity that the other side has already, published by an earlier instance; local writes win.
  void adopt(const Statedb::Record& record);
  // From now on what was adopted counts as written here.
  void keepAdopted() { adopted_ = {}; }
  void forgetAdopted() { forgetAdopted({}); }

  // Whether nothing is published.
  bool empty() const { return entities_.empty(); }
  // Whether something is to be sent and nothing is under way.
  bool canSend() const { return !sending_ && (!unsent_.empty() || (isAllUnsent_ && !empty())); }
  // The changes that the other side does not have, as one batch, under way until acknowledged or lost.
  // Removals precede the puts that replace them.
  Statedb::Changes send();
  // The other side has answered for all of the batch that was under way.
  void acknowledged();
  // The other side refused a change of that batch, and would again: drops the value, or the entity where it
  // was refused altogether, unless it was written again since.
  void refused(const Statedb::Change& change);
  // The other side did not take that batch, and may later: it counts as unsent.
  void postponed();
  // The connection is lost, and the other side drops this process's rows: send everything again.
  void lost();
  // After lost(): the other side has these rows, so that only what differs is sent. `replaces`: rows that are
  // not published here are removed there.
  void compare(const Statedb::Records& theirs, bool replaces);

  // A snapshot of the other side with the rows published here over it. Sorted as a person reads it; valid
  // until either changes.
  Statedb::Records over(const Statedb::Records& snapshot, Statedb::Path path);
  // The same for the entity at a path, where null is none; valid until the next call.
  const Statedb::Record* over(Statedb::Path path, const Statedb::Record* theirs);
  // The changes of another process, less those that will be overwritten from here; notes the rest. A del is
  // followed by the rows that are sent again because of it: what others wrote there is gone.
  Statedb::Changes received(const Statedb::Changes& changes);
  // The same for rows with one publisher at a time: the changes of a predecessor, which come late, or of a
  // successor that this process does not know of yet. They change what was adopted, and nothing that was
  // written here, because this process publishes that again when it is the publisher again. What another
  // removed because this process was silent is sent again at once: it may be the publisher still.
  Statedb::Changes receivedFromAnother(const Statedb::Changes& changes);
  // The values that became visible when the other side carried out removals of this process, less those that
  // will be overwritten.
  Statedb::Changes revealed(const Statedb::Changes& changes);

 private:
  // Steps that the other side does not have: entities that were removed, and attributes (the empty one: that
  // the entity is there) that were set, or unset where the entity has none of that name.
  using Places = std::set<std::pair<Statedb::Path, Zel::Name>>;
  struct Unknown {
    std::set<Statedb::Path> removed;
    Places set;

    bool empty() const { return removed.empty() && set.empty(); }
    // Whether the path or something above it was removed.
    bool covers(Statedb::Path path) const;
    bool touches(const Statedb::Change& change) const;
    // Leaves out what was set at the path.
    void forget(Statedb::Path path) { erase(set, path); }
  };

  void put(const Statedb::Row& row, Unknown* note);
  void unset(Statedb::Path path, Zel::Name attribute);
  void remove(Statedb::Path path);
  const Statedb::Record* merged(const Statedb::Record* theirs, const Statedb::Record* own);
  const Statedb::Record* withoutUnset(const Statedb::Record* record);
  bool anyUnknown(Statedb::Path path) const;
  static void erase(Places& places, Statedb::Path path);
  bool takeNote(const Statedb::Change& change);
  bool takeNoteOfAnother(const Statedb::Change& change);
  void carry(const Statedb::Change& change);
  Statedb::Changes received(const Statedb::Changes& changes,
                            bool (PublishedRows::*isLetThrough)(const Statedb::Change& change));
  void forgetAdopted(Statedb::Path under);
  void sendAgain(Statedb::Path path);
  void sendAll();
  void compare(const Statedb::Record* theirs, const Statedb::Record& own, bool replaces);
  // Forgets the entities at and under a path.
  void forget(Statedb::Path path);
  // Appends puts of the entities at and under a path.
  void appendRows(Statedb::Path under, Statedb::Changes& changes) const;
  bool isRemoved(Statedb::Path path) const { return unsent_.covers(path) || underWay_.covers(path); }

  std::unordered_map<Statedb::Path, Statedb::Record> entities_;  // as they stand here
  Unknown unsent_;
  Unknown underWay_;
  Places adopted_;  // and not written here since; the empty attribute: no other of the entity was either
  std::deque<Statedb::Record> merged_;  // what `over` made
  bool sending_ = false;
  bool isAllUnsent_ = false;  // and not noted in unsent_ yet: compare() mostly finds that it is there
};

}  // namespace Host
