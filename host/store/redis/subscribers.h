// The subscribers of a store that is notified of changes, and may not have its rows yet.
//
//     Subscribers subscribers(mirror, {});
//     subscribers.add(path, subscriber);  // its snapshot is due
//     // When the rows are there, in each round of the loop:
//     const bool hasMore = subscribers.deliverSnapshots(mayArrive, delivered);
//     subscribers.notify({changes, revealed, origin});
//     subscribers.deliver();
//
// A snapshot is delivered at once if it is small or its subscriber takes it in one call only, else in parts.
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "host/store/redis/mirror.h"
#include "host/store/redis/snapshotcursor.h"
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
  // A round of the loop delivers parts of so many paths, until so much time has passed.
  struct Portion {
    std::size_t paths = 256;
    std::uint64_t nanoseconds = 1'000'000;
  };
  using MayArrive = std::function<bool(Statedb::Path path, const Statedb::Subscriber& subscriber)>;
  using Delivered = std::function<void(Statedb::Path path, const Statedb::Subscriber& subscriber)>;

  // `mirror` must outlive it.
  Subscribers(const Mirror& mirror, Portion portion) : mirror_(mirror), portion_(portion) {}

  // Replaces an earlier subscription of the same subscriber.
  void add(Statedb::Path path, Statedb::Subscriber& subscriber);
  void remove(const Statedb::Subscriber& subscriber);

  void notify(Notice notice);
  // Delivers the notices since the last call, to those who have their snapshot, or the part that is
  // concerned.
  void deliver();
  // Delivers a portion of the snapshots that are due and may arrive, after the notices before them; calls
  // `delivered` with each one that is complete, before what comes in one call. Returns whether there is more.
  bool deliverSnapshots(const MayArrive& mayArrive, const Delivered& delivered);

 private:
  struct Subscription {
    Statedb::Path path;
    Statedb::Subscriber* subscriber;
    bool isDue = true;                       // for its snapshot
    std::optional<SnapshotCursor> cursor{};  // while that is delivered in parts
  };
  using Subscriptions = std::vector<std::shared_ptr<Subscription>>;

  static void deliver(const Notice& notice, Subscription& to);
  void deliver(const Notice& notice);
  Subscriptions::const_iterator nextDue(const MayArrive& mayArrive) const;
  void deliverPart(Subscription& to, const Delivered& delivered);
  void begin(Subscription& to, const Delivered& delivered);
  void proceed(Subscription& to, const Delivered& delivered);
  void deliverWhole(Subscription& to, const Delivered& delivered);
  bool has(const Subscription& subscription) const;

  const Mirror& mirror_;
  const Portion portion_;
  Subscriptions subscriptions_;
  std::vector<Notice> notices_;
};

}  // namespace Host::Redis
