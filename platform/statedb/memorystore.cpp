#include <algorithm>
#include <deque>
#include <span>
#include <utility>

#include "platform/statedb/store.h"
#include "platform/zel/assert.h"

namespace Statedb {

StoreError::~StoreError() = default;
Feed::~Feed() = default;
Store::~Store() = default;

namespace {

// An entity as it is kept; without a type where there is none.
struct Entry : Record {
  Durability durability = Durability::stored;
};

// Takes one change of an entry back; the last first.
struct Undo {
  enum class What : std::uint8_t { made, added, changed, removed };
  What what;
  std::uint32_t attribute = 0;  // changed: which
  Entry* at;
  Zel::Value before{};               // changed: the value
  std::unique_ptr<Entry> removed{};  // removed: what it was

  Undo(What theWhat, Entry& entry) : what(theWhat), at(&entry) {}
  void apply() {
    switch (what) {
      case What::made:
        *at = {};
        break;
      case What::added:
        at->attributes.pop_back();
        break;
      case What::changed:
        at->attributes[attribute].value = std::move(before);
        break;
      case What::removed:
        *at = std::move(*removed);
    }
  }
};

struct Told {
  Changes changes;
  Feed* origin;
};

struct Subscription {
  Feed* feed;
  Path path;
};

}  // namespace

struct MemoryStore::State {
  std::deque<Entry> entries;  // at the number of their paths; they do not move
  std::size_t count = 0;      // of those that are there
  std::vector<Undo> undo;     // since the last flush
  std::vector<Told> told;     // the same, of what the feeds are to hear
  std::vector<Subscription> subscriptions;

  // Null where there is none.
  const Entry* find(Path path) const {
    return path.id() < entries.size() && !entries[path.id()].type.empty() ? &entries[path.id()] : nullptr;
  }
  Entry* find(Path path) { return const_cast<Entry*>(std::as_const(*this).find(path)); }

  Entry& insert(Path path, Zel::Name type, Durability durability) {
    if (path.id() >= entries.size()) entries.resize(Path::count());
    Entry& entry = entries[path.id()];
    entry.path = path;
    entry.type = type;
    entry.durability = durability;
    ++count;
    return entry;
  }

  void undoTo(std::size_t size) {
    for (; undo.size() > size; undo.pop_back()) {
      if (undo.back().what == Undo::What::made) --count;
      if (undo.back().what == Undo::What::removed) ++count;
      undo.back().apply();
    }
  }

  Entry& make(const Row& row, Durability durability) {
    Entry& entry = insert(row.path, row.type, durability);
    undo.emplace_back(Undo::What::made, entry);
    return entry;
  }

  // Returns whether that changed anything.
  bool set(Entry& entry, Zel::Name attribute, const Zel::Value& value) {
    auto& attributes = entry.attributes;
    const auto found = std::ranges::find(attributes, attribute, &Attribute::name);
    if (found == attributes.end()) {
      attributes.push_back({attribute, value});
      const bool justMade = !undo.empty() && undo.back().what == Undo::What::made && undo.back().at == &entry;
      if (!justMade) undo.emplace_back(Undo::What::added, entry);
      return true;
    }
    if (found->value == value) return false;
    auto& changed = undo.emplace_back(Undo::What::changed, entry);
    changed.attribute = static_cast<std::uint32_t>(found - attributes.begin());
    changed.before = std::exchange(found->value, value);
    return true;
  }

  struct Removed {
    bool any = false;
    bool stored = false;  // whether a stored one was among them
  };
  // Takes out the entity at a path and all under it.
  Removed remove(Path path) {
    Removed removed;
    path.forEachUnder([&](Path each) {
      Entry* entry = find(each);
      if (!entry) return;
      removed.any = true;
      removed.stored |= entry->durability == Durability::stored;
      undo.emplace_back(Undo::What::removed, *entry).removed =
          std::make_unique<Entry>(std::exchange(*entry, {}));
      --count;
    });
    return removed;
  }

  // Whether any subscription but those of `origin` is one that `wanted` says.
  template <class Wanted>
  bool hears(const Feed* origin, Wanted wanted) const {
    return std::ranges::any_of(
        subscriptions, [&](const Subscription& each) { return each.feed != origin && wanted(each.path); });
  }

  // Fetches what carrying out some changes will look at, so that their misses overlap instead of adding up.
  void foresee(std::span<const Change> changes) const {
    for (const Change& change : changes) {
      const Path path = change.row.path;
      path.prefetch();
      if (path.id() < entries.size()) __builtin_prefetch(&entries[path.id()], 1);
    }
    for (const Change& change : changes)
      if (const Entry* entry = find(change.row.path)) __builtin_prefetch(entry->attributes.data(), 1);
  }

