#include "host/store/redis/publishedspace.h"

#include <algorithm>
#include <utility>

#include "host/store/redis/space.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Record;

namespace {

// An agent that got its snapshot needs a moment until it has published everything.
constexpr int kTicksToPublish = 2;

bool contains(const std::vector<std::string>& texts, const std::string& text) {
  return std::ranges::find(texts, text) != texts.end();
}

}  // namespace

PublishedSpace::PublishedSpace(Durability space, const Url& url, Milliseconds hold, Parts parts, Owner& owner)
    : space_(space),
      url_(url),
      keys_(url.prefix, space),
      upstream_(parts.upstream),
      mirror_(parts.mirror),
      refresh_(parts.refresh),
      owner_(owner),
      claims_(upstream_.uuid(), url.lease, hold, *this),
      writes_(
          space, upstream_, publications_, [this](Path mount) { return tokenOf(mount.text()); },
          [this](const std::string& what) { owner_.report(what); }),
      kept_(space) {}

void PublishedSpace::mountsAre(const std::vector<std::string>& mounts, const std::string& who,
                               LayeredChanges& visible) {
  who_ = who;
  for (const std::string& each : std::exchange(mounts_, mounts))
    if (isCovers() && !contains(mounts_, each)) endCovers(Path(each), visible);
  publications_.mountsAre({mounts_.begin(), mounts_.end()});
  wantClaims();
  if (!isCovers()) return;
  for (const std::string& each : mounts_) publications_.delivered(Path(each));  // their agent adopts nothing
  write(std::exchange(early_, {}), visible);
}

void PublishedSpace::wantClaims() {
  if (isCovers())
    std::erase_if(claimed_, [this](const std::string& each) { return !contains(mounts_, each); });
  else
    claimed_ = mounts_;
  claims_.mountsAre(claimed_);
}

void PublishedSpace::claimWhatIsCovered(const Changes& changes) {
  const std::size_t before = claimed_.size();
  for (const std::string& mount : mounts_) {
    const auto isCovered = [path = Path(mount)](const Change& each) { return each.row.path.isUnder(path); };
    if (!contains(claimed_, mount) && std::ranges::any_of(changes, isCovered)) claimed_.push_back(mount);
  }
  if (claimed_.size() > before) claims_.mountsAre(claimed_);
}

// The release that follows removes them on the server. This process's own entries are shown when they are
// written, and so is this one.
void PublishedSpace::endCovers(Path mount, LayeredChanges& visible) {
  writes_.forget(mount);
  standby_.erase(mount.text());
  if (!publications_.isStandby(mount)) mirror_.carry(space_, {Change::del(mount)}, visible);
}

void PublishedSpace::write(const Changes& changes, LayeredChanges& visible) {
  const Changes taken = isCovers() ? takeEarly(changes) : changes;
  if (isCovers()) claimWhatIsCovered(taken);
  const Changes shown = publications_.write(taken);
  kept_.carry(shown);
  mirror_.carry(space_, shown, visible);
}

// Keeps those outside every mount, and returns the others.
Changes PublishedSpace::takeEarly(const Changes& changes) {
  Changes taken;
  const std::vector<Path> mounts(mounts_.begin(), mounts_.end());
  for (const Change& each : changes) {
    const auto isConcerned = [&](const Path& mount) { return concerns(each, mount); };
    (std::ranges::any_of(mounts, isConcerned) ? taken : early_).push_back(each);
  }
  return taken;
}

std::vector<Claimed> PublishedSpace::heldClaims() const {
  std::vector<Claimed> held;
  for (const std::string& mount : claimed_)
    if (Token token = tokenOf(mount); !token.empty()) held.push_back({mount, std::move(token)});
  return held;
}

// If neither changed, the server has every row that it ever acknowledged.
std::string PublishedSpace::timeline() const {
  return upstream_.server() + ' ' + upstream_.state(space_).timeline.generation;
}

// The claims are read first: they decide what may be written.
void PublishedSpace::onReached() {
  publications_.compare(upstream_.rows(space_));
  claims_.onReached(timeline());
}

void PublishedSpace::onLost() {
  areClaimsKnown_ = false;
  writes_.onLost();
  claims_.onLost();
}

// Rows are shown when the claims of their generation were read after them. Otherwise this process would show
// what it does not know to be claimed, and would not keep it where the server is lost or wiped.
void PublishedSpace::onRows() {
  isDue_ = true;
  if (upstream_.isReached()) onReached();  // else that follows
}

void PublishedSpace::showWhatIsDue() {
  if (isDue_) show();
}

void PublishedSpace::showAgain() {
  if (hasShown_ && !isDue_) show();
}

void PublishedSpace::show() {
  isDue_ = false;
  hasShown_ = true;
  if (isNothingToShow()) return;
  refresh_.start(space_, [this](Path path) { return wanted(path); });
}

// A walk over all paths takes long, and most databases have no covers.
bool PublishedSpace::isNothingToShow() const {
  return isCovers() && claimed_.empty() && upstream_.rows(space_).empty() && !mirror_.hasCovers();
}

const Record* PublishedSpace::wanted(Path path) {
  return publications_.over(path, kept_.over(path, upstream_.rows(space_).find(path)));
}

// This process's own entries are shown since they were written. Before the claims are read, all that came is
// shown at once.
void PublishedSpace::carry(const Upstream::Owner::Entry& entry, bool isReached, LayeredChanges& visible) {
  if (entry.own != 0) return;
  for (const Path& mount : entry.head.mounts) claims_.onPublished(mount.text());
  isDue_ = isDue_ || !isReached;
  const Changes changes = publications_.received(entry.changes);
  kept_.carry(changes);
  if (isDue_) return;
  if (entry.head.companionOf > upstream_.state(Durability::stored).tip)
    mirror_.carryHidden(changes);
  else
    mirror_.carry(space_, changes, visible);
}

