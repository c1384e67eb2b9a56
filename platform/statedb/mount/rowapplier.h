// Applies a store's rows to the entities. Internal to the entity manager.
#pragma once

#include <deque>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/statedb/mount/entitytree.h"
#include "platform/statedb/mount/mounttable.h"
#include "platform/statedb/mount/publisher.h"
#include "platform/statedb/mount/refusals.h"
#include "platform/statedb/store/row.h"

namespace Statedb {

// Refuses and logs a row that does not fit, and applies the others. A put under a path that was removed in
// this pass waits until reactors were notified of the removal. Later changes wait behind it, to keep the
// order.
class RowApplier {
 public:
  RowApplier(EntityTree& tree, const MountTable& mounts, Publishers& publishers, Refusals& refusals)
      : tree_(tree), mounts_(mounts), publishers_(publishers), refusals_(refusals) {}

  void apply(const Changes& changes);
  // Makes everything under `path` equal to the records: removes what they lack first, leaves equal values
  // alone.
  void applySnapshot(Path path, const Records& records);

  // Steps of a snapshot in parts (partialsnapshot.h). Drops the changes that wait at and under a path, and
  // what was refused there.
  void forget(Path path);
  // Makes an entity equal to its record, and leaves what is under it alone.
  void renew(const Record& record);
  // Resets the attributes that the record lacks; all of them where it is null.
  static void resetAbsent(Zel::Entity& entity, const Record* record);
  // Removes an entity, but only clears a mounted one or one above a mount.
  void remove(Path path);
  // Null if there is no entity.
  Zel::Ptr<Zel::Entity> entityAt(Path path) const { return tree_.entityAt(path); }

  // Call after reactors were notified of this pass's removals: applies the changes that waited for them.
  void removalsDelivered();
  bool isWaiting() const { return !queue_.empty(); }
  // Drops, of the changes that wait, those that agents have overtaken: with these, which are about to be
  // published.
  void overtake(const Changes& published);

  // The paths of the members of the entity at a path; none if there is no entity.
  std::vector<Path> membersOf(Path path) const;
  // Sets an attribute here without publishing it. Returns false if there is no entity at the path; throws
  // ValueError if the attribute does not take the value.
  bool show(Path path, Zel::Name attribute, const Zel::Value& value);

  // The entity at a path, made if it is missing, as are those above it. Throws ValueError.
  Zel::Ptr<Zel::Entity> ensure(Path path, Zel::Name type);

  // An entity of the store that could not be made here.
  struct Refused {
    Path path;
    Zel::Name type;
    std::string why;
  };
  // The innermost one at the path or above it; null if there is none.
  const Refused* refusedAtOrAbove(Path path) const;

 private:
  // The records of a snapshot by path, and null for each path above one.
  using Present = std::unordered_map<Path, const Record*>;

  bool waitsForDelivery(Path path) const;
  bool mustWait(const Change& change) const;
  void applyWaiting();
  void apply(std::span<const Change> rows);
  void put(std::span<const Change> rows);
  bool put(const Row& row, Zel::Entity& entity);
  void put(const Record& record);
  void putLater(const Record& record);
  void putAttributes(const Record& record, Zel::Entity& entity);
  void refuse(const Row& row, const std::string& why);
  void refuseAll(const Record& record, const std::string& why);
  void unset(const Row& row);
  void forgetRefused(const Path& path);
  void clear(Zel::Entity& entity, Path path);
  void removeAbsent(Zel::Entity& entity, Path path, const Present& present);
  Zel::Ptr<Zel::Entity> make(const Found& at, Zel::Name type);
  Zel::Name typeOnTheWay(Path path) const;
  Zel::Ptr<Zel::Entity> ensureOfType(Path path, Zel::Name type);
  void noteValues(const Zel::Ptr<Zel::Entity>& entity, Path path);

  EntityTree& tree_;
  const MountTable& mounts_;
  Publishers& publishers_;
  Refusals& refusals_;
  std::deque<Change> queue_;          // waiting
  std::unordered_set<Path> removed_;  // in this pass
  std::unordered_map<Path, Refused> refusedEntities_;
};

}  // namespace Statedb
