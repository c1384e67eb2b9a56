#include "platform/statedb/mount/partialsnapshot.h"

#include <utility>

#include "platform/statedb/store/schema.h"

namespace Statedb {

PartialSnapshot::PartialSnapshot(RowApplier& applier, Path path) : applier_(applier), top_(path) {
  applier_.forget(top_);
  above_.insert(top_);
}

void PartialSnapshot::take(const Records& records) {
  for (const Record* record : records) {
    note(record->path);
    applier_.renew(*record);
  }
}

void PartialSnapshot::note(Path path) {
  had_.insert(path);
  while (path != top_) {
    path = path.parent();
    if (!above_.insert(path)) break;
  }
}

bool PartialSnapshot::removeOthers(std::size_t most) {
  if (!std::exchange(isRemoving_, true)) lookAt(top_);
  for (; most > 0 && !levels_.empty(); --most) {
    Level& level = levels_.back();
    if (level.next == level.keys.size()) {
      levels_.pop_back();
      continue;
    }
    const Path member = memberPath(level.above, *level.collection, level.keys[level.next++]);
    if (had_.contains(member) || above_.contains(member))
      lookAt(member);
    else
      applier_.remove(member);
  }
  return levels_.empty();
}

// An entity that is only above others has no values in the store.
void PartialSnapshot::lookAt(Path path) {
  const auto entity = applier_.entityAt(path);
  if (!entity) return;
  if (!had_.contains(path)) RowApplier::resetAbsent(*entity, nullptr);
  for (const Zel::AttributeInfo* attribute : entity->fwkType().storedAttributes())
    if (attribute->kind == Zel::Kind::collection)
      levels_.push_back({path, attribute, attribute->keys(*entity)});
}

}  // namespace Statedb
