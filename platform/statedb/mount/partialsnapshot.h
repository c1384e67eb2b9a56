// Applies a snapshot to the entities in parts. Internal to the entity manager.
//
//     PartialSnapshot snapshot(applier, path);
//     snapshot.take(records);                  // as often as parts come
//     while (!snapshot.removeOthers(256)) …    // between which more parts may come
#pragma once

#include <cstddef>
#include <vector>

#include "platform/statedb/mount/rowapplier.h"
#include "platform/statedb/store/pathset.h"

namespace Statedb {

// Leads to the same entities as RowApplier::applySnapshot, but removes those that no part had at the end,
// because they may come until then.
class PartialSnapshot {
 public:
  // `applier` must outlive it. Drops the changes that wait under the path.
  PartialSnapshot(RowApplier& applier, Path path);

  void take(const Records& records);
  // Removes what no part had, looking at so many entities at most. Returns whether it is done. REQUIRES: what
  // the store has was in a part.
  bool removeOthers(std::size_t most);

 private:
  // A collection whose members are looked at.
  struct Level {
    Path above;
    const Zel::AttributeInfo* collection;
    std::vector<Zel::Name> keys;
    std::size_t next = 0;
  };

  void note(Path path);
  void lookAt(Path path);

  RowApplier& applier_;
  const Path top_;
  PathSet had_;    // entities of the parts
  PathSet above_;  // the paths between these and the top
  bool isRemoving_ = false;
  std::vector<Level> levels_;  // the innermost last
};

}  // namespace Statedb
