#include "host/store/redis/subscribers.h"

#include <algorithm>
#include <utility>

namespace Host::Redis {

using Statedb::Changes;
using Statedb::Path;
using Statedb::Records;
using Statedb::Subscriber;

void Subscribers::add(Path path, Subscriber& subscriber) {
  remove(subscriber);
  subscriptions_.push_back({path, &subscriber});
}

void Subscribers::remove(const Subscriber& subscriber) {
  std::erase_if(subscriptions_, [&](const Subscription& each) { return each.subscriber == &subscriber; });
}

bool Subscribers::has(const Subscriber& subscriber) const {
  return std::ranges::find(subscriptions_, &subscriber, &Subscription::subscriber) != subscriptions_.end();
}

void Subscribers::notify(Notice notice) {
  if (!notice.changes.empty() || !notice.revealed.empty()) notices_.push_back(std::move(notice));
}

void Subscribers::deliver() {
  for (const Notice& notice : std::exchange(notices_, {})) deliver(notice);
}

// Iterates over a copy: a handler may subscribe and unsubscribe any subscriber.
void Subscribers::deliver(const Notice& notice) {
  for (const Subscription& each : std::vector(subscriptions_)) {
    if (each.isDue || !has(*each.subscriber)) continue;
    if (each.subscriber == notice.origin)
      takePart(notice.revealed, each.path, [&](const Changes& part) { each.subscriber->onRevealed(part); });
    else
      takePart(notice.changes.of(each.subscriber->layer()), each.path,
               [&](const Changes& part) { each.subscriber->onChanges(part); });
  }
}

// Looks for the next one each time, for the same reason.
void Subscribers::deliverSnapshots(const Mirror& mirror, const MayArrive& mayArrive,
                                   const Delivered& delivered) {
  for (;;) {
    const auto due = std::ranges::find_if(subscriptions_, [&](const Subscription& each) {
      return each.isDue && mayArrive(each.path, *each.subscriber);
    });
    if (due == subscriptions_.end()) return;
    due->isDue = false;
    Subscriber& subscriber = *due->subscriber;
    delivered(due->path, subscriber);
    mirror.withShown(due->path, subscriber.layer(),
                     [&](const Records& records) { subscriber.onSnapshot(records); });
  }
}

}  // namespace Host::Redis
