#include "host/store/redis/redisstore.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "host/io/reconnects.h"
#include "host/store/redis/space.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Records;
using Statedb::RefusedError;
using Statedb::StoreError;
using Statedb::Subscriber;
using Statedb::Ticket;

namespace {

constexpr std::uint64_t kTick = 1000;  // milliseconds
// An agent that got its snapshot needs a moment until it has published everything.
constexpr int kTicksToPublish = 2;

std::string hostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown host";
}

}  // namespace

RedisStore::RedisStore(Loop& loop, const std::string& url, Report report)
    : loop_(loop),
      text_(url),
      url_(parseUrl(url)),
      report_(std::move(report)),
      volatileKeys_(url_.prefix, Durability::volatile_),
      refresh_(
          loop, mirror_,
          [this](Changes changes) {
            subscribers_.notify({.changes = std::move(changes)});
            subscribers_.deliver();
          },
          [this] { complete(); }),
      upstream_(loop, url_, *this),
      claims_(upstream_.uuid(), url_.lease, url_.hold, *this),
      stored_(upstream_, mirror_),
      volatile_(
          upstream_, publications_, [this](Path mount) { return tokenOf(mount); },
          [this](const std::string& what) { this->report(what); }),
      timer_(new uv_timer_t) {
  uv_timer_init(loop_.uv(), timer_.get());
  timer_->data = this;
  uv_timer_start(
      timer_.get(),
      [](uv_timer_t* timer) {
        Loop::guard(timer->loop, [&] { static_cast<RedisStore*>(timer->data)->tick(); });
      },
      kTick, kTick);
}

RedisStore::~RedisStore() {
  claims_.mountsAre({});
  upstream_.flush();
}

Statedb::StoreState RedisStore::state() const {
  Statedb::StoreState state{.canBeLost = true, .isReached = isReached_};
  if (!state.isReached) state.reason = why_;
  for (const Claims::Status& each : claims_.status())
    state.claims.push_back(
        {.mount = each.mount, .who = each.who, .isOwn = each.isOwn, .isOrphan = each.isOrphan});
  return state;
}

void RedisStore::announce(const Statedb::Announcement& announcement) {
  who_ = "pinlampd " + std::to_string(announcement.pid) + " on " + hostName();
  mounts_ = announcement.publishes;
  publications_.mountsAre({mounts_.begin(), mounts_.end()});
  claims_.mountsAre(mounts_);
  if (hasRows_ && !isDue_) showVolatile();
}

void RedisStore::subscribe(Path path, Subscriber& subscriber) {
  subscribers_.deliver();
  subscribers_.add(path, subscriber);
  // A publisher's waits for flush(): whether the mount is claimed is known only when it was announced.
  if (!subscriber.publishes(path)) deliverSnapshots();
}

void RedisStore::deliverSnapshots() {
  if (!hasRows_ || !refresh_.isDone()) return;
  subscribers_.deliverSnapshots(
      mirror_, [this](Path path, const Subscriber& subscriber) { return mayArrive(path, subscriber); },
      [this](Path path, const Subscriber& subscriber) {
        for (const Path& mount : mountsUnder(path, subscriber)) publications_.delivered(mount);
      });
}

// The mounts that the subscriber publishes, at, above or under its path.
std::vector<Path> RedisStore::mountsUnder(Path path, const Subscriber& subscriber) const {
  std::vector<Path> mounts;
  for (const std::string& text : mounts_) {
    const Path mount(text);
    const bool concerns = mount.isUnder(path) || path.isUnder(mount);
    if (concerns && subscriber.publishes(mount)) mounts.push_back(mount);
  }
  return mounts;
}

bool RedisStore::mayArrive(Path path, const Subscriber& subscriber) const {
  return std::ranges::none_of(mountsUnder(path, subscriber),
                              [this](Path mount) { return publications_.isStandby(mount); });
}

void RedisStore::write(const Changes& changes, Durability durability, Subscriber* origin) {
  if (durability == Durability::cover) throw RefusedError("this store has no covers: " + text_);
  claims_.check(changes);
  durability == Durability::stored ? writeStored(changes, origin) : writeVolatile(changes, origin);
}

void RedisStore::writeStored(const Changes& changes, Subscriber* origin) {
  if (!isReached_)
    throw StoreError("state database " + text_ + " is not reached" + (why_.empty() ? " yet" : ": " + why_));
  if (changes.size() > StoredWrites::kMostChanges)
    throw RefusedError(std::to_string(changes.size()) + " changes at once; a shared state database takes " +
                       std::to_string(StoredWrites::kMostChanges) + ": write less at a time");
  stored_.add(changes, origin);
}

void RedisStore::writeVolatile(const Changes& changes, Subscriber* origin) {
  mirror_.checkTypes(changes);
  Subscribers::Notice notice{.origin = origin};
  const Changes shown = publications_.write(changes);
  kept_.carry(shown);
  mirror_.carry(Durability::volatile_, shown, notice.changes);
  if (origin) notice.revealed = mirror_.revealedBy(changes);
  subscribers_.notify(std::move(notice));
}

