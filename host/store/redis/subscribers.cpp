#include "host/store/redis/subscribers.h"

#include <uv.h>

#include <algorithm>
#include <utility>

namespace Host::Redis {

using Statedb::Changes;
using Statedb::Path;
using Statedb::Records;
using Statedb::Subscriber;

void Subscribers::add(Path path, Subscriber& subscriber) {
  remove(subscriber);
  subscriptions_.push_back(std::make_shared<Subscription>(Subscription{path, &subscriber}));
}

void Subscribers::remove(const Subscriber& subscriber) {
  std::erase_if(subscriptions_, [&](const auto& each) { return each->subscriber == &subscriber; });
}

bool Subscribers::has(const Subscription& subscription) const {
  return std::ranges::any_of(subscriptions_, [&](const auto& each) { return each.get() == &subscription; });
}

void Subscribers::notify(Notice notice) {
  if (!notice.changes.empty() || !notice.revealed.empty()) notices_.push_back(std::move(notice));
}

void Subscribers::deliver() {
  for (const Notice& notice : std::exchange(notices_, {})) deliver(notice);
}

// Iterates over a copy: a handler may subscribe and unsubscribe any subscriber.
void Subscribers::deliver(const Notice& notice) {
  for (const auto& each : Subscriptions(subscriptions_))
    if (has(*each) && (!each->isDue || each->cursor)) deliver(notice, *each);
}

void Subscribers::deliver(const Notice& notice, Subscription& to) {
  Subscriber& subscriber = *to.subscriber;
  const bool isOwn = &subscriber == notice.origin;
  const Changes& changes = notice.changes.of(subscriber.layer());
  const auto send = [&](const Changes& part) {
    isOwn ? subscriber.onRevealed(part) : subscriber.onChanges(part);
  };
  if (!to.cursor) return takePart(isOwn ? notice.revealed : changes, to.path, send);
  if (isOwn) takePart(changes, to.path, [&](const Changes& part) { to.cursor->wrote(part); });
  takePart(isOwn ? notice.revealed : changes, to.path, [&](const Changes& part) {
    const Changes reached = to.cursor->reached(part);
    if (!reached.empty()) send(reached);
  });
}

bool Subscribers::deliverSnapshots(const MayArrive& mayArrive, const Delivered& delivered) {
  const std::uint64_t start = uv_hrtime();
  do {
    deliver();
    const auto due = nextDue(mayArrive);
    if (due == subscriptions_.end()) return false;
    const auto kept = *due;  // a handler may unsubscribe it
    deliverPart(*kept, delivered);
  } while (uv_hrtime() - start < portion_.nanoseconds);
  return nextDue(mayArrive) != subscriptions_.end();
}

// A snapshot in one call does not wait for those in parts.
Subscribers::Subscriptions::const_iterator Subscribers::nextDue(const MayArrive& mayArrive) const {
  const auto isDue = [&](const auto& each) {
    return each->isDue && mayArrive(each->path, *each->subscriber);
  };
  const auto whole = std::ranges::find_if(
      subscriptions_, [&](const auto& each) { return !each->subscriber->snapshotParts() && isDue(each); });
  return whole == subscriptions_.end() ? std::ranges::find_if(subscriptions_, isDue) : whole;
}

void Subscribers::deliverPart(Subscription& to, const Delivered& delivered) {
  if (to.cursor)
    proceed(to, delivered);
  else if (to.subscriber->snapshotParts())
    begin(to, delivered);
  else
    deliverWhole(to, delivered);
}

void Subscribers::begin(Subscription& to, const Delivered& delivered) {
  SnapshotCursor cursor(mirror_, to.path, to.subscriber->layer());
  Records records;
  cursor.proceed(portion_.paths, records);
  if (cursor.isDone()) return deliverWhole(to, delivered);
  to.cursor.emplace(std::move(cursor));
  to.subscriber->snapshotParts()->onBegin();
  if (has(to)) to.subscriber->snapshotParts()->onPart(records);
}

void Subscribers::proceed(Subscription& to, const Delivered& delivered) {
  Records records;
  to.cursor->proceed(portion_.paths, records);
  if (!records.empty()) to.subscriber->snapshotParts()->onPart(records);
  const bool hasAll = to.cursor->isDone() && notices_.empty();
  if (!has(to) || !hasAll || !to.subscriber->snapshotParts()->onEnd()) return;
  to.cursor.reset();
  to.isDue = false;
  if (has(to)) delivered(to.path, *to.subscriber);
}

void Subscribers::deliverWhole(Subscription& to, const Delivered& delivered) {
  to.isDue = false;
  delivered(to.path, *to.subscriber);
  mirror_.withShown(to.path, to.subscriber->layer(),
                    [&](const Records& records) { to.subscriber->onSnapshot(records); });
}

}  // namespace Host::Redis
