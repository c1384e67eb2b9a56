// One of the spaces whose rows end with their publishers: the volatile rows, or the covers. What this process
// publishes there, who holds the claims of the mounts, and what is shown of it.
//
//     PublishedSpace covers(Durability::cover, url, hold, {upstream, mirror, refresh}, owner);
//     covers.mountsAre({"hardware/led/config"}, "pinlampd 4711 on rack3");
//     covers.write(changes, visible);   // shows them, where this process holds the claim
//     covers.send();
//
// Volatile rows have a publisher from the announcement on, because their agent waits for that before it
// starts. The claim of a cover mount is taken with the first cover: the agents of a process that covers
// nothing may themselves be standbys. Covers are removed before their claim is released, and what was covered
// before the mount was announced waits for that.
//
// The functions named on… take what the upstream notifies of. Activity thread only.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/redis/claims.h"
#include "host/store/redis/keptrows.h"
#include "host/store/redis/mirror.h"
#include "host/store/redis/publications.h"
#include "host/store/redis/refresh.h"
#include "host/store/redis/upstream.h"
#include "host/store/redis/url.h"
#include "host/store/redis/volatilewrites.h"

namespace Host::Redis {

class PublishedSpace final : private Claims::Output {
 public:
  class Owner {
   public:
    // The claims were read, since the server was reached or since the last time.
    virtual void onClaimsRead() = 0;
    // This process publishes a mount now: sends what it has, and delivers snapshots that waited.
    virtual void onPublishing() = 0;
    virtual void report(const std::string& what) const = 0;
    // Milliseconds of a monotonic clock.
    virtual std::uint64_t now() const = 0;

   protected:
    ~Owner() = default;
  };
  struct Parts {
    Upstream& upstream;
    Mirror& mirror;
    Refresh& refresh;
  };

  // `hold`: for so long the rows of a publisher that is gone stay. Everything must outlive it.
  PublishedSpace(Statedb::Durability space, const Url& url, Milliseconds hold, Parts parts, Owner& owner);

  // Releases all claims, before this process ends: a standby takes over at once.
  void end() { claims_.mountsAre({}); }
  // The mounts that this process publishes. `who` names it for people.
  void mountsAre(const std::vector<std::string>& mounts, const std::string& who, LayeredChanges& visible);
  // Takes what was published here, and appends what subscribers are to be notified of.
  void write(const Statedb::Changes& changes, LayeredChanges& visible);
  // Sends what is unsent and may be sent.
  void send() { writes_.send(); }
  // Throws RefusedError for a change under a mount that another process publishes, and this one does not.
  void check(const Statedb::Changes& changes) const { claims_.check(changes); }

  // Those of the rows' generation, since the server was reached.
  bool areClaimsKnown() const { return areClaimsKnown_; }
  std::vector<Claimed> heldClaims() const;
  std::vector<Claims::Status> status() const { return claims_.status(); }
  const std::vector<std::string>& mounts() const { return mounts_; }
  bool isStandby(Statedb::Path mount) const { return publications_.isStandby(mount); }
  // The agent of a mount gets its snapshot.
  void delivered(Statedb::Path mount) { publications_.delivered(mount); }

  void onReached();
  void onLost();
  void onRows();
  // `isReached`: all rows are shown.
  void carry(const Upstream::Owner::Entry& entry, bool isReached, LayeredChanges& visible);
  void onSettled(Sequence write, Outcome outcome);
  void onRefused(Sequence write, const Reply& error);
  // The server refused a write of another space because of a claim of this one.
  void onFenced(const Reply& error);
  // Once a second, while the server is reached.
  void tick();
  // Shows everything again, where what is published here has changed its place.
  void showAgain();

 private:
  void read() override;
  void take(const std::string& mount, const Claim& seen) override;
  void beat(const std::string& mount, const Token& token, std::string_view synced) override;
  void release(const std::string& mount, const Token& token) override;
  void sweep(const std::string& mount, const Claim& seen) override;
  void onOwned(const std::string& mount) override;
  void onStandby(const std::string& mount, std::string_view who) override;
  void onKept(const std::string& mount) override { kept_.keep(Statedb::Path(mount), mirror_); }
  void onCurrent(const std::string& mount) override;
  Revision revision() const override { return upstream_.state(space_).tip; }

  bool isCovers() const { return space_ == Statedb::Durability::cover; }
  const char* verb() const { return isCovers() ? "covered" : "published"; }
  void onRead(const std::optional<ClaimList>& claims);
  void wantClaims();
  void claimWhatIsCovered(const Statedb::Changes& changes);
  void endCovers(Statedb::Path mount, LayeredChanges& visible);
  Statedb::Changes takeEarly(const Statedb::Changes& changes);
  void show();
  bool isNothingToShow() const;
  void showWhatIsDue();
  const Statedb::Record* wanted(Statedb::Path path);
  void ask(Call call, const std::string& mount, bool isSweep = false);
  void onClaimRefused(const std::string& mount, const Reply& error);
  void reportSynced();
  bool isPublished(const std::string& mount);
  Token tokenOf(const std::string& mount) const { return claims_.ownedToken(mount); }
  std::string timeline() const;

  const Statedb::Durability space_;
  const Url& url_;
  const Keys keys_;
  Upstream& upstream_;
  Mirror& mirror_;
  Refresh& refresh_;
  Owner& owner_;

  Claims claims_;
  Publications publications_;
  VolatileWrites writes_;
  KeptRows kept_;

  std::string who_;
  std::vector<std::string> mounts_, claimed_;  // the second: those whose claims this process wants
  Statedb::Changes early_;                     // covers outside the mounts
  std::set<std::string> standby_;              // reported so
  std::set<std::string> claimRefusals_;        // reported, until they are owned
  std::map<std::string, int> ownedFor_;        // ticks since the agent got its snapshot
  bool isDue_ = false;                         // upstream has rows that are not shown yet
  bool hasShown_ = false;                      // rows of the server, at any time
  bool areClaimsKnown_ = false;
};

}  // namespace Host::Redis
