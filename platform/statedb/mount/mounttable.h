// The mounts of this process's agents. Internal to the entity manager.
#pragma once

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/mount/mount.h"
#include "platform/zel/core/assert.h"

namespace Statedb {

class MountTable {
 public:
  using Info = EntityManager::MountInfo;

  // In the order of mounting, each path once.
  const std::vector<Info>& all() const { return mounts_; }

  // A path that is mounted again keeps its type, and its mode unless that is "r".
  void add(const Mount& mount) {
    const Path path(mount.path().view());
    const auto known = find(path);
    if (known == mounts_.end())
      mounts_.push_back({path, mount.typeName(), mount.mode().stdString(), false});
    else if (known->mode == "r")
      known->mode = mount.mode().stdString();
  }
  // REQUIRES: the path was added.
  void complete(Path path, const Zel::Ptr<Zel::Entity>& entity) {
    ZEL_REQUIRE(find(path) != mounts_.end(), path);
    find(path)->complete = true;
    entities_[path] = entity;
  }

  // The entity of a complete mount at exactly that path; null if there is none.
  Zel::Ptr<Zel::Entity> entityAt(Path path) const {
    const auto found = entities_.find(path);
    return found == entities_.end() ? nullptr : found->second;
  }
  // The type that is mounted at exactly that path; empty if none is.
  Zel::Name typeAt(Path path) const {
    const auto found = std::ranges::find(mounts_, path, &Info::path);
    return found == mounts_.end() ? Zel::Name() : found->type;
  }
  bool isAtOrUnder(Path path) const {
    return std::ranges::any_of(mounts_, [&](const Info& mount) { return mount.path.isUnder(path); });
  }
  // Whether an agent publishes at the path: it is a mount for that, or under one.
  bool publishes(Path path) const { return isUnderMode(&Mount::publishes, path); }
  // Whether the path is a "c" mount, or under one.
  bool covers(Path path) const { return isUnderMode(&isCovering, path); }
  // A mount that this one can't be beside: one of them publishes, the other one covers. Null if there is
  // none.
  const Info* conflictOf(const Mount& mount) const {
    const bool publishes = Mount::publishes(mount.mode().view());
    const bool covers = isCovering(mount.mode().view());
    const Path path(mount.path().view());
    const auto found = std::ranges::find_if(mounts_, [&](const Info& each) {
      return ((publishes && isCovering(each.mode)) || (covers && Mount::publishes(each.mode))) &&
             (each.path.isUnder(path) || path.isUnder(each.path));
    });
    return found == mounts_.end() ? nullptr : &*found;
  }

 private:
  using IsMode = bool (*)(std::string_view mode);
  static bool isCovering(std::string_view mode) { return mode == "c"; }
  bool isUnderMode(IsMode isMode, Path path) const {
    return std::ranges::any_of(
        mounts_, [&](const Info& mount) { return isMode(mount.mode) && path.isUnder(mount.path); });
  }
  std::vector<Info>::iterator find(Path path) { return std::ranges::find(mounts_, path, &Info::path); }

  std::vector<Info> mounts_;
  std::unordered_map<Path, Zel::Ptr<Zel::Entity>> entities_;
};

}  // namespace Statedb
