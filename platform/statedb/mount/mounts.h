// Mount groups from their opening to their completion, and what they share. Internal to the entity manager.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "platform/statedb/mount/covers.h"
#include "platform/statedb/mount/entitytree.h"
#include "platform/statedb/mount/mounttable.h"
#include "platform/statedb/mount/publisher.h"
#include "platform/statedb/mount/refusals.h"
#include "platform/statedb/mount/rowapplier.h"
#include "platform/statedb/mount/subscriptions.h"
#include "platform/zel/notify/activity.h"

namespace Statedb {

// A closed group subscribes in the next pass and completes once the rows of all its mounts have been applied.
// Groups complete in the order in which they were closed.
//
// Held by a shared pointer, so that a running task keeps it alive.
class Mounts : public Zel::PassEnd, public std::enable_shared_from_this<Mounts> {
 public:
  explicit Mounts(Store& store);
  ~Mounts() override;

  // The open group of that mounter; null after it was closed.
  Zel::Ptr<MountGroup>& openGroup(const Mounter* mounter) { return open_[mounter]; }
  void close(const Zel::Ptr<MountGroup>& group);
  // Drops the groups that are not complete.
  void stop();

  EntityTree& tree() { return tree_; }
  const MountTable& table() const { return table_; }
  Publishers& publishers() { return publishers_; }
  Covers& covers() { return covers_; }
  RowApplier& applier() { return applier_; }
  void readAgain(Path path) { subscriptions_.readAgain(path); }
  Refusals& refusals() { return refusals_; }

  // Publishes what the agents wrote, then applies the changes that waited for deliveries.
  void onPassEnd() override;

 private:
  template <class Task>
  void post(Task task);
  void mount(const Zel::Ptr<MountGroup>& group);
  void completeLater();
  void complete();
  bool isReady(const MountGroup& group) const;
  void finish(MountGroup& group);
  void finish(const Mount& mount);
  void checkMode(const Mount& mount) const;
  void checkRefused(Path path, Zel::Name asked) const;

  Store& store_;
  Refusals refusals_;
  EntityTree tree_;
  MountTable table_;
  Publishers publishers_;
  Covers covers_;
  RowApplier applier_;
  std::map<const Mounter*, Zel::Ptr<MountGroup>> open_;
  std::vector<Zel::Ptr<MountGroup>> closed_;  // but not complete
  Subscriptions subscriptions_;
};

}  // namespace Statedb
