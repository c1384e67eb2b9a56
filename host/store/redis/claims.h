// One writer of a mount: takes claims, keeps them, and notices where others hold them. Pure logic: no I/O and
// no clock of its own.
//
//     Claims claims(uuid, lease, hold, output);
//     claims.mountsAre({"hardware/corvel/gpio/config"});
//     claims.onReached(timeline, now);
//     claims.tick(now);                    // once a second: output.read(mount), output.beat(mount, …)
//     claims.onClaim(mount, claim, now);   // the answer
//     claims.ownedToken(mount);            // empty: this process may not write under it
//
// A claim has no time to live on the server, whose clock may jump: its owner increments a heartbeat, and a
// candidate that sees no new one for `lease` on its own monotonic clock takes the claim by compare-and-set,
// which increments the epoch. Every write carries the token, so an owner that was stopped and continues is
// refused; it becomes a candidate. A claim that its owner released can be taken at once.
//
// The rows of a dead publisher stay for `hold`, orphaned; then any process removes them. After a restart or a
// failover of the server, the volatile space may be empty or old: readers keep the rows that they had under a
// mount until its owner reports that it has published everything in this timeline (`synced`), at most for
// `hold`.
//
// Activity thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/redis/scripts.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

class Claims {
 public:
  using Now = std::uint64_t;  // milliseconds of a monotonic clock

  // Requests; each answer comes by onClaim(), or onFailed() where the server refused. They are void once
  // onLost() was called.
  class Output {
   public:
    virtual void read(const std::string& mount) = 0;
    virtual void take(const std::string& mount, const Claim& seen) = 0;
    virtual void beat(const std::string& mount, const Token& token, std::string_view synced) = 0;
    // Removes the volatile rows under a mount if its claim is still `seen`: its owner is gone.
    virtual void sweep(const std::string& mount, const Claim& seen) = 0;

    // This process may write under the mount from now on, and publishes what differs; then call synced().
    virtual void onOwned(const std::string& mount) = 0;
    // It may not any more, or yet: `who` holds the claim.
    virtual void onStandby(const std::string& mount, std::string_view who) = 0;
    // The rows that were kept under the mount are no longer needed: its owner has published everything, or
    // `hold` is over.
    virtual void onCurrent(const std::string& mount) = 0;

   protected:
    ~Output() = default;
  };

  // For people: what is known about a mount.
  struct Status {
    std::string mount;
    std::string who{};   // the holder; empty: nobody ever was
    bool isOwn = false;  // this process is
    bool isOrphan = false;
    Now since = 0;  // isOrphan: of the last heartbeat that was seen
  };

  Claims(std::string uuid, Milliseconds lease, Milliseconds hold, Output& output);

  // The mounts that this process publishes. A mount that is no longer among them is not claimed any more.
  void mountsAre(const std::vector<std::string>& mounts);
  // The claims that exist on the server, also those of mounts that only others publish.
  void knownAre(const std::vector<std::string>& mounts, Now now);

  // The server is reached, and the volatile rows are those of `timeline`. `isNew`: another one than before,
  // so that each mount's rows are kept until onCurrent().
  void onReached(const std::string& timeline, bool isNew, Now now);
  // No answer comes any more. Claims that are owned count as owned until an answer says otherwise.
  void onLost();
  void tick(Now now);
  void onClaim(const std::string& mount, const Claim& claim, Now now);
  void onFailed(const std::string& mount, Now now);
  // A write was refused because another process holds the claim.
  void onFenced(const std::string& mount, Now now);
  // Everything that this process publishes under the mount is on the server, in this timeline.
  void synced(const std::string& mount);

  // Empty unless this process owns the claim.
  Token ownedToken(std::string_view mount) const;
  // Of each mount that is claimed by anybody.
  std::vector<Status> status() const;

 private:
  struct Mount;
  std::map<std::string, Mount, std::less<>> mounts_;
};

}  // namespace Host::Redis
