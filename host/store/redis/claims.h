// One writer of a mount: takes claims, keeps them, and notices where others hold them. Pure logic: no I/O and
// no clock of its own.
//
//     Claims claims(uuid, lease, hold, output);
//     claims.mountsAre({"hardware/corvel/gpio/config"});
//     claims.onReached(timeline);
//     claims.tick();                      // once a second: output.beat(mount, …) of each owned claim,
//     output.read() claims.onClaims(claims, now);       // the answer: output.take(mount, …),
//     output.onOwned(mount), … claims.ownedToken(mount);           // empty: this process may not write under
//     it
//
// A claim has no time to live on the server, whose clock may jump: its owner increments a heartbeat, and a
// candidate that sees no new one for `lease` takes the claim by compare-and-set, which increments the epoch.
// Every write carries the token, so an owner that was stopped and continues is refused; it becomes a
// candidate. A claim that its owner released, or that nobody ever had, is taken at once.
//
// Silence is time that this process watched, on its own monotonic clock. Time between two answers that come
// more than kLongestGap apart was not watched (this process was stopped), nor was time without a connection;
// after each the claim must be seen unchanged kLeastRepeats times more.
//
// An owner that loses its connection stays the owner until an answer shows another. It has no token until an
// answer on the new connection shows its claim, then onOwned() comes again. After a restart or a wipe of the
// server the claim is gone: its owner takes it again at once, and processes that knew that owner wait for
// `lease`.
//
// The rows of a dead publisher stay for `hold`, at least until the lease is over, and those of one that
// released its claim for `hold`. A successor adopts them; without one, any process removes them. Where one
// claimed mount is under another, the rows of neither are removed while the other's owner lives.
//
// When the timeline changes, the volatile space may be empty or old: readers keep the rows that they had
// under a claimed mount until its owner reports that it has published everything in this timeline, and they
// have the entry of the log by which it had (`synced`: "TIMELINE REVISION"), at most for `hold`, or the lease
// where that is longer, since an owner that lives publishes within it. The report
// may be faster than that entry, which comes over another connection. An owner that loses its claim before it
// has published everything keeps the rows as well.
//
// Claims of covers are the same, with a `hold` of 0 and in a space of their own.
//
// Activity thread only.
#pragma once

#include <cstdint>
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

  // Requests and notifications. Of this class, only synced(), ownedToken() and status() may be called from
  // within.
  class Output {
   public:
    // Answered by onClaims(), or onReadFailed(). Answers are void once onLost() was called.
    virtual void read() = 0;
    // Each is answered by onClaim(), or onFailed() where the server refused it. All answers come in the order
    // of the requests.
    virtual void take(const std::string& mount, const Claim& seen) = 0;
    virtual void beat(const std::string& mount, const Token& token, std::string_view synced) = 0;
    virtual void release(const std::string& mount, const Token& token) = 0;
    // Removes the volatile rows under a mount if its claim is still `seen`: its owner is gone.
    virtual void sweep(const std::string& mount, const Claim& seen) = 0;

    // This process may write under the mount, as from now, or again on a new connection. It publishes what
    // differs from the mirror; then call synced().
    virtual void onOwned(const std::string& mount) = 0;
    // It may not any more, or yet: `who` holds the claim. Once for each holder.
    virtual void onStandby(const std::string& mount, std::string_view who) = 0;
    // The server may lack rows that another process published under the mount: keep those that are shown
    // there, until onCurrent(). May come again meanwhile.
    virtual void onKept(const std::string& mount) = 0;
    // The rows that were kept under the mount are no longer needed: its owner has published everything, or
    // `hold` is over.
    virtual void onCurrent(const std::string& mount) = 0;

    // Up to which this process has the log of the volatile space.
    virtual Revision revision() const = 0;

   protected:
    ~Output() = default;
  };

  // For people: what is known about a mount.
  struct Status {
    std::string mount;
    std::string who{};      // the holder, or the last one; empty: nobody ever was, or it is not known
    bool isOwn = false;     // this process is, or was when the connection was lost
    bool isOrphan = false;  // its rows have no publisher: released, or silent for `lease`
    Now since = 0;          // isOrphan: the claim was seen to change last
  };

  static constexpr Now kLongestGap = 2'500;
  static constexpr int kLeastRepeats = 2;

  // `uuid` names this process in tokens; `output` must outlive this. Every process that shares a
  // database has the same `lease` and `hold`.
  Claims(std::string uuid, Milliseconds lease, Milliseconds hold, Output& output);
  ~Claims();
  Claims(const Claims&) = delete;
  Claims& operator=(const Claims&) = delete;

  // The mounts that this process publishes. The claim of one that is no longer among them is released: before
  // a planned stop, of all.
  void mountsAre(const std::vector<std::string>& mounts);

  // The server is reached, or the volatile space has another timeline than before on the same connection.
  void onReached(const std::string& timeline);
  // No answer comes any more.
  void onLost();
  void tick();
  void onClaims(const ClaimList& all, Now now);
  void onReadFailed();
  void onClaim(const std::string& mount, const Claim& claim, Now now);
  void onFailed(const std::string& mount, Now now);
  // The server refused a sweep because this process has not the right: others have it.
  void onMayNotSweep(const std::string& mount, Now now);
  // A write was refused because another process holds the claim: there is no token until an answer shows that
  // it is this one's after all.
  void onFenced(const std::string& mount);
  // Its publisher, another process, wrote there. It may be gone before an answer shows its claim.
  void onPublished(const std::string& mount);
  // Everything that this process publishes under the mount is on the server, in this timeline: what was
  // written since the last onOwned(), up to revision(). Reported at once. Ignored while there is no token.
  void synced(const std::string& mount);

  // Throws RefusedError for a change under a mount that another process publishes, and this one does not.
  void check(const Statedb::Changes& changes) const;
  // Whether none is wanted, known or kept.
  bool isIdle() const { return mounts_.empty(); }
  // Empty unless this process owns the claim, seen on this connection.
  Token ownedToken(std::string_view mount) const;
  // Of each mount that is or was claimed by anybody, by name.
  std::vector<Status> status() const;

 private:
  struct Mount;
  using Mounts = std::map<std::string, Mount, std::less<>>;

  void read();
  void watch(Now now);
  void update(const std::string& name, Mount& mount, const Claim& claim, Now now);
  void beat(const std::string& name, Mount& mount);
  void own(const std::string& name, Mount& mount, bool isChanged);
  void standBy(const std::string& name, Mount& mount);
  void sweepIfDue(const std::string& name, Mount& mount);
  void release(const std::string& name, Mount& mount);
  void keep(const std::string& name, Mount& mount);
  void stopKeeping(const std::string& name, Mount& mount);
  void forget(const ClaimList& all);
  Now silence(const Mount& mount) const;
  bool isSilent(const Mount& mount) const;
  bool isDead(const Mount& mount) const;
  bool mayTake(const Mount& mount) const;
  bool isOrphan(const Mount& mount) const;
  bool isShared(const std::string& name) const;
  bool isOfTimeline(std::string_view synced) const;
  bool isCurrent(const Mount& mount) const;
  Status statusOf(const std::string& name, const Mount& mount) const;

  const std::string uuid_;
  const Now lease_;
  const Now hold_;
  Output& output_;

  Mounts mounts_;  // published here, claimed by anybody, or kept
  std::string timeline_{};
  bool isReached_ = false;
  bool isReading_ = false;
  bool isWatching_ = false;  // an answer came on this connection, the last at `answeredAt_`
  Now answeredAt_ = 0;
  Now watched_ = 0;  // the time that was watched
};

}  // namespace Host::Redis
