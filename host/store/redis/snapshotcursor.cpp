#include "host/store/redis/snapshotcursor.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;

void SnapshotCursor::proceed(std::size_t paths, Records& records) {
  proceedLate(paths, records);
  for (; paths > 0 && !hasWalked_; --paths) {
    take(at_, records);
    at_ = at_.nextUnder(top_);
    hasWalked_ = at_.empty();
  }
}

// The outermost first. An entity under one that was in no part is left to the walk, which comes to both.
void SnapshotCursor::proceedLate(std::size_t& paths, Records& records) {
  for (; paths > 0 && !late_.empty(); --paths) {
    const Path path = late_.extract(late_.begin()).value();
    if (!isUnderOther(path)) take(path, records);
  }
}

bool SnapshotCursor::isUnderOther(Path path) const {
  while (path != top_) {
    path = path.parent();
    if (!had_.contains(path) && mirror_.shown(path, layer_)) return true;
  }
  return false;
}

void SnapshotCursor::take(Path path, Records& records) {
  const Record* record = mirror_.shown(path, layer_);
  if (record && had_.insert(path)) records.push_back(record);
}

Changes SnapshotCursor::reached(const Changes& changes) {
  Changes reached;
  for (const Change& each : changes)
    if (each.kind == Change::Kind::del || had_.contains(each.row.path))
      reached.push_back(each);
    else if (each.kind == Change::Kind::put && each.row.attribute.empty())
      late_.insert(each.row.path);
  return reached;
}

}  // namespace Host::Redis