void PublishedSpace::onSettled(Sequence write, Outcome outcome) {
  writes_.onSettled(write, outcome);
  writes_.send();
  reportSynced();
}

void PublishedSpace::onRefused(Sequence write, const Reply& error) {
  writes_.onRefused(write, error);
  if (error.refusal() == Refusal::claimed) onFenced(error);
  writes_.send();
}

// "CLAIMED MOUNT TOKEN": a mount may contain spaces.
void PublishedSpace::onFenced(const Reply& error) {
  for (const std::string& mount : claimed_)
    if (error.text.starts_with("CLAIMED " + mount + ' ')) return claims_.onFenced(mount);
}

void PublishedSpace::tick() {
  writes_.check();
  for (auto& [mount, ticks] : ownedFor_)
    if (!tokenOf(mount).empty() && publications_.isDelivered(Path(mount)) && ++ticks == kTicksToPublish + 1)
      publications_.published(Path(mount), upstream_.rows(space_));
  writes_.send();
  reportSynced();
  // In a space that nobody has made are no claims.
  if (isDue_ || !upstream_.state(space_).timeline.generation.empty() || !claims_.isIdle()) claims_.tick();
}

bool PublishedSpace::isPublished(const std::string& mount) {
  if (!isCovers() && ownedFor_[mount] <= kTicksToPublish) return false;
  return publications_.isSent(Path(mount)) && writes_.isIdle(Path(mount));
}

void PublishedSpace::reportSynced() {
  for (const std::string& mount : claimed_)
    if (!tokenOf(mount).empty() && isPublished(mount)) claims_.synced(mount);
}

void PublishedSpace::ask(Call call, const std::string& mount, bool isSweep) {
  upstream_.call(std::move(call), [this, mount, isSweep](const Reply& reply) {
    const Refusal refusal = reply.refusal();
    if (refusal == Refusal::none)
      claims_.onClaim(mount, claim(reply), owner_.now());
    else if (refusal == Refusal::claimed)
      claims_.onFenced(mount);
    else if (isSweep && refusal == Refusal::noPerm)
      claims_.onMayNotSweep(mount, owner_.now());
    else
      onClaimRefused(mount, reply);
    upstream_.flush();
  });
}

void PublishedSpace::onClaimRefused(const std::string& mount, const Reply& error) {
  claims_.onFailed(mount, owner_.now());
  if (claimRefusals_.insert(mount).second)
    owner_.report("the server refuses the claim of '" + mount + "': " + error.text + ": " +
                  refusalText(error.refusal()) + "; trying until it does not");
}

void PublishedSpace::read() {
  upstream_.call(claimsCall(keys_), [this](const Reply& reply) {
    onRead(reply.refusal() == Refusal::none ? std::optional(claimsOf(reply)) : std::nullopt);
  });
}

// Null: the server refused it, and may for long. Where the rows are of another generation, those of this one
// follow, and the claims are read again.
void PublishedSpace::onRead(const std::optional<ClaimList>& claims) {
  if (!claims || claims->generation == upstream_.state(space_).timeline.generation) {
    showWhatIsDue();
    areClaimsKnown_ = true;
  }
  claims ? claims_.onClaims(*claims, owner_.now()) : claims_.onReadFailed();
  owner_.onClaimsRead();
}

void PublishedSpace::take(const std::string& mount, const Claim& seen) {
  ask(takeCall(keys_, mount, seen, upstream_.uuid(), who_, randomText()), mount);
}

void PublishedSpace::beat(const std::string& mount, const Token& token, std::string_view synced) {
  ask(beatCall(keys_, mount, token, synced), mount);
}

// The covers are gone before others may cover.
void PublishedSpace::release(const std::string& mount, const Token& token) {
  if (isCovers() && upstream_.isReached())
    upstream_.write(space_, {Change::del(Path(mount))}, {{mount, token}});
  ask(releaseCall(keys_, mount, token), mount);
}

void PublishedSpace::sweep(const std::string& mount, const Claim& seen) {
  ask(sweepCall(keys_, mount, seen, upstream_.uuid(), url_.log), mount, true);
}

void PublishedSpace::onOwned(const std::string& mount) {
  if (standby_.erase(mount) > 0) owner_.report("'" + mount + "' is " + verb() + " by this process now");
  if (!isCovers() && !publications_.isDelivered(Path(mount))) ownedFor_[mount] = 0;
  claimRefusals_.erase(mount);
  upstream_.prepare(releaseCall(keys_, mount, {}));  // the last call of a process must not wait
  showWhatIsDue();
  kept_.keep(Path(mount), mirror_);
  publications_.owned(Path(mount), upstream_.rows(space_), kept_.at(Path(mount)));
  kept_.release(Path(mount));
  show();
  owner_.onPublishing();
  reportSynced();
}

void PublishedSpace::onStandby(const std::string& mount, std::string_view who) {
  if (standby_.insert(mount).second)
    owner_.report("'" + mount + "' is " + verb() + " by " + std::string(who) +
                  "; this process is the standby");
  publications_.notOwned(Path(mount));
  show();
}

void PublishedSpace::onCurrent(const std::string& mount) {
  if (kept_.release(Path(mount))) show();
}

}  // namespace Host::Redis
