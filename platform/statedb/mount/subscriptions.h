// The store subscriptions of this process's mounts. Internal to the entity manager.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/statedb/mount/mounttable.h"
#include "platform/statedb/mount/rowapplier.h"
#include "platform/statedb/store/store.h"

namespace Statedb {

// One subscription covers a path and all under it, so that no row arrives twice. Unsubscribes at its end.
class Subscriptions {
 public:
  // Calls `onSnapshot` after applying each snapshot.
  Subscriptions(Store& store, const MountTable& mounts, RowApplier& applier,
                std::function<void()> onSnapshot);
  ~Subscriptions();
  Subscriptions(const Subscriptions&) = delete;
  Subscriptions& operator=(const Subscriptions&) = delete;

  // Subscribes to the mounts' paths that are not covered yet.
  void add(const std::vector<Mount>& mounts);
  // Requests the snapshot that covers a path once more; nothing happens where none does.
  void readAgain(Path path);
  // The subscriber that covers a path; null if none does.
  Subscriber* subscriberOf(Path path) const;
  // Whether the rows under the path have arrived.
  bool haveArrived(Path path) const;

 private:
  class Subscription;

  Subscription* covering(Path path) const;
  void add(Path path);

  Store& store_;
  const MountTable& mounts_;
  RowApplier& applier_;
  const std::function<void()> onSnapshot_;
  std::vector<std::unique_ptr<Subscription>> subscriptions_;
};

}  // namespace Statedb
