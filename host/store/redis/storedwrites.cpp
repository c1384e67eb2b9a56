#include "host/store/redis/storedwrites.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Host::Redis {

using Statedb::Changes;
using Statedb::Path;
using Statedb::Subscriber;
using Statedb::Ticket;

namespace {

std::vector<Claimed> claimsOf(const Changes& changes, const std::vector<Claimed>& held) {
  std::vector<Claimed> needed;
  for (const Claimed& each : held) {
    const auto isConcerned = [mount = Path(each.mount)](const auto& change) {
      return concerns(change, mount);
    };
    if (std::ranges::any_of(changes, isConcerned)) needed.push_back(each);
  }
  return needed;
}

}  // namespace

// Batches of one origin that are flushed together are one step.
void StoredWrites::add(const Changes& changes, Subscriber* origin) {
  Waiting* last = writes_.empty() || writes_.back().outcome ? nullptr : &writes_.back();
  if (last && last->write.origin == origin && last->write.changes.size() + changes.size() <= kMostChanges)
    last->write.changes.insert(last->write.changes.end(), changes.begin(), changes.end());
  else
    last = &writes_.emplace_back(Waiting{.write = {changes, origin}});
  last->pending.push_back(mirror_.pend(changes));
}

Ticket StoredWrites::flush(const std::vector<Claimed>& claims) {
  const auto first = std::ranges::find_if(writes_, [](const Waiting& each) { return !each.outcome; });
  if (first == writes_.end()) return {};
  const auto outcome = std::make_shared<Outcome>();
  const auto left = std::make_shared<std::size_t>(std::distance(first, writes_.end()));
  for (Place each = first; each != writes_.end();) {
    const Place place = each++;
    place->outcome = outcome;
    place->left = left;
    if (upstream_.isReached())
      place->sequence = upstream_
                            .write(Statedb::Durability::stored, place->write.changes,
                                   claimsOf(place->write.changes, claims))
                            .sequence;
    else
      end(place, Ticket::Kind::failed,
          "the state database was lost before it was written; nothing was stored");
  }
  return Ticket(outcome);
}

StoredWrites::Place StoredWrites::find(Sequence sequence) {
  return sequence == 0 ? writes_.end() : std::ranges::find(writes_, sequence, &Waiting::sequence);
}

void StoredWrites::end(Place place, Ticket::Kind kind, const std::string& failure) {
  for (const Mirror::Pending pending : place->pending) mirror_.settle(pending);
  Outcome& outcome = *place->outcome;
  if (kind != Ticket::Kind::taken && outcome.failure.empty()) {
    outcome.kind = kind;
    outcome.failure = failure;
  }
  outcome.isDone = --*place->left == 0;
  writes_.erase(place);
}

std::optional<StoredWrites::Write> StoredWrites::take(Sequence sequence) {
  const Place place = find(sequence);
  if (place == writes_.end()) return {};
  Write write = std::move(place->write);
  end(place, Ticket::Kind::taken, {});
  return write;
}

void StoredWrites::disturb() {
  for (Waiting& each : writes_) each.write.isDisturbed = true;
}

void StoredWrites::onSettled(Sequence sequence, Host::Redis::Outcome outcome) {
  const Place place = find(sequence);
  if (place == writes_.end()) return;
  if (outcome == Host::Redis::Outcome::applied)
    end(place, Ticket::Kind::taken, {});
  else if (outcome == Host::Redis::Outcome::notApplied)
    end(place, Ticket::Kind::failed, "the connection was lost before it was written; nothing was stored");
  else
    end(place, Ticket::Kind::unknown,
        "the connection was lost, and the log does not tell whether it was stored; look, and write again");
}

void StoredWrites::onRefused(Sequence sequence, Ticket::Kind kind, const std::string& text) {
  const Place place = find(sequence);
  if (place != writes_.end()) end(place, kind, text);
}

void StoredWrites::check(std::uint64_t now) {
  if (upstream_.isReached()) lostAt_.reset();
  if (!lostAt_ || now < *lostAt_ + kDecidedWithin) return;
  while (!writes_.empty() && writes_.front().outcome)
    end(writes_.begin(), Ticket::Kind::unknown,
        "the connection was lost before the answer; it may have been stored: look when it is back");
}

}  // namespace Host::Redis
