#include "host/store/redis/claims.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/statedb/store/store.h"

namespace Host::Redis {

namespace {

// At the start of a text; 0 for none.
std::uint64_t numberIn(std::string_view text) {
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}
std::uint64_t epochOf(const Token& token) { return numberIn(token); }

// Without an owner and a heartbeat, a claim is the same in every generation.
bool isUnchanged(const Claim& before, const Claim& after) {
  return before.token == after.token && before.beat == after.beat &&
         (after.token.empty() || before.generation == after.generation);
}

// Whether a claim became free because the server lost it. An owner that releases leaves its epoch.
bool isForgotten(const Claim& before, const Claim& after) {
  return after.isFree() && !before.isFree() &&
         (before.generation != after.generation || epochOf(after.token) < epochOf(before.token));
}

bool isAtOrUnder(std::string_view path, std::string_view above) {
  return above.empty() || path == above || (path.starts_with(above) && path[above.size()] == '/');
}

}  // namespace

struct Claims::Mount {
  bool isWanted = false;   // this process publishes it
  bool isClaimed = false;  // somebody does, or did
  int underWay = 0;        // requests

  Claim seen{};  // by the last answer; nobody's before the first
  std::string who{};
  Now since = 0;             // watched_ when it changed, or the server was reached
  Now changed = 0;           // the clock then
  int repeats = 0;           // answers since then
  bool isForgotten = false;  // the server lost it: whoever owned it may take it again first

  bool isOwner = false;
  bool isVerified = false;  // on this connection
  std::string synced{};     // the timeline in which everything was published, and the revision then
  Token standby{};          // the holder that was notified of

  bool maySweep = true;  // as far as is known on this connection

