#include "platform/statedb/store/memorystore.h"

#include <algorithm>
#include <optional>
#include <span>
#include <utility>

#include "platform/statedb/store/entrytable.h"
#include "platform/zel/core/assert.h"

namespace Statedb {

namespace {

using Places = std::vector<std::pair<Path, Zel::Name>>;

}  // namespace

struct Notice {
  Changes changes{};   // for all subscribers but `origin`
  Places corrected{};  // for `origin`: attributes, or whole entities, that do not show what it wrote
  Subscriber* origin = nullptr;
};

struct Subscription {
  Subscriber* subscriber;
  Path path;
};

// The stored batches since the last flush: the undo marks before the first of them, and the volatile batches
// after it, which are written again if the stored ones are undone.
struct Uncommitted {
  struct Batch {
    Changes changes;
    Subscriber* origin;
  };
  std::size_t change;
  std::size_t notice;
  std::vector<Batch> volatileSince{};
};

struct MemoryStore::State {
  EntryTable entries;
  std::vector<Notice> notices;  // since the last flush
  std::optional<Uncommitted> uncommitted{};
  std::vector<Subscription> subscriptions;

  // Whether the path of any subscription but those of `origin` satisfies `matches`.
  template <class Matches>
  bool anySubscription(const Subscriber* origin, Matches matches) const {
    return std::ranges::any_of(subscriptions, [&](const Subscription& each) {
      return each.subscriber != origin && matches(each.path);
    });
  }

  bool isSubscribed(const Subscriber& subscriber) const {
    return std::ranges::find(subscriptions, &subscriber, &Subscription::subscriber) != subscriptions.end();
  }
};

MemoryStore::MemoryStore() : state_(std::make_unique<State>()) {}
MemoryStore::~MemoryStore() = default;

void MemoryStore::subscribe(Path path, Subscriber& subscriber) {
  flush();
  unsubscribe(subscriber);
  state_->subscriptions.push_back({&subscriber, path});
  subscriber.onSnapshot(state_->entries.under(path));
}

void MemoryStore::unsubscribe(Subscriber& subscriber) {
  std::erase_if(state_->subscriptions,
                [&](const Subscription& each) { return each.subscriber == &subscriber; });
}

namespace {

void appendRows(const Entry& entry, Changes& changes) {
  changes.push_back(Change::put(entry.path, entry.type, {}, {}));
  for (const Attribute& each : entry.attributes)
    changes.push_back(Change::put(entry.path, entry.type, each.name, each.value));
}

// Applies one batch to the entries and collects its effects: `visible` for the subscribers other than
// `origin`, `corrected` for `origin`, `stored` for persist().
template <class State>
struct Writer {
  State& state;
  const Durability durability;
  Subscriber* const origin;
  Changes visible{};
  Places corrected{};
  Changes stored{};
  EntryTable& entries = state.entries;
  // A memo, because consecutive changes are mostly in one collection: the last change's parent path, and
  // whether a subscription covers it.
  Path lastAbove{};
  bool isCovered = false;

  bool isStored() const { return durability == Durability::stored; }

  void apply(const Change& change) {
    if (change.kind == Change::Kind::put)
      put(change);
    else if (change.kind == Change::Kind::unset)
      unset(change);
    else if (isStored())
      del(change.row.path);
    else
      withdraw(change.row.path);
  }

  void put(const Change& change) {
    const Row& row = change.row;
    Entry* entry = entries.find(row.path);
    if (entry && entry->type != row.type) {
      replace(*entry, row);
      entry = nullptr;
    }
    if (!entry) {
      entry = &entries.make(row.path, row.type, durability);
      note(Change::put(row.path, row.type, {}, {}));
    } else if (isStored() && entry->durability == Durability::volatile_) {
      entries.storedIs(*entry);
      stored.push_back(Change::put(row.path, row.type, {}, {}));
    }
    if (!row.attribute.empty()) set(*entry, change);
  }

  // Removes an entity of another type. A volatile row can't replace a stored entity.
  void replace(const Entry& entry, const Row& row) {
    if (!isStored() && anyStored(row.path))
      throw RefusedError("'" + row.path.text() + "' is stored as a " + entry.type.stdString() +
                         "; delete it before a " + row.type.stdString() + " is published there");
    del(row.path);
  }

