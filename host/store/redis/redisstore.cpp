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

constexpr std::uint64_t kTick = 1000;            // milliseconds
constexpr auto kHoldOfCovers = Milliseconds(0);  // they end with their process

std::string hostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown host";
}

// Without those under another one, which is claimed for both.
std::vector<std::string> outermost(const std::vector<std::string>& paths) {
  std::vector<std::string> taken;
  for (const std::string& each : std::set(paths.begin(), paths.end())) {
    const auto isAbove = [path = Path(each)](const std::string& other) { return path.isUnder(Path(other)); };
    if (std::ranges::none_of(taken, isAbove)) taken.push_back(each);
  }
  return taken;
}

}  // namespace

RedisStore::RedisStore(Loop& loop, const std::string& url, Report report, Subscribers::Portion portion)
    : loop_(loop),
      text_(url),
      url_(parseUrl(url)),
      report_(std::move(report)),
      refresh_(
          loop, mirror_,
          [this](LayeredChanges changes) {
            notify(std::move(changes));
            subscribers_.deliver();
          },
          [this] { complete(); }),
      upstream_(loop, url_, *this),
      stored_(upstream_, mirror_),
      volatile_(Durability::volatile_, url_, url_.hold, {upstream_, mirror_, refresh_}, *this),
      covers_(Durability::cover, url_, kHoldOfCovers, {upstream_, mirror_, refresh_}, *this),
      subscribers_(mirror_, portion),
      timer_(new uv_timer_t),
      delivery_(new uv_idle_t) {
  uv_idle_init(loop_.uv(), delivery_.get());
  delivery_->data = this;
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
  for (PublishedSpace* each : {&covers_, &volatile_}) each->end();
  upstream_.flush();
}

Statedb::StoreState RedisStore::state() const {
  Statedb::StoreState state{.canBeLost = true, .isReached = isReached_};
  if (!state.isReached) state.reason = why_;
  for (const PublishedSpace* space : {&volatile_, &covers_})
    for (const Claims::Status& each : space->status())
      state.claims.push_back({.mount = each.mount,
                              .who = each.who,
                              .isOwn = each.isOwn,
                              .isOrphan = each.isOrphan,
                              .isOfCovers = space == &covers_});
  return state;
}

void RedisStore::announce(const Statedb::Announcement& announcement) {
  const std::string who = "pinlampd " + std::to_string(announcement.pid) + " on " + hostName();
  const bool publishesTheSame = announcement.publishes == volatile_.mounts();
  LayeredChanges visible;
  volatile_.mountsAre(announcement.publishes, who, visible);
  covers_.mountsAre(outermost(announcement.covers), who, visible);
  notify(std::move(visible));
  if (!publishesTheSame) volatile_.showAgain();
}

void RedisStore::notify(LayeredChanges changes) { subscribers_.notify({.changes = std::move(changes)}); }

// A publisher's snapshot waits for flush(): whether the mount is claimed is known only when it was announced.
void RedisStore::subscribe(Path path, Subscriber& subscriber) {
  subscribers_.deliver();
  subscribers_.add(path, subscriber);
  if (!subscriber.publishes(path)) deliverPortion();
}

// One portion in a round of the loop.
void RedisStore::deliverSnapshots() {
  if (!uv_is_active(reinterpret_cast<const uv_handle_t*>(delivery_.get()))) deliverPortion();
}

// A loop with an idle handle does not wait for events.
void RedisStore::deliverPortion() {
  const auto mayArriveThere = [this](Path path, const Subscriber& subscriber) {
    return mayArrive(path, subscriber);
  };
  const auto delivered = [this](Path path, const Subscriber& subscriber) {
    for (const Path& mount : mountsUnder(path, subscriber)) volatile_.delivered(mount);
  };
  const bool hasAll = hasRows_ && refresh_.isDone();
  if (!hasAll || !subscribers_.deliverSnapshots(mayArriveThere, delivered)) {
    uv_idle_stop(delivery_.get());
    return;
  }
  uv_idle_start(delivery_.get(), [](uv_idle_t* handle) {
    Loop::guard(handle->loop, [&] { static_cast<RedisStore*>(handle->data)->deliverPortion(); });
  });
}

