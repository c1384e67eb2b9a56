#include "host/store/redis/keptrows.h"

#include <algorithm>

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;

namespace {

void appendVolatile(const Record& record, Changes& changes) {
  const auto isVolatile = [](const auto& each) { return each.durability != Durability::stored; };
  if (!record.attributes.empty() && std::ranges::none_of(record.attributes, isVolatile)) return;
  changes.push_back(Change::put(record.path, record.type, {}, {}));
  for (const auto& each : record.attributes)
    if (isVolatile(each)) changes.push_back(Change::put(record.path, record.type, each.name, each.value));
}

}  // namespace

void KeptRows::keep(Path mount, const Mirror& mirror) {
  if (mounts_.contains(mount)) return;
  Changes shown;
  const auto appendAll = [&](const Records& records) {
    for (const Record* record : records) appendVolatile(*record, shown);
  };
  if (space_ == Durability::cover)
    appendAll(mirror.readCovers(mount));
  else
    mirror.withShown(mount, Statedb::Layer::base, appendAll);
  if (!shown.empty()) mounts_[mount].carry(shown);
}

void KeptRows::carry(const Changes& changes) {
  for (auto& [mount, rows] : mounts_)
    Statedb::takePart(changes, mount, [&rows = rows](const Changes& part) { rows.carry(part); });
}

Records KeptRows::at(Path mount) const {
  const auto found = mounts_.find(mount);
  return found == mounts_.end() ? Records() : found->second.all();
}

const Record* KeptRows::over(Path path, const Record* theirs) const {
  const auto isOver = [path](const auto& each) { return path.isUnder(each.first); };
  const auto found = std::ranges::find_if(mounts_, isOver);
  return found == mounts_.end() ? theirs : found->second.find(path);
}

}  // namespace Host::Redis