  bool anyStored(Path path) const {
    return std::ranges::any_of(entries.under(path), [](const Record* each) {
      return static_cast<const Entry*>(each)->durability == Durability::stored;
    });
  }

  void set(Entry& entry, const Change& change) {
    const Row& row = change.row;
    Attribute* attribute = findIn(entry.attributes, row.attribute);
    if (!attribute) {
      entries.add(entry, {row.attribute, row.value, durability});
      return note(change);
    }
    if (attribute->durability != durability)
      return isStored() ? hide(entry, change) : cover(entry, *attribute, change);
    if (attribute->value == row.value) return;
    entries.change(entry, *attribute, row.value);
    note(change);
  }

  // Keeps a stored value under the visible volatile one.
  void hide(Entry& entry, const Change& change) {
    correct(entry.path, change.row.attribute);
    const Zel::Value* before = entries.hidden(entry, change.row.attribute);
    if (before && *before == change.row.value) return;
    entries.hide(entry, change.row.attribute, change.row.value);
    stored.push_back(change);
  }

  // The origin assumes that its value is visible; it must be notified of the one that is.
  void correct(Path path, Zel::Name attribute) {
    if (origin) corrected.emplace_back(path, attribute);
  }

  // Puts a volatile value over a stored one.
  void cover(Entry& entry, Attribute& attribute, const Change& change) {
    const bool isSeen = attribute.value != change.row.value;
    entries.cover(entry, attribute, change.row.value);
    if (isSeen) notify(change);
  }

  // Removes the entity at a path and all under it.
  void del(Path path) {
    bool any = false, isKept = false;
    path.forEachUnder([&](Path each) {
      Entry* entry = entries.find(each);
      if (!entry) return;
      any = true;
      isKept |= entry->durability == Durability::stored;
      entries.remove(*entry);
    });
    if (any) notify(Change::del(path));
    if (isKept) stored.push_back(Change::del(path));
  }

  // Removes volatile values and entities at and under a path, which reveals the stored ones. The origin has
  // dropped those as well, so it gets them back.
  void withdraw(Path path) {
    std::optional<Path> gone;  // subscribers drop it with all under it
    path.forEachUnder([&](Path each) {
      Entry* entry = entries.find(each);
      if (!entry) return;
      const bool isGone = gone && each.isUnder(*gone);
      if (entry->durability == Durability::stored) {
        uncover(*entry, !isGone);
        if (isGone) appendRows(*entry, visible);
        correct(each, {});
        return;
      }
      entries.remove(*entry);
      if (isGone) return;
      gone = each;
      notify(Change::del(each));
    });
  }

  void uncover(Entry& entry, bool notifies) {
    std::vector<Zel::Name> names;
    for (const Attribute& each : entry.attributes)
      if (each.durability == Durability::volatile_) names.push_back(each.name);
    for (const Zel::Name name : names) uncover(entry, name, notifies);
  }

  // Removes the volatile value of an attribute and reveals the stored one, if any.
  void uncover(Entry& entry, Zel::Name name, bool notifies) {
    if (!entries.hidden(entry, name)) {
      entries.remove(entry, name);
      if (notifies) notify(Change::unset(entry.path, name));
      return;
    }
    Attribute& attribute = *findIn(entry.attributes, name);
    const Zel::Value before = attribute.value;
    entries.uncover(entry, attribute);
    if (notifies && attribute.value != before)
      notify(Change::put(entry.path, entry.type, name, attribute.value));
  }

  void unset(const Change& change) {
    const Zel::Name name = change.row.attribute;
    Entry* entry = entries.find(change.row.path);
    const Attribute* attribute = entry ? findIn(entry->attributes, name) : nullptr;
    if (!attribute) return;
    const bool wasStored = attribute->durability == Durability::stored;
    if (isStored()) {
      if (wasStored || entries.hidden(*entry, name)) stored.push_back(change);
      entries.remove(*entry, name);
      return notify(change);
    }
    if (!wasStored) uncover(*entry, name, true);
    correct(entry->path, name);
  }

  void note(const Change& change) {
    if (isStored()) stored.push_back(change);
    notify(change);
  }
  void notify(const Change& change) {
    if (isSubscribed(change)) visible.push_back(change);
  }

