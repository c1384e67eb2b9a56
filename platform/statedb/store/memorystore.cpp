#include "platform/statedb/store/memorystore.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "platform/statedb/store/memorystate.h"
#include "platform/zel/core/exception.h"

namespace Statedb {

MemoryStore::MemoryStore() : state_(std::make_unique<MemoryState>()) {}
MemoryStore::~MemoryStore() = default;

void MemoryStore::subscribe(Path path, Subscriber& subscriber) {
  flush();
  unsubscribe(subscriber);
  state_->subscriptions.push_back({&subscriber, path});
  subscriber.onSnapshot(state_->under(path, subscriber.layer()));
}

void MemoryStore::unsubscribe(Subscriber& subscriber) {
  std::erase_if(state_->subscriptions,
                [&](const Subscription& each) { return each.subscriber == &subscriber; });
}

namespace {

Changes asSeen(const MemoryState& state, const Places& places) {
  Changes changes;
  for (const auto& [path, attribute] : places) {
    const Entry* entry = state.entries.find(path);
    if (!entry) continue;
    const Record& seen = state.covers.over(*entry);
    if (attribute.empty()) appendRows(seen, changes);
    if (const Zel::Value* value = seen.find(attribute))
      changes.push_back(Change::put(path, seen.type, attribute, *value));
  }
  return changes;
}

// Notifies a subscriber of its part of a batch.
void notify(const Notice& notice, const Subscription& to, const MemoryState& state) {
  if (to.subscriber == notice.origin)
    return takePart(asSeen(state, notice.corrected), to.path,
                    [&](const Changes& part) { to.subscriber->onRevealed(part); });
  const bool isOfBase = notice.base && to.subscriber->layer() == Layer::base;
  takePart(isOfBase ? *notice.base : notice.changes, to.path,
           [&](const Changes& part) { to.subscriber->onChanges(part); });
}

// Iterates over a copy: a handler may subscribe and unsubscribe any subscriber.
void notifySubscribers(const MemoryState& state, const Notice& notice) {
  for (const Subscription& each : std::vector(state.subscriptions))
    if (state.isSubscribed(*each.subscriber)) notify(notice, each, state);
}

}  // namespace

Ticket MemoryStore::flush() {
  if (!state_->entries.anyChange() && state_->notices.empty()) {
    state_->covers.settle();
    state_->uncommitted.reset();
    return {};
  }
  try {
    if (state_->uncommitted) commit();
  } catch (const StoreError& error) {
    const std::size_t lost = undoStored();
    publish();
    if (lost == 0) throw NotStoredError(error.what());
    throw;
  }
  publish();
  return {};
}

void MemoryStore::publish() {
  state_->uncommitted.reset();
  state_->entries.settle();
  state_->covers.settle();
  for (const Notice& notice : std::exchange(state_->notices, {})) notifySubscribers(*state_, notice);
}

// Returns the number of volatile changes that are refused without the stored ones.
std::size_t MemoryStore::undoStored() {
  rollback();
  const Uncommitted undone = *std::exchange(state_->uncommitted, std::nullopt);
  state_->entries.undoTo(undone.change);
  state_->covers.undoTo(undone.cover);
  state_->notices.resize(undone.notice);
  std::size_t lost = 0;
  for (const auto& [changes, durability, origin] : undone.volatileSince)
    lost += writeAgain(changes, durability, origin);
  return lost;
}

// Bisects a refused batch down to the changes at fault.
std::size_t MemoryStore::writeAgain(const Changes& changes, Durability durability, Subscriber* origin) {
  try {
    write(changes, durability, origin);
    return 0;
  } catch (const RefusedError&) {
    if (changes.size() == 1) return 1;
    const auto [first, second] = halves(changes);
    const std::size_t lost = writeAgain(first, durability, origin);
    return lost + writeAgain(second, durability, origin);
  }
}

namespace {

Records sorted(Records records) {
  std::ranges::sort(records, &readsBefore, &Record::path);
  return records;
}

}  // namespace

Records MemoryStore::read(Path path) const { return sorted(state_->under(path, Layer::effective)); }
Records MemoryStore::readBase(Path path) const { return sorted(state_->under(path, Layer::base)); }
Records MemoryStore::readCovers(Path path) const { return sorted(state_->covers.under(path)); }

Zel::Name MemoryStore::typeAt(Path path) const {
  const Entry* entry = state_->entries.find(path);
  return entry ? entry->type : Zel::Name();
}

std::size_t MemoryStore::entities() const { return state_->entries.count(); }

std::unordered_map<Zel::Name, std::size_t> MemoryStore::entitiesByType() const {
  return state_->entries.countByType();
}

void MemoryStore::restore(Row row) {
  Entry* entry = state_->entries.find(row.path);
  if (!entry) entry = &state_->entries.insert(row.path, row.type, Durability::stored);
  if (row.attribute.empty()) return;
  if (findIn(entry->attributes, row.attribute))
    throw Zel::ValueError("'" + row.path.text() + "' has another value of '" + row.attribute.stdString() +
                          "'");
  entry->attributes.emplace_back(row.attribute, std::move(row.value));
}

}  // namespace Statedb
