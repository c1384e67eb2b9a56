#include <algorithm>
#include <optional>
#include <utility>

#include "platform/statedb/store.h"
#include "platform/zel/assert.h"

namespace Statedb {

StoreError::~StoreError() = default;
Feed::~Feed() = default;
Store::~Store() = default;

namespace {

struct Entry : Record {
  Durability durability = Durability::stored;
};

// Takes one change back, the last first. Entries do not move, so that which changed is pointed to; one that
// was removed comes back as the same.
struct Undo {
  Entry* at = nullptr;                   // was made, or got another attribute or value
  std::unique_ptr<Entry> removed{};      // or was removed
  std::optional<std::size_t> changed{};  // which of its attributes; else one was added
  Zel::Value before{};
  bool made = false;
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
  std::vector<std::unique_ptr<Entry>> entries;  // at the number of their paths; null: none
  std::size_t count = 0;
  std::vector<Undo> undo;  // since the last flush
  std::vector<Told> told;  // the same, of what the feeds are to hear
  std::vector<Subscription> subscriptions;

  // Null where there is none.
  Entry* find(Path path) const { return path.id() < entries.size() ? entries[path.id()].get() : nullptr; }

  Entry& insert(std::unique_ptr<Entry> entry) {
    const std::size_t at = entry->path.id();
    if (at >= entries.size()) entries.resize(Path::count());
    entries[at] = std::move(entry);
    ++count;
    return *entries[at];
  }

  std::unique_ptr<Entry> extract(Path path) {
    --count;
    return std::move(entries[path.id()]);
  }

  void undoTo(std::size_t size) {
    for (; undo.size() > size; undo.pop_back()) {
      Undo& last = undo.back();
      if (last.removed)
        insert(std::move(last.removed));
      else if (last.made)
        extract(last.at->path);
      else if (last.changed)
        last.at->attributes[*last.changed].value = std::move(last.before);
      else
        last.at->attributes.pop_back();
    }
  }

  Entry& make(const Row& row, Durability durability) {
    Entry& entry = insert(std::make_unique<Entry>(Entry{{row.path, row.type, {}}, durability}));
    undo.push_back({.at = &entry, .made = true});
    return entry;
  }

  // Returns whether that changed anything.
  bool set(Entry& entry, Zel::Name attribute, const Zel::Value& value) {
    auto& attributes = entry.attributes;
    const auto found = std::ranges::find(attributes, attribute, &Attribute::name);
    if (found == attributes.end()) {
      attributes.push_back({attribute, value});
      undo.push_back({.at = &entry});
      return true;
    }
    if (found->value == value) return false;
    const auto position = static_cast<std::size_t>(found - attributes.begin());
    undo.push_back({.at = &entry, .changed = position, .before = std::exchange(found->value, value)});
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
      if (!find(each)) return;
      removed.any = true;
      removed.stored |= find(each)->durability == Durability::stored;
      undo.push_back({.removed = extract(each)});
    });
    return removed;
  }

  // Whether anybody but `origin` is to hear of a change.
  bool hears(const Change& change, const Feed* origin) const {
    return std::ranges::any_of(subscriptions, [&](const Subscription& each) {
      return each.feed != origin && concerns(change, each.path);
    });
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
    if (state.hears(change, origin)) told.push_back(change);
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
    for (const Change& change : changes) writer.apply(change);
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
  state_->undo.clear();
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

void MemoryStore::restore(Row row) {
  Entry* entry = state_->find(row.path);
  if (!entry) entry = &state_->insert(std::make_unique<Entry>(Entry{{row.path, row.type, {}}, {}}));
  if (!row.attribute.empty()) entry->attributes.push_back({row.attribute, std::move(row.value)});
}

}  // namespace Statedb