  Records under(Path path) const {
    Records records;
    if (path.empty()) records.reserve(count);
    path.forEachUnder([&](Path each) {
      if (const Entry* entry = find(each)) records.push_back(entry);
    });
    return records;
  }
};

MemoryStore::MemoryStore() : state_(std::make_unique<State>()) {}
MemoryStore::~MemoryStore() = default;

void MemoryStore::subscribe(Path path, Feed& feed) {
  flush();
  unsubscribe(feed);
  state_->subscriptions.push_back({&feed, path});
  feed.onSnapshot(state_->under(path));
}

void MemoryStore::unsubscribe(Feed& feed) {
  std::erase_if(state_->subscriptions, [&](const Subscription& each) { return each.feed == &feed; });
}

namespace {

// Carries one batch into the entries, and notes the steps that change anything: `told` for the feeds other
// than `origin`, `stored` for what keeps rows elsewhere.
template <class State>
struct Writer {
  State& state;
  const Durability durability;
  const Feed* const origin;
  Changes told{};
  Changes stored{};
  // Changes mostly follow each other in one collection: what stands above the last, and whether anybody hears
  // of what stands under that.
  Path lastAbove{};
  bool isHeard = false;

  void apply(const Change& change) {
    if (change.kind == Change::Kind::del)
      del(change);
    else
      put(change);
  }

  void del(const Change& change) {
    const auto removed = state.remove(change.row.path);
    if (removed.any) tell(change);
    if (removed.stored) stored.push_back(change);
  }

  void put(const Change& change) {
    const Row& row = change.row;
    Entry* entry = state.find(row.path);
    if (entry && entry->type != row.type) {
      del(Change::del(row.path));
      entry = nullptr;
    }
    if (!entry) {
      entry = &state.make(row, durability);
      note(*entry, Change::put(row.path, row.type, {}, {}));
    }
    if (!row.attribute.empty() && state.set(*entry, row.attribute, row.value)) note(*entry, change);
  }

  void note(const Entry& entry, const Change& change) {
    if (durability == Durability::stored && entry.durability == Durability::stored) stored.push_back(change);
    tell(change);
  }
  void tell(const Change& change) {
    if (hears(change)) told.push_back(change);
  }

  // Whether anybody but `origin` is to hear of a change.
  bool hears(const Change& change) {
    const Path path = change.row.path;
    if (change.kind == Change::Kind::del || path.empty())
      return state.hears(origin, [&](Path subscribed) { return concerns(change, subscribed); });
    if (const Path above = path.parent(); above != lastAbove || above.empty()) {
      lastAbove = above;
      isHeard = state.hears(origin, [&](Path subscribed) { return above.isUnder(subscribed); });
    }
    return isHeard || state.hears(origin, [&](Path subscribed) { return path == subscribed; });
  }
};

// Tells a feed the part of a batch that concerns its path.
void tell(Feed& feed, Path path, const Changes& changes) {
  const auto isItsOwn = [&](const Change& change) { return concerns(change, path); };
  if (std::ranges::all_of(changes, isItsOwn)) return feed.onChanges(changes);
  Changes concerned;
  std::ranges::copy_if(changes, std::back_inserter(concerned), isItsOwn);
  if (!concerned.empty()) feed.onChanges(concerned);
}

}  // namespace

void MemoryStore::write(const Changes& changes, Durability durability, Feed* origin) {
  const std::size_t before = state_->undo.size();
  Writer<State> writer{*state_, durability, origin};
  try {
    constexpr std::size_t kAtOnce = 16;
    for (std::size_t i = 0; i < changes.size(); ++i) {
      if (i % kAtOnce == 0)
        state_->foresee(std::span(changes).subspan(i, std::min(kAtOnce, changes.size() - i)));
      writer.apply(changes[i]);
    }
    if (!writer.stored.empty()) persist(writer.stored);
  } catch (...) {
    state_->undoTo(before);
    throw;
  }
  if (!writer.told.empty()) state_->told.push_back({std::move(writer.told), origin});
}

void MemoryStore::flush() {
  if (state_->undo.empty()) return;
  try {
    commit();
  } catch (...) {
    rollback();
    state_->undoTo(0);
    state_->told.clear();
    throw;
  }
  clearKeeping(state_->undo);
  for (const Told& told : std::exchange(state_->told, {})) {
    const auto subscriptions = state_->subscriptions;
    for (const Subscription& each : subscriptions) {
      const auto still = std::ranges::find(state_->subscriptions, each.feed, &Subscription::feed);
      if (each.feed != told.origin && still != state_->subscriptions.end())
        tell(*each.feed, each.path, told.changes);
    }
  }
}

Records MemoryStore::read(Path path) const {
  Records records = state_->under(path);
  std::ranges::sort(records, &readsBefore, &Record::path);
  return records;
}

Zel::Name MemoryStore::typeAt(Path path) const {
  const Entry* entry = state_->find(path);
  return entry ? entry->type : Zel::Name();
}

std::size_t MemoryStore::entities() const { return state_->count; }

std::size_t MemoryStore::entities(Zel::Name type) const {
  return static_cast<std::size_t>(std::ranges::count(state_->entries, type, &Entry::type));
}

void MemoryStore::restore(Row row) {
  Entry* entry = state_->find(row.path);
  if (!entry) entry = &state_->insert(row.path, row.type, Durability::stored);
  if (!row.attribute.empty()) entry->attributes.push_back({row.attribute, std::move(row.value)});
}

}  // namespace Statedb