Ticket RedisStore::flush() {
  subscribers_.deliver();
  const Ticket ticket = stored_.flush(heldClaims());
  volatile_.send();
  upstream_.flush();
  deliverSnapshots();
  return ticket;
}

std::vector<Claimed> RedisStore::heldClaims() const {
  std::vector<Claimed> held;
  for (const std::string& mount : mounts_)
    if (Token token = claims_.ownedToken(mount); !token.empty()) held.push_back({mount, std::move(token)});
  return held;
}

// If neither changed, the server has every volatile row that it ever acknowledged.
std::string RedisStore::timeline() const {
  return upstream_.server() + ' ' + upstream_.state(Durability::volatile_).timeline.generation;
}

// The claims are read first: they decide what may be written.
void RedisStore::onReached() {
  publications_.compare(upstream_.rows(Durability::volatile_));
  claims_.onReached(timeline());
  upstream_.flush();
}

// All that was asked for when the server was reached is there: its claims, and all rows in the mirror.
void RedisStore::complete() {
  if (!areClaimsKnown_ || !refresh_.isDone()) return;
  if (std::exchange(isReached_, true)) {
    upstream_.flush();
    return deliverSnapshots();
  }
  if (std::exchange(hasRows_, true)) Reconnects::add();
  if (!losses_.empty()) report("reached");
  losses_.clear();
  flush();
}

// An outage is logged once, and again where its cause turns out to need somebody's help.
void RedisStore::onLost(const Loss& loss) {
  why_ = loss.text;
  isReached_ = areClaimsKnown_ = false;
  using Kind = Loss::Kind;
  const bool needsHelp = (loss.kind == Kind::refused && loss.refusal != Refusal::loading) ||
                         loss.kind == Kind::invalid || loss.kind == Kind::password;
  if (losses_.empty() || (needsHelp && !losses_.contains(loss.kind)))
    report(loss.text + (hasRows_ ? "; the lights stay as they are" : "; trying until it is reached"));
  losses_.insert(loss.kind);
  volatile_.onLost();
  stored_.onLost(now());
  claims_.onLost();
}

// Volatile rows are shown when the claims were read after them. Otherwise this process would show what it
// does not know to be claimed, and would not keep it where the server is lost again.
void RedisStore::onRows(Durability space) {
  if (space == Durability::cover) return;
  if (space == Durability::volatile_) {
    isDue_ = true;
    if (upstream_.isReached()) onReached();  // else that follows
    return;
  }
  wipedAt_.reset();
  refresh_.start(space, [this](Path path) { return upstream_.rows(Durability::stored).find(path); });
}

void RedisStore::showWhatIsDue() {
  if (isDue_) showVolatile();
}

void RedisStore::showVolatile() {
  isDue_ = false;
  refresh_.start(Durability::volatile_, [this](Path path) { return wantedVolatile(path); });
}

const Statedb::Record* RedisStore::wantedVolatile(Path path) {
  return publications_.over(path, kept_.over(path, upstream_.rows(Durability::volatile_).find(path)));
}

void RedisStore::onEntry(const Upstream::Owner::Entry& entry) {
  if (entry.space == Durability::cover) return;
  entry.space == Durability::stored ? carryStored(entry) : carryVolatile(entry);
  subscribers_.deliver();
}

void RedisStore::carryStored(const Upstream::Owner::Entry& entry) {
  const auto own = entry.own == 0 ? std::nullopt : stored_.take(entry.own);
  if (!own) stored_.disturb();
  Subscribers::Notice notice;
  mirror_.carry(Durability::stored, entry.changes, notice.changes);
  mirror_.release(notice.changes);
  if (own && own->origin && !own->isDisturbed) {
    notice.origin = own->origin;
    notice.revealed = mirror_.revealedBy(own->changes);
  }
  subscribers_.notify(std::move(notice));
}

// This process's own entries are shown since they were written. Before the claims are read, all that came is
// shown at once.
void RedisStore::carryVolatile(const Upstream::Owner::Entry& entry) {
  if (entry.own != 0) return;
  for (const Path& mount : entry.head.mounts) claims_.onPublished(mount.text());
  isDue_ = isDue_ || !isReached_;
  const Changes changes = publications_.received(entry.changes);
  kept_.carry(changes);
  if (isDue_) return;
  Subscribers::Notice notice;
  if (entry.head.companionOf > upstream_.state(Durability::stored).tip)
    mirror_.carryHidden(changes);
  else
    mirror_.carry(Durability::volatile_, changes, notice.changes);
  subscribers_.notify(std::move(notice));
}

// Publishers write their rows again at once, and what others publish is kept for a while. What was stored is
// shown until somebody writes there, so that the lights do not go out while it is restored.
void RedisStore::onWiped(Durability space) {
  if (space != Durability::stored) return upstream_.acceptWiped(space);
  wipedAt_ = now();
  report("it was wiped; the stored rows that it had are shown until somebody writes there" +
         (url_.hold == Url::kNever ? std::string()
                                   : ", at most for " + std::to_string(url_.hold.count() / 1000) + " s"));
}

