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

  // A path that is mounted again keeps its type, and becomes "wi" if the new mount is.
  void add(const Mount& mount) {
    const Path path(mount.path().view());
    const auto known = find(path);
    if (known == mounts_.end())
      mounts_.push_back({path, mount.typeName(), mount.mode().stdString(), false});
    else if (mount.mode() == "wi")
      known->mode = "wi";
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
  // Whether the path is a "wi" mount, or under one.
  bool publishes(Path path) const {
    return std::ranges::any_of(
        mounts_, [&](const Info& mount) { return mount.mode == "wi" && path.isUnder(mount.path); });
  }

 private:
  std::vector<Info>::iterator find(Path path) { return std::ranges::find(mounts_, path, &Info::path); }

  std::vector<Info> mounts_;
  std::unordered_map<Path, Zel::Ptr<Zel::Entity>> entities_;
};

}  // namespace Statedb
