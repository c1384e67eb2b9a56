// The local copy of the state database: the entities of the mounted paths, synchronized with a store's rows.
//
//     void doInit() override {
//       const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
//       group->doMount({"hardware/led/config", "Hardware::Led::LedSystemConfigDir", "r"});
//       group->doClose(false, "", 0.0);  // doMountsComplete(status, manager) follows in a later pass
//     }
//
// The store's changes are applied to the entities. A live entity is never replaced by another of its name in
// one step: if a delete and a re-creation arrive together, the second waits until reactors were notified of
// the first. A row that does not fit its entity is refused and logged; the entity keeps its last good value.
//
// What the agents write under "wi" mounts is published once a pass of the loop, as one batch. If the store
// refuses the batch, the rows at fault are found, logged and left out. Under "c" mounts they put covers over
// what others write.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/statedb/mount/covers.h"
#include "platform/statedb/mount/mount.h"
#include "platform/statedb/store/path.h"
#include "platform/zel/core/export.h"
#include "platform/zel/entity/dir.h"

namespace Statedb {

class Mounts;
class Store;

// One a process, shared by the agents in it. Owned by the host, which makes it with Zel::allocate.
class ZEL_API EntityManager : public Zel::Typed<EntityManager, Zel::PtrInterface> {
 public:
  static const Zel::TypeNode& typeNode();

  // `store` must outlive the manager.
  explicit EntityManager(Store& store);
  ~EntityManager() override;

  // The mounter's open group; makes one if it has none.
  Zel::Ptr<MountGroup> getMountGroup(const Zel::Ptr<Mounter>& mounter);
  // The entity mounted at exactly that path; null if there is none.
  Zel::Ptr<Zel::Entity> getEntity(Zel::String path) const;

  // The covers of this process's agents under "c" mounts. As long as the manager.
  Covers& covers() const;

  // The directory at the root of all paths.
  const Zel::Ptr<Zel::Dir>& root() const;
  // For tools: the entity at a path; null if there is none or the path is not valid.
  Zel::Ptr<Zel::Entity> entityAt(Path path) const;

  // Of the members of all collections of the entity at a path; none if there is no entity.
  std::vector<Path> membersOf(Path path) const;
  // Sets an attribute of the entity at a path in this process alone: nothing is published, and the next
  // snapshot reverts it. For what is shown while the store can't be reached. Returns false if there is no
  // entity; throws ValueError if the attribute does not take the value.
  bool showLocally(Path path, Zel::Name attribute, const Zel::Value& value);
  // Requests the snapshot of what is mounted at or above a path once more, which reverts what is shown there.
  // For a store that notifies of differences alone when it is reached again.
  void readAgain(Path path);

  struct MountInfo {
    Path path;
    Zel::Name type;
    std::string mode;  // not "r" if any agent mounted it otherwise
    bool complete = false;
  };
  // In the order of mounting, each path once. Valid until the next pass.
  const std::vector<MountInfo>& mounts() const;

  // For the host's shutdown: drops the incomplete groups, and their references to mounters.
  void stop();

  // Called with every row that is refused ("PATH ATTRIBUTE: reason") and every mount that fails.
  void reportIs(std::function<void(const std::string& text)> report);
  std::uint64_t refusals() const;
  // Rows published so far.
  std::uint64_t published() const;

 private:
  friend class MountGroup;

  void close(const Zel::Ptr<MountGroup>& group);

  std::shared_ptr<Mounts> mounts_;  // shared: its posted tasks hold weak pointers
};

}  // namespace Statedb