// The mounts that the subscriber publishes, at, above or under its path.
std::vector<Path> RedisStore::mountsUnder(Path path, const Subscriber& subscriber) const {
  std::vector<Path> mounts;
  for (const std::string& text : volatile_.mounts()) {
    const Path mount(text);
    const bool concerns = mount.isUnder(path) || path.isUnder(mount);
    if (concerns && subscriber.publishes(mount)) mounts.push_back(mount);
  }
  return mounts;
}

bool RedisStore::mayArrive(Path path, const Subscriber& subscriber) const {
  return std::ranges::none_of(mountsUnder(path, subscriber),
                              [this](Path mount) { return volatile_.isStandby(mount); });
}

void RedisStore::write(const Changes& changes, Durability durability, Subscriber* origin) {
  if (durability == Durability::cover) return writeCovers(changes);
  volatile_.check(changes);
  durability == Durability::stored ? writeStored(changes, origin) : writeVolatile(changes, origin);
}

// Nobody covers what others publish; who removes a cover removes nothing of theirs.
void RedisStore::writeCovers(const Changes& changes) {
  Changes puts;
  std::ranges::copy_if(changes, std::back_inserter(puts),
                       [](const Change& each) { return each.kind == Change::Kind::put; });
  volatile_.check(puts);
  LayeredChanges visible;
  covers_.write(ownCovers_.stepsOf(changes), visible);
  notify(std::move(visible));
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
  volatile_.write(changes, notice.changes);
  if (origin) notice.revealed = mirror_.revealedBy(changes);
  subscribers_.notify(std::move(notice));
}

Ticket RedisStore::flush() {
  subscribers_.deliver();
  const Ticket ticket = stored_.flush(volatile_.heldClaims());
  volatile_.send();
  covers_.send();
  upstream_.flush();
  deliverSnapshots();
  return ticket;
}

void RedisStore::onReached() {
  volatile_.onReached();
  covers_.onReached();
  upstream_.flush();
}

// All that was asked for when the server was reached is there: its claims, and all rows in the mirror.
void RedisStore::complete() {
  if (!volatile_.areClaimsKnown() || !covers_.areClaimsKnown() || !refresh_.isDone()) return;
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
  isReached_ = false;
  using Kind = Loss::Kind;
  const bool needsHelp = (loss.kind == Kind::refused && loss.refusal != Refusal::loading) ||
                         loss.kind == Kind::invalid || loss.kind == Kind::password;
  if (losses_.empty() || (needsHelp && !losses_.contains(loss.kind)))
    report(loss.text + (hasRows_ ? "; the lights stay as they are" : "; trying until it is reached"));
  losses_.insert(loss.kind);
  volatile_.onLost();
  covers_.onLost();
  stored_.onLost(now());
}

void RedisStore::onRows(Durability space) {
  if (space != Durability::stored) {
    of(space).onRows();
    return upstream_.flush();
  }
  wipedAt_.reset();
  refresh_.start(space, [this](Path path) { return upstream_.rows(Durability::stored).find(path); });
}

void RedisStore::onEntry(const Upstream::Owner::Entry& entry) {
  entry.space == Durability::stored ? carryStored(entry) : carryPublished(entry);
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

void RedisStore::carryPublished(const Upstream::Owner::Entry& entry) {
  LayeredChanges visible;
  of(entry.space).carry(entry, isReached_, visible);
  notify(std::move(visible));
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
  of(write.space).onSettled(write.sequence, outcome);
  upstream_.flush();
}

void RedisStore::onRefused(const WriteId& write, const Reply& error) {
  const Refusal refusal = error.refusal();
  if (write.space == Durability::stored) {
    const bool isForGood = refusal == Refusal::claimed || refusal == Refusal::otherType;
    stored_.onRefused(write.sequence, isForGood ? Ticket::Kind::refused : Ticket::Kind::failed,
                      "state database " + text_ + ": " + error.text + ": " + refusalText(refusal));
    if (refusal == Refusal::claimed) volatile_.onFenced(error);
  } else {
    of(write.space).onRefused(write.sequence, error);
  }
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
  volatile_.tick();
  covers_.tick();
  upstream_.flush();
}

}  // namespace Host::Redis