  // Whether a subscription other than `origin` covers a change.
  bool isSubscribed(const Change& change) {
    const Path path = change.row.path;
    if (change.kind == Change::Kind::del || path.empty())
      return state.anySubscription(origin, [&](Path subscribed) { return concerns(change, subscribed); });
    if (const Path above = path.parent(); above != lastAbove || above.empty()) {
      lastAbove = above;
      isCovered = state.anySubscription(origin, [&](Path subscribed) { return above.isUnder(subscribed); });
    }
    return isCovered || state.anySubscription(origin, [&](Path subscribed) { return path == subscribed; });
  }
};

Changes asSeen(const EntryTable& entries, const Places& places) {
  Changes changes;
  for (const auto& [path, attribute] : places) {
    const Entry* entry = entries.find(path);
    if (entry && attribute.empty()) appendRows(*entry, changes);
    const Zel::Value* value = entry ? entry->find(attribute) : nullptr;
    if (value) changes.push_back(Change::put(path, entry->type, attribute, *value));
  }
  return changes;
}

// Notifies a subscriber of its part of a batch.
void notify(const Notice& notice, const Subscription& to, const EntryTable& entries) {
  if (to.subscriber == notice.origin)
    takePart(asSeen(entries, notice.corrected), to.path,
             [&](const Changes& part) { to.subscriber->onRevealed(part); });
  else
    takePart(notice.changes, to.path, [&](const Changes& part) { to.subscriber->onChanges(part); });
}

// Iterates over a copy: a handler may subscribe and unsubscribe any subscriber.
template <class State>
void notifySubscribers(const State& state, const Notice& notice) {
  for (const Subscription& each : std::vector(state.subscriptions))
    if (state.isSubscribed(*each.subscriber)) notify(notice, each, state.entries);
}

}  // namespace

void MemoryStore::write(const Changes& changes, Durability durability, Subscriber* origin) {
  EntryTable& entries = state_->entries;
  const std::size_t before = entries.mark();
  std::vector<Notice>& notices = state_->notices;
  const std::size_t noticesBefore = notices.size();
  auto& uncommitted = state_->uncommitted;
  Writer<State> writer{*state_, durability, origin};
  try {
    constexpr std::size_t kAtOnce = 16;
    for (std::size_t i = 0; i < changes.size(); ++i) {
      if (i % kAtOnce == 0)
        entries.prefetch(std::span(changes).subspan(i, std::min(kAtOnce, changes.size() - i)));
      writer.apply(changes[i]);
    }
    if (!writer.visible.empty() || !writer.corrected.empty())
      notices.push_back({std::move(writer.visible), std::move(writer.corrected), origin});
    if (writer.isStored() && !uncommitted) uncommitted.emplace(Uncommitted{before, noticesBefore});
    if (!writer.isStored() && uncommitted) uncommitted->volatileSince.push_back({changes, origin});
    if (!writer.stored.empty()) persist(writer.stored);
  } catch (...) {
    notices.resize(noticesBefore);
    entries.undoTo(before);
    throw;
  }
}

Ticket MemoryStore::flush() {
  if (!state_->entries.anyChange() && state_->notices.empty()) {
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
  for (const Notice& notice : std::exchange(state_->notices, {})) notifySubscribers(*state_, notice);
}

// Returns the number of volatile changes that are refused without the stored ones.
std::size_t MemoryStore::undoStored() {
  rollback();
  const Uncommitted undone = *std::exchange(state_->uncommitted, std::nullopt);
  state_->entries.undoTo(undone.change);
  state_->notices.resize(undone.notice);
  std::size_t lost = 0;
  for (const auto& [changes, origin] : undone.volatileSince) lost += writeAgain(changes, origin);
  return lost;
}

// Bisects a refused batch down to the changes at fault.
std::size_t MemoryStore::writeAgain(const Changes& changes, Subscriber* origin) {
  try {
    write(changes, Durability::volatile_, origin);
    return 0;
  } catch (const RefusedError&) {
    if (changes.size() == 1) return 1;
    const auto [first, second] = halves(changes);
    const std::size_t lost = writeAgain(first, origin);
    return lost + writeAgain(second, origin);
  }
}

Records MemoryStore::read(Path path) const {
  Records records = state_->entries.under(path);
  std::ranges::sort(records, &readsBefore, &Record::path);
  return records;
}

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
  ZEL_REQUIRE(!findIn(entry->attributes, row.attribute), row.path << ' ' << row.attribute);
  if (!row.attribute.empty()) entry->attributes.emplace_back(row.attribute, std::move(row.value));
}

}  // namespace Statedb
