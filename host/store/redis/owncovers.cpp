#include "host/store/redis/owncovers.h"

#include "host/store/redis/spaces.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;

Changes OwnCovers::stepsOf(const Changes& changes) {
  Changes steps;
  try {
    for (const Change& each : changes)
      each.kind == Change::Kind::put     ? put(each, steps)
      : each.kind == Change::Kind::unset ? unset(each, steps)
                                         : del(each, steps);
  } catch (...) {
    table_.undoTo(0);
    throw;
  }
  table_.settle();
  return steps;
}

void OwnCovers::put(const Change& change, Changes& steps) {
  const auto& [path, type, attribute, value] = change.row;
  if (attribute.empty()) return;
  const Record* before = table_.at(path);
  if (before && before->type != type) removeAt(path, steps);
  table_.put(change.row);
  steps.push_back(change);
}

void OwnCovers::unset(const Change& change, Changes& steps) {
  const Path path = change.row.path;
  const Record* before = table_.at(path);
  if (!before || !before->find(change.row.attribute)) return;
  if (before->attributes.size() == 1) return removeAt(path, steps);
  table_.remove(path, change.row.attribute);
  steps.push_back(change);
}

void OwnCovers::del(const Change& change, Changes& steps) {
  const auto under = table_.under(change.row.path);
  if (under.empty()) return;
  std::vector<Path> paths;
  for (const Record* each : under) paths.push_back(each->path);
  for (const Path& each : paths) table_.removeAt(each);
  steps.push_back(change);
}

// Removes the covers at a path, not those under it.
void OwnCovers::removeAt(Path path, Changes& steps) {
  table_.removeAt(path);
  steps.push_back(Change::del(path));
  path.forEachUnder([&](Path each) {
    if (const Record* left = table_.at(each)) appendRows(*left, steps);
  });
}

}  // namespace Host::Redis
