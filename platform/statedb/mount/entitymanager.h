// The local copy of the state database: the entities of the mounted paths, kept in step with a store.
//
// Changes that a store tells are applied to the entities that are there. A live entity is never swapped for a
// new one of the same name in one step: where a delete and a re-creation arrive together, the second waits
// until the first was delivered. A row that does not fit its entity is refused and reported, the entity keeps
// its last good value, and the rest goes on.
//
// Values under "wi" mounts that the agents write are published once a pass of the loop, as one batch of what
// changed. Where the store refuses it, what it refuses is found, reported and left out.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/statedb/mount/mount.h"
#include "platform/statedb/store/path.h"
#include "platform/zel/core/export.h"
#include "platform/zel/entity/dir.h"

namespace Statedb {

class Store;

// One a process, shared by the agents in it. Owned by the host, which makes it with Zel::allocate.
class ZEL_API EntityManager : public Zel::Typed<EntityManager, Zel::PtrInterface> {
 public:
  static const Zel::TypeNode& typeNode();

  // `store` must outlive the manager.
  explicit EntityManager(Store& store);
  ~EntityManager() override;

  // The group of that mounter: made where it has none that is open.
  Zel::Ptr<MountGroup> getMountGroup(const Zel::Ptr<Mounter>& mounter);
  // The entity mounted at that path; null where nothing is mounted at exactly that path.
  Zel::Ptr<Zel::Entity> getEntity(Zel::String path) const;

  // The directory at the root of all paths.
  const Zel::Ptr<Zel::Dir>& root() const;
  // For tools: the entity at a path; null where there is none or the path is not one.
  Zel::Ptr<Zel::Entity> entityAt(Path path) const;

  struct MountInfo {
    Path path;
    Zel::Name type;
    std::string mode;  // "wi" where anybody mounted it so
    bool complete = false;
  };
  // In the order of mounting; a path that several agents mounted stands once. Good until the next pass.
  const std::vector<MountInfo>& mounts() const;

  // For the host's end: forgets the groups that are not complete, so that nothing holds their mounters.
  void stop();

  // Hears of every row that was refused ("PATH ATTRIBUTE: reason") and of every group that failed.
  void reportIs(std::function<void(const std::string& text)> report);
  std::uint64_t refusals() const;
  // Rows that were published so far.
  std::uint64_t published() const;

 private:
  friend class MountGroup;
  struct State;

  void close(const Zel::Ptr<MountGroup>& group);

  std::shared_ptr<State> state_;  // shared with nobody; posted tasks find out whether it is still there
};

}  // namespace Statedb
