// A subscriber's way through a snapshot that it gets in parts, while the rows change.
//
//     SnapshotCursor cursor(mirror, path, layer);
//     for (Records records; !cursor.isDone(); records.clear()) {
//       cursor.proceed(256, records);   // a part
//       … notify(cursor.reached(changes));
//     }
//
// The subscriber has, of the entities that were in a part, what the mirror shows, and of the others nothing
// new. An entity that appears where the walk has been is in a later part, but not before the one above it.
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <set>

#include "host/store/redis/mirror.h"
#include "platform/statedb/store/pathset.h"

namespace Host::Redis {

class SnapshotCursor {
 public:
  // At and under a path. `mirror` must outlive it.
  SnapshotCursor(const Mirror& mirror, Statedb::Path top, Statedb::Layer layer)
      : mirror_(mirror), top_(top), layer_(layer), at_(top) {}

  // Appends a part, of so many paths at most. Valid until the mirror changes. REQUIRES: reached() or wrote()
  // had what was shown before.
  void proceed(std::size_t paths, Statedb::Records& records);
  // Whether everything that is shown was in a part.
  bool isDone() const { return hasWalked_ && late_.empty(); }

  // Of changes that are shown now, those that the subscriber is to be notified of.
  Statedb::Changes reached(const Statedb::Changes& changes);
  // The subscriber's own changes are shown now.
  void wrote(const Statedb::Changes& changes) { reached(changes); }

 private:
  void proceedLate(std::size_t& paths, Statedb::Records& records);
  bool isUnderOther(Statedb::Path path) const;
  void take(Statedb::Path path, Statedb::Records& records);

  const Mirror& mirror_;
  const Statedb::Path top_;
  const Statedb::Layer layer_;
  Statedb::Path at_;  // the next one of the walk
  bool hasWalked_ = false;
  Statedb::PathSet had_;          // in a part
  std::set<Statedb::Path> late_;  // of entities that have appeared, and were in no part
};

}  // namespace Host::Redis
