#include <algorithm>
#include <map>
#include <optional>

#include "platform/statedb/store.h"
#include "platform/zel/assert.h"

namespace Statedb {

StoreError::~StoreError() = default;
Feed::~Feed() = default;
Store::~Store() = default;

namespace {

struct Entry {
  std::string type;
  Durability durability = Durability::stored;
  std::vector<Zel::Value::Field> attributes;  // in the order in which they were first set

  Zel::Value* find(const std::string& attribute) {
    const auto found = std::ranges::find(attributes, attribute, &Zel::Value::Field::first);
    return found == attributes.end() ? nullptr : &found->second;
  }
};

using Entries = std::map<std::string, Entry>;

// What a path had before a change; nothing where no entity was there.
struct Undo {
  std::string path;
  std::optional<Entry> before;
};

struct Told {
  Changes changes;
  Feed* origin;
};

struct Subscription {
  Feed* feed;
  std::string path;
};

// The first entry under `path` other than the one at it, and the first behind those: '0' follows '/'.
template <class Map>
auto below(Map& entries, const std::string& path) {
  if (path.empty()) return std::pair(entries.begin(), entries.end());
  return std::pair(entries.lower_bound(path + '/'), entries.lower_bound(path + '0'));
}

}  // namespace

struct MemoryStore::State {
  Entries entries;
  std::vector<Undo> undo;  // since the last flush
  std::vector<Told> told;  // the same, for the feeds
  std::vector<Subscription> subscriptions;

  void remember(const std::string& path) {
    const auto found = entries.find(path);
    undo.push_back({path, found == entries.end() ? std::nullopt : std::optional(found->second)});
  }

  void undoTo(std::size_t size) {
    while (undo.size() > size) {
      Undo& last = undo.back();
      if (last.before)
        entries.insert_or_assign(last.path, std::move(*last.before));
      else
        entries.erase(last.path);
      undo.pop_back();
    }
  }

  // Takes out the entity at a path and all under it. Returns whether a stored one was among them.
  bool remove(const std::string& path) {
    bool stored = false;
    const auto note = [&](const auto& entry) {
      remember(entry.first);
      stored |= entry.second.durability == Durability::stored;
    };
    if (const auto at = entries.find(path); at != entries.end()) {
      note(*at);
      entries.erase(at);
    }
    const auto [first, last] = below(entries, path);
    std::for_each(first, last, note);
    entries.erase(first, last);
    return stored;
  }

  bool has(const std::string& path) const {
    if (entries.contains(path)) return true;
    const auto [first, last] = below(entries, path);
    return first != last;
  }
};

MemoryStore::MemoryStore() : state_(std::make_unique<State>()) {}
MemoryStore::~MemoryStore() = default;

void MemoryStore::subscribe(const std::string& path, Feed& feed) {
  flush();
  unsubscribe(feed);
  state_->subscriptions.push_back({&feed, path});
  feed.onSnapshot(read(path));
}

void MemoryStore::unsubscribe(Feed& feed) {
  std::erase_if(state_->subscriptions, [&](const Subscription& each) { return each.feed == &feed; });
}

namespace {

// Carries one batch into the entries, and notes the steps that change anything: `told` for the feeds,
// `stored` for what keeps rows elsewhere.
template <class State>
struct Writer {
  State& state;
  Durability durability;
  Changes told{};
  Changes stored{};

  void apply(const Change& change) {
    if (change.kind == Change::Kind::del)
      del(change);
    else
      put(change.row);
  }

  void del(const Change& change) {
    if (!state.has(change.row.path)) return;
    told.push_back(change);
    if (state.remove(change.row.path)) stored.push_back(change);
  }

  void put(const Row& row) {
    auto at = state.entries.find(row.path);
    if (at != state.entries.end() && at->second.type != row.type) {
      del(Change::del(row.path));
      at = state.entries.end();
    }
    if (at == state.entries.end()) {
      state.remember(row.path);
      at = state.entries.emplace(row.path, Entry{row.type, durability, {}}).first;
      note(at->second, Change::put(row.path, row.type, "", {}));
    }
    if (row.attribute.empty()) return;
    Zel::Value* value = at->second.find(row.attribute);
    if (value && *value == row.value) return;
    state.remember(row.path);
    if (value)
      *value = row.value;
    else
      at->second.attributes.emplace_back(row.attribute, row.value);
    note(at->second, {Change::Kind::put, row});
  }

  void note(const Entry& entry, Change change) {
    if (durability == Durability::stored && entry.durability == Durability::stored) stored.push_back(change);
    told.push_back(std::move(change));
  }
};

}  // namespace

void MemoryStore::write(const Changes& changes, Durability durability, Feed* origin) {
  const std::size_t before = state_->undo.size();
  Writer<State> writer{*state_, durability};
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
  if (state_->told.empty()) return;
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
    for (const auto& [feed, path] : subscriptions) {
      const bool there =
          std::ranges::find(state_->subscriptions, feed, &Subscription::feed) != state_->subscriptions.end();
      if (feed == told.origin || !there) continue;
      Changes concerned;
      std::ranges::copy_if(told.changes, std::back_inserter(concerned),
                           [&](const Change& change) { return concerns(change, path); });
      if (!concerned.empty()) feed->onChanges(concerned);
    }
  }
}

std::vector<Row> MemoryStore::read(const std::string& path) const {
  std::vector<Row> rows;
  const auto add = [&](const auto& entry) {
    rows.push_back({entry.first, entry.second.type, "", {}});
    for (const auto& [attribute, value] : entry.second.attributes)
      rows.push_back({entry.first, entry.second.type, attribute, value});
  };
  if (const auto at = state_->entries.find(path); at != state_->entries.end()) add(*at);
  const auto [first, last] = below(state_->entries, path);
  std::for_each(first, last, add);
  return rows;
}

std::string MemoryStore::typeAt(const std::string& path) const {
  const auto found = state_->entries.find(path);
  return found == state_->entries.end() ? std::string() : found->second.type;
}

std::size_t MemoryStore::entities() const { return state_->entries.size(); }

void MemoryStore::restore(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    Entry& entry = state_->entries[row.path];
    entry.type = row.type;
    if (!row.attribute.empty()) entry.attributes.emplace_back(row.attribute, row.value);
  }
}

}  // namespace Statedb
