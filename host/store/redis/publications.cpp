#include "host/store/redis/publications.h"

#include <algorithm>
#include <utility>

#include "platform/zel/core/assert.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;

Publications::Publications() { groups_.push_back({.mount = {}, .isOfMount = false}); }

void Publications::mountsAre(const std::vector<Path>& mounts) {
  std::erase_if(groups_, [&](const Group& each) {
    return each.isOfMount && std::ranges::find(mounts, each.mount) == mounts.end();
  });
  for (const Path& mount : mounts)
    if (!find(mount)) groups_.push_back({.mount = mount});
}

const Publications::Group* Publications::find(Path mount) const {
  const auto found =
      std::ranges::find_if(groups_, [&](const Group& each) { return each.isOfMount && each.mount == mount; });
  return found == groups_.end() ? nullptr : &*found;
}

// The empty path is also that of the rows outside every mount.
Publications::Group& Publications::at(Path mount) {
  const Group* found = find(mount);
  ZEL_REQUIRE(found || mount.empty(), mount);
  return found ? const_cast<Group&>(*found) : groups_.front();
}

Publications::Group& Publications::groupOf(Path path) {
  for (Group& each : groups_)
    if (each.isOfMount && path.isUnder(each.mount)) return each;
  return groups_.front();
}

bool Publications::isStandby(Path path) const {
  return std::ranges::any_of(groups_, [&](const Group& each) {
    return !each.isShown() && (path.isUnder(each.mount) || each.mount.isUnder(path));
  });
}

// A del above mounts concerns each of them.
template <class Take>
void Publications::forParts(const Changes& changes, Take&& take) {
  for (Group& group : groups_) {
    if (group.isOfMount) {
      takePart(changes, group.mount, [&](const Changes& part) { take(group, part); });
      continue;
    }
    Changes outside;
    for (const Change& change : changes)
      if (&groupOf(change.row.path) == &group) outside.push_back(change);
    if (!outside.empty()) take(group, std::as_const(outside));
  }
}

Changes Publications::write(const Changes& changes) {
  Changes shown;
  forParts(changes, [&](Group& group, const Changes& part) {
    group.rows.write(part);
    if (group.isShown()) shown.insert(shown.end(), part.begin(), part.end());
  });
  return shown;
}

Changes Publications::received(const Changes& changes) {
  Changes accepted;
  forParts(changes, [&](Group& group, const Changes& part) {
    const Changes taken = !group.isShown()  ? part
                          : group.isOfMount ? group.rows.receivedFromAnother(part)
                                            : group.rows.received(part);
    accepted.insert(accepted.end(), taken.begin(), taken.end());
  });
  return accepted;
}

const Record* Publications::over(Path path, const Record* theirs) {
  Group& group = groupOf(path);
  return group.isShown() ? group.rows.over(path, theirs) : theirs;
}

void Publications::owned(Path mount, const Rows& theirs, const Records& shown) {
  Group& group = at(mount);
  if (std::exchange(group.isOwned, true)) return;
  if (group.isDelivered) {
    group.rows.lost();
    group.rows.compare(theirs.under(mount), true);
  } else {
    group.rows.forgetAdopted();
    for (const Record* record : shown) group.rows.adopt(*record);
  }
}

void Publications::published(Path mount, const Rows& theirs) {
  Group& group = at(mount);
  group.rows.keepAdopted();
  group.rows.lost();
  group.rows.compare(theirs.under(mount), false);
}

void Publications::delivered(Path mount) { at(mount).isDelivered = true; }

void Publications::compare(const Rows& theirs) {
  for (Group& group : groups_) {
    group.isUnderWay = false;
    group.rows.lost();
    const bool replaces = group.isOwned && group.isDelivered;
    if (!group.isShown() || (group.rows.empty() && !replaces)) continue;
    Records records = theirs.under(group.mount);
    std::erase_if(records, [&](const Record* each) { return &groupOf(each->path) != &group; });
    group.rows.compare(records, replaces);
  }
}

std::vector<Publications::Batch> Publications::take(const std::function<bool(Path)>& maySend) {
  std::vector<Batch> batches;
  for (Group& group : groups_) {
    if (!group.isShown() || group.isUnderWay || !group.rows.canSend()) continue;
    if (group.isOfMount && !maySend(group.mount)) continue;
    group.isUnderWay = true;
    batches.push_back({group.mount, group.isOfMount, group.rows.send()});
  }
  return batches;
}

void Publications::answered(Path mount) {
  Group& group = at(mount);
  if (std::exchange(group.isUnderWay, false)) group.rows.acknowledged();
}

void Publications::refused(Path mount, const Change& change) { at(mount).rows.refused(change); }

void Publications::postponed(Path mount) {
  Group& group = at(mount);
  if (std::exchange(group.isUnderWay, false)) group.rows.postponed();
}

bool Publications::isSent(Path mount) const {
  const Group* group = find(mount);
  return group && !group->isUnderWay && !group->rows.canSend();
}

}  // namespace Host::Redis