  bool isKept = false;
  Now keptSince = 0;  // watched_ then
};

Claims::Claims(std::string uuid, Milliseconds lease, Milliseconds hold, Output& output)
    : uuid_(std::move(uuid)),
      lease_(static_cast<Now>(lease.count())),
      hold_(static_cast<Now>(hold.count())),
      output_(output) {}

Claims::~Claims() = default;

void Claims::mountsAre(const std::vector<std::string>& mounts) {
  for (auto& [name, mount] : mounts_) {
    if (!mount.isWanted || std::ranges::find(mounts, name) != mounts.end()) continue;
    mount.isWanted = false;
    mount.standby.clear();
    if (mount.isVerified) release(name, mount);
  }
  for (const std::string& name : mounts) mounts_[name].isWanted = true;
  read();
}

void Claims::onReached(const std::string& timeline) {
  const bool isOther = !timeline_.empty() && timeline_ != timeline;
  timeline_ = timeline;
  isReached_ = true;
  for (auto& [name, mount] : mounts_) {
    mount.isVerified = false;
    mount.maySweep = true;
    mount.since = watched_;
    mount.repeats = 0;
    if (!isOther) continue;
    mount.synced.clear();
    if (mount.isClaimed) keep(name, mount);
  }
  read();
}

void Claims::onLost() {
  isReached_ = isReading_ = isWatching_ = false;
  for (auto& [name, mount] : mounts_) {
    mount.isVerified = false;
    mount.underWay = 0;
  }
}

void Claims::tick() {
  for (auto& [name, mount] : mounts_) beat(name, mount);
  read();
}

void Claims::beat(const std::string& name, Mount& mount) {
  if (!mount.isVerified || mount.underWay > 0) return;
  ++mount.underWay;
  output_.beat(name, mount.seen.token, mount.synced);
}

void Claims::read() {
  if (!isReached_ || std::exchange(isReading_, true)) return;
  output_.read();
}

void Claims::onClaims(const ClaimList& all, Now now) {
  isReading_ = false;
  watch(now);
  for (const auto& [name, claim] : all.claims) mounts_.try_emplace(name);
  for (auto& [name, mount] : mounts_) {
    if (mount.underWay > 0) continue;  // a newer answer comes
    const auto found = all.claims.find(name);
    update(name, mount, found == all.claims.end() ? Claim{.generation = all.generation} : found->second, now);
  }
  forget(all);
}

void Claims::watch(Now now) {
  if (isWatching_ && now - answeredAt_ <= std::max(kLongestGap, lease_ / 2)) {
    watched_ += now - answeredAt_;
  } else {
    for (auto& [name, mount] : mounts_) mount.repeats = -1;  // this answer is not one of those after the gap
  }
  isWatching_ = true;
  answeredAt_ = now;
}

// A claim that the server lost stays for `hold`: its rows may have to be kept.
void Claims::forget(const ClaimList& all) {
  std::erase_if(mounts_, [&](const auto& each) {
    const Mount& mount = each.second;
    return !mount.isWanted && !mount.isKept && mount.underWay == 0 && silence(mount) >= hold_ &&
           !all.claims.contains(each.first);
  });
}

void Claims::onReadFailed() { isReading_ = false; }

void Claims::onClaim(const std::string& mount, const Claim& claim, Now now) {
  watch(now);
  const auto found = mounts_.find(mount);
  if (found == mounts_.end() || --found->second.underWay > 0) return;
  update(mount, found->second, claim, now);
}

// The owner may have been refused as well, and could not give a sign of life.
void Claims::onFailed(const std::string& mount, Now now) {
  watch(now);
  const auto found = mounts_.find(mount);
  if (found == mounts_.end()) return;
  --found->second.underWay;
  found->second.since = watched_;
  found->second.repeats = 0;
}

void Claims::onMayNotSweep(const std::string& mount, Now now) {
  onFailed(mount, now);
  if (const auto found = mounts_.find(mount); found != mounts_.end()) found->second.maySweep = false;
}

void Claims::onFenced(const std::string& mount) {
  const auto found = mounts_.find(mount);
  if (found == mounts_.end() || !std::exchange(found->second.isVerified, false)) return;
  read();
}

void Claims::onPublished(const std::string& mount) {
  if (mounts_.size() >= kMostClaims && !mounts_.contains(mount)) return;
  const auto [found, isNew] = mounts_.try_emplace(mount);
  if (isNew) found->second.since = watched_;
  found->second.isClaimed = true;
}

void Claims::synced(const std::string& mount) {
  const auto found = mounts_.find(mount);
  if (found == mounts_.end() || !found->second.isVerified || isOfTimeline(found->second.synced)) return;
  found->second.synced = timeline_ + ' ' + std::to_string(output_.revision());
  stopKeeping(mount, found->second);
  beat(mount, found->second);
}

void Claims::update(const std::string& name, Mount& mount, const Claim& claim, Now now) {
  const Claim before = std::exchange(mount.seen, claim);
  if (!claim.who.empty()) mount.who = claim.who;
  if (!claim.token.empty()) mount.isClaimed = true;
  if (before.generation != claim.generation) mount.synced.clear();
  if (isUnchanged(before, claim)) {
    ++mount.repeats;
  } else {
    mount.isForgotten = !mount.isOwner && isForgotten(before, claim);
    mount.since = watched_;
    mount.changed = now;
    mount.repeats = 0;
  }
  if (isOwnedBy(claim, uuid_))
    own(name, mount, before.token != claim.token || before.generation != claim.generation);
  else
    standBy(name, mount);
  stopKeeping(name, mount);
}

void Claims::own(const std::string& name, Mount& mount, bool isChanged) {
  if (!mount.isWanted) return release(name, mount);
  mount.isOwner = true;
  mount.standby.clear();
  if (isChanged) mount.synced.clear();
  if (!std::exchange(mount.isVerified, true) || isChanged) output_.onOwned(name);
}

// A successor of an owner that had published everything adopted all of it.
void Claims::standBy(const std::string& name, Mount& mount) {
  if (std::exchange(mount.isOwner, false) && !isOfTimeline(mount.synced)) keep(name, mount);
  mount.isVerified = false;
  if (!mount.isWanted) return sweepIfDue(name, mount);
  if (mayTake(mount)) {
    ++mount.underWay;
    output_.take(name, mount.seen);
  } else if (!mount.seen.isFree() && std::exchange(mount.standby, mount.seen.token) != mount.seen.token) {
    output_.onStandby(name, mount.who);
  }
}

Claims::Now Claims::silence(const Mount& mount) const { return watched_ - mount.since; }

bool Claims::isSilent(const Mount& mount) const {
  return mount.repeats >= kLeastRepeats && silence(mount) >= lease_;
}

bool Claims::mayTake(const Mount& mount) const {
  return (mount.seen.isFree() && !mount.isForgotten) || isSilent(mount);
}

// Whether its rows are to be removed. A claim that was swept has no heartbeat.
bool Claims::isDead(const Mount& mount) const {
  if (mount.seen.isFree()) return mount.seen.beat > 0 && silence(mount) >= hold_;
  return isSilent(mount) && silence(mount) >= hold_;
}

// Whether the owner of another mount, above or under this one, lives.
bool Claims::isShared(const std::string& name) const {
  return std::ranges::any_of(mounts_, [&](const auto& each) {
    const auto& [other, mount] = each;
    return other != name && !mount.seen.isFree() && !isDead(mount) &&
           (isAtOrUnder(other, name) || isAtOrUnder(name, other));
  });
}

void Claims::sweepIfDue(const std::string& name, Mount& mount) {
  if (!mount.maySweep || !isDead(mount) || isShared(name)) return;
  ++mount.underWay;
  output_.sweep(name, mount.seen);
}

void Claims::release(const std::string& name, Mount& mount) {
  mount.isOwner = mount.isVerified = false;
  ++mount.underWay;
  output_.release(name, mount.seen.token);
}

void Claims::keep(const std::string& name, Mount& mount) {
  mount.isKept = true;
  mount.keptSince = watched_;
  if (!mount.isOwner) output_.onKept(name);
}

bool Claims::isOfTimeline(std::string_view synced) const {
  return synced.size() > timeline_.size() && synced[timeline_.size()] == ' ' && synced.starts_with(timeline_);
}

// Whether this process has everything that the owner published in this timeline.
bool Claims::isCurrent(const Mount& mount) const {
  const std::string& synced = mount.isVerified ? mount.synced : mount.seen.synced;
  return isOfTimeline(synced) && numberIn(synced.substr(timeline_.size() + 1)) <= output_.revision();
}

void Claims::stopKeeping(const std::string& name, Mount& mount) {
  if (!mount.isKept || (!isCurrent(mount) && watched_ - mount.keptSince < std::max(hold_, lease_))) return;
  mount.isKept = false;
  output_.onCurrent(name);
}

void Claims::check(const Statedb::Changes& changes) const {
  for (const auto& [name, mount] : mounts_) {
    const auto path = Statedb::Path::existing(name);
    if (mount.isOwner || mount.isWanted || isOrphan(mount) || mount.who.empty() || !path) continue;
    for (const Statedb::Change& change : changes)
      if (concerns(change, *path))
        throw Statedb::RefusedError("'" + change.row.path.text() + "': '" + name + "' is published by " +
                                    mount.who + ", and nobody else may write there");
  }
}

Token Claims::ownedToken(std::string_view mount) const {
  const auto found = mounts_.find(mount);
  return found == mounts_.end() || !found->second.isVerified ? Token() : found->second.seen.token;
}

std::vector<Claims::Status> Claims::status() const {
  std::vector<Status> all;
  for (const auto& [name, mount] : mounts_)
    if (!mount.who.empty()) all.push_back(statusOf(name, mount));
  return all;
}

bool Claims::isOrphan(const Mount& mount) const {
  return !mount.isOwner && (mount.seen.isFree() || isSilent(mount));
}

Claims::Status Claims::statusOf(const std::string& name, const Mount& mount) const {
  return {name, mount.who, mount.isOwner, isOrphan(mount), mount.changed};
}

}  // namespace Host::Redis
