// The volatile rows that this process publishes, mount by mount, and which of them the server has.
//
//     Publications publications;
//     publications.mountsAre({"hardware/corvel/gpio/config"});
//     mirror.carry(Durability::volatile_, publications.write(changes), visible);
//     publications.owned(mount, upstream.rows(Durability::volatile_), shown);
//     for (Publications::Batch& batch : publications.take()) send(batch);
//
// Under a mount that another process holds, writes are kept and neither shown nor sent: that process's rows
// are shown. When this process takes the mount over, what differs from its own rows is sent.
//
// State, not a log: however long the server is away, one value is kept for each attribute.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "host/store/publishedrows.h"
#include "host/store/redis/rows.h"

namespace Host::Redis {

class Publications {
 public:
  // Rows under one mount, or with the empty path those outside every mount.
  struct Batch {
    Statedb::Path mount;
    bool isOfMount = false;
    Statedb::Changes changes{};
  };

  Publications();

  // The mounts that this process publishes; no one is above another. Rows under a mount that is no longer
  // among them are forgotten.
  void mountsAre(const std::vector<Statedb::Path>& mounts);
  bool isMount(Statedb::Path path) const { return find(path) != nullptr; }
  // Whether another process holds a mount of this process that is at, above or under a path.
  bool isStandby(Statedb::Path path) const;

  // Takes what was published here, and returns what of it is to be shown.
  Statedb::Changes write(const Statedb::Changes& changes);
  // The changes of the volatile log, less those that will be overwritten from here.
  Statedb::Changes received(const Statedb::Changes& changes);
  // The server's entity at a path, or null, with what is published here over it; null for none. Valid until
  // either changes, and until the next call.
  const Statedb::Record* over(Statedb::Path path, const Statedb::Record* theirs);

  // This process holds the mount now. `theirs` are the server's volatile rows, and `shown` those that are
  // shown under the mount, which the server may have lost: these are adopted until delivered(), and
  // afterwards replaced. What is adopted is sent by published() only, because this process may have missed
  // newer values that others saw, and its agent is about to write its own.
  void owned(Statedb::Path mount, const Rows& theirs, const Statedb::Records& shown);
  // The agent had the time to write everything: the rest of what was adopted is sent, where the server's rows
  // differ.
  void published(Statedb::Path mount, const Rows& theirs);
  void notOwned(Statedb::Path mount) { at(mount).isOwned = false; }
  // The agent of the mount got its snapshot: from now on what it writes is all that stands there.
  void delivered(Statedb::Path mount);
  bool isDelivered(Statedb::Path mount) { return at(mount).isDelivered; }
  // The server is reached again, with these rows: only what differs is sent.
  void compare(const Rows& theirs);

  // The changes to send, at most one batch of each mount at a time: a mount's next batch comes after
  // answered().
  // Takes nothing of a mount that `maySend` does not allow.
  std::vector<Batch> take(const std::function<bool(Statedb::Path mount)>& maySend);
  void answered(Statedb::Path mount);
  // The server refused a change of the batch under way, and would again.
  void refused(Statedb::Path mount, const Statedb::Change& change);
  // The server did not take the batch under way, and may later.
  void postponed(Statedb::Path mount);
  // Whether the server has everything of a mount.
  bool isSent(Statedb::Path mount) const;

 private:
  struct Group {
    Statedb::Path mount;
    bool isOfMount = true;
    bool isOwned = false;
    bool isDelivered = false;
    bool isUnderWay = false;
    PublishedRows rows{};

    bool isShown() const { return !isOfMount || isOwned; }
  };

  const Group* find(Statedb::Path mount) const;
  Group& at(Statedb::Path mount);
  Group& groupOf(Statedb::Path path);
  // Calls `take` with each group that changes concern, and its part.
  template <class Take>
  void forParts(const Statedb::Changes& changes, Take&& take);

  std::list<Group> groups_;  // the first: outside every mount
};

}  // namespace Host::Redis