void RedisStore::onSettled(const WriteId& write, Outcome outcome) {
  if (write.space == Durability::stored) return stored_.onSettled(write.sequence, outcome);
  volatile_.onSettled(write.sequence, outcome);
  volatile_.send();
  reportSynced();
  upstream_.flush();
}

// "CLAIMED MOUNT TOKEN": a mount may contain spaces.
std::string RedisStore::claimedMount(const Reply& error) const {
  for (const std::string& mount : mounts_)
    if (error.text.starts_with("CLAIMED " + mount + ' ')) return mount;
  return {};
}

void RedisStore::onRefused(const WriteId& write, const Reply& error) {
  const Refusal refusal = error.refusal();
  const std::string mount = refusal == Refusal::claimed ? claimedMount(error) : std::string();
  if (write.space == Durability::stored) {
    const bool isForGood = refusal == Refusal::claimed || refusal == Refusal::otherType;
    stored_.onRefused(write.sequence, isForGood ? Ticket::Kind::refused : Ticket::Kind::failed,
                      "state database " + text_ + ": " + error.text + ": " + refusalText(refusal));
  } else {
    volatile_.onRefused(write.sequence, error);
  }
  if (!mount.empty()) claims_.onFenced(mount);
  volatile_.send();
  upstream_.flush();
}

void RedisStore::tick() {
  stored_.check(now());
  if (wipedAt_ && url_.hold != Url::kNever &&
      now() >= *wipedAt_ + static_cast<std::uint64_t>(url_.hold.count())) {
    wipedAt_.reset();
    upstream_.acceptWiped(Durability::stored);
  }
  if (!upstream_.isReached()) return;
  volatile_.check();
  for (auto& [mount, ticks] : ownedFor_)
    if (!tokenOf(mount).empty() && ++ticks == kTicksToPublish + 1)
      publications_.published(mount, upstream_.rows(Durability::volatile_));
  volatile_.send();
  reportSynced();
  claims_.tick();
  upstream_.flush();
}

void RedisStore::reportSynced() {
  for (const std::string& mount : mounts_) {
    if (claims_.ownedToken(mount).empty() || ownedFor_[mount] <= kTicksToPublish) continue;
    const Path path(mount);
    if (publications_.isSent(path) && volatile_.isIdle(path)) claims_.synced(mount);
  }
}

void RedisStore::ask(Call call, const std::string& mount) {
  upstream_.call(std::move(call), [this, mount](const Reply& reply) {
    const Refusal refusal = reply.refusal();
    if (refusal == Refusal::none)
      claims_.onClaim(mount, claim(reply), now());
    else if (refusal == Refusal::claimed)
      claims_.onFenced(mount);
    else
      onClaimRefused(mount, reply);
    upstream_.flush();
  });
}

void RedisStore::onClaimRefused(const std::string& mount, const Reply& error) {
  claims_.onFailed(mount, now());
  if (claimRefusals_.insert(mount).second)
    report("the server refuses the claim of '" + mount + "': " + error.text + ": " +
           refusalText(error.refusal()) + "; trying until it does not");
}

void RedisStore::read() {
  upstream_.call(claimsCall(volatileKeys_), [this](const Reply& reply) {
    showWhatIsDue();
    reply.refusal() == Refusal::none ? claims_.onClaims(claimsOf(reply), now()) : claims_.onReadFailed();
    areClaimsKnown_ = true;
    complete();
  });
}

void RedisStore::take(const std::string& mount, const Claim& seen) {
  ask(takeCall(volatileKeys_, mount, seen, upstream_.uuid(), who_, randomText()), mount);
}

void RedisStore::beat(const std::string& mount, const Token& token, std::string_view synced) {
  ask(beatCall(volatileKeys_, mount, token, synced), mount);
}

void RedisStore::release(const std::string& mount, const Token& token) {
  ask(releaseCall(volatileKeys_, mount, token), mount);
}

void RedisStore::sweep(const std::string& mount, const Claim& seen) {
  ask(sweepCall(volatileKeys_, mount, seen, upstream_.uuid(), url_.log), mount);
}

void RedisStore::onOwned(const std::string& mount) {
  if (standby_.erase(mount) > 0) report("'" + mount + "' is published by this process now");
  if (!publications_.isDelivered(mount)) ownedFor_[mount] = 0;
  claimRefusals_.erase(mount);
  upstream_.prepare(releaseCall(volatileKeys_, mount, {}));  // the last call of a process must not wait
  showWhatIsDue();
  kept_.keep(mount, mirror_);
  publications_.owned(mount, upstream_.rows(Durability::volatile_), kept_.at(mount));
  kept_.release(mount);
  showVolatile();
  flush();
  reportSynced();
}

void RedisStore::onStandby(const std::string& mount, std::string_view who) {
  if (standby_.insert(mount).second)
    report("'" + mount + "' is published by " + std::string(who) + "; this process is the standby");
  publications_.notOwned(mount);
  showVolatile();
}

void RedisStore::onCurrent(const std::string& mount) {
  if (kept_.release(mount)) showVolatile();
}

}  // namespace Host::Redis
