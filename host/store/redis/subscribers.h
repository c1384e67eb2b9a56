// The subscribers of a store that is notified of changes, and may not have its rows yet.
//
//     Subscribers subscribers;
//     subscribers.add(path, subscriber);                    // its snapshot is due
//     subscribers.deliverSnapshots(mirror, mayArrive);      // when the rows are there
//     subscribers.notify({changes, revealed, origin});
//     subscribers.deliver();
//
// Activity thread only.
#pragma once

#include <functional>
#include <vector>

#include "host/store/redis/mirror.h"
#include "platform/statedb/store/store.h"

namespace Host::Redis {

class Subscribers {
 public:
  // Changes for all but the origin, and what the origin does not know of its own batch.
  struct Notice {
    LayeredChanges changes{};
    Statedb::Changes revealed{};
    Statedb::Subscriber* origin = nullptr;
  };
  using MayArrive = std::function<bool(Statedb::Path path, const Statedb::Subscriber& subscriber)>;
  using Delivered = std::function<void(Statedb::Path path, const Statedb::Subscriber& subscriber)>;

  // Replaces an earlier subscription of the same subscriber.
  void add(Statedb::Path path, Statedb::Subscriber& subscriber);
  void remove(const Statedb::Subscriber& subscriber);

  void notify(Notice notice);
  // Delivers the notices since the last call, to those who have their snapshot.
  void deliver();
  // Delivers the snapshots that are due and may arrive; calls `delivered` before each.
  void deliverSnapshots(const Mirror& mirror, const MayArrive& mayArrive, const Delivered& delivered);

 private:
  struct Subscription {
    Statedb::Path path;
    Statedb::Subscriber* subscriber;
    bool isDue = true;  // for its snapshot
  };

  void deliver(const Notice& notice);
  bool has(const Statedb::Subscriber& subscriber) const;

  std::vector<Subscription> subscriptions_;
  std::vector<Notice> notices_;
};

}  // namespace Host::Redis
