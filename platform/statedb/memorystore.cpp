#include <algorithm>
#include <map>
#include <optional>
#include <utility>

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
};

using Entries = std::map<std::string, Entry>;

// Takes one change back. Entries do not move, so those that changed are pointed to: the undoing goes
// backwards, and an entry that was removed comes back as the same.
struct Undo {
  Entries::value_type* at = nullptr;     // was made, or got another attribute or value
  Entries::node_type removed{};          // or was removed
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
  std::vector<Told> told;  // the same, of what the feeds are to hear
  std::vector<Subscription> subscriptions;

  void undoTo(std::size_t size) {
    for (; undo.size() > size; undo.pop_back()) {
      Undo& last = undo.back();
      if (last.removed)
        entries.insert(std::move(last.removed));
      else if (last.made)
        entries.erase(last.at->first);
      else if (last.changed)
        last.at->second.attributes[*last.changed].second = std::move(last.before);
      else
        last.at->second.attributes.pop_back();
    }
  }

  Entries::iterator make(const std::string& path, Entry entry) {
    const auto at = entries.emplace(path, std::move(entry)).first;
    undo.push_back({.at = &*at, .made = true});
    return at;
  }

  // Returns whether that changed anything.
  bool set(Entries::value_type& at, const std::string& attribute, const Zel::Value& value) {
    auto& attributes = at.second.attributes;
    const auto found = std::ranges::find(attributes, attribute, &Zel::Value::Field::first);
    if (found == attributes.end()) {
      attributes.emplace_back(attribute, value);
      undo.push_back({.at = &at});
      return true;
    }
    if (found->second == value) return false;
    const auto position = static_cast<std::size_t>(found - attributes.begin());
    undo.push_back({.at = &at, .changed = position, .before = std::exchange(found->second, value)});
    return true;
  }

  // Takes out the entity at a path and all under it. Returns whether a stored one was among them.
  bool remove(const std::string& path) {
    bool stored = false;
    const auto take = [&](Entries::iterator at) {
      stored |= at->second.durability == Durability::stored;
      undo.push_back({.removed = entries.extract(at)});
    };
    if (const auto at = entries.find(path); at != entries.end()) take(at);
    for (auto [at, last] = below(entries, path); at != last;) take(at++);
    return stored;
  }

  // Whether anybody but `origin` is to hear of a change.
  bool hears(const Change& change, const Feed* origin) const {
    return std::ranges::any_of(subscriptions, [&](const Subscription& each) {
      return each.feed != origin && concerns(change, each.path);
    });
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
    if (!state.has(change.row.path)) return;
    tell(change);
    if (state.remove(change.row.path)) stored.push_back(change);
  }

  void put(const Change& change) {
    const Row& row = change.row;
    auto at = state.entries.find(row.path);
    if (at != state.entries.end() && at->second.type != row.type) {
      del(Change::del(row.path));
      at = state.entries.end();
    }
    if (at == state.entries.end()) {
      at = state.make(row.path, Entry{row.type, durability, {}});
      note(at->second, Change::put(row.path, row.type, "", {}));
    }
    if (!row.attribute.empty() && state.set(*at, row.attribute, row.value)) note(at->second, change);
  }

  void note(const Entry& entry, const Change& change) {
    if (durability == Durability::stored && entry.durability == Durability::stored) stored.push_back(change);
    tell(change);
  }
  void tell(const Change& change) {
    if (state.hears(change, origin)) told.push_back(change);
  }
};

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
      if (each.feed == told.origin || still == state_->subscriptions.end()) continue;
      Changes concerned;
      std::ranges::copy_if(told.changes, std::back_inserter(concerned),
                           [&](const Change& change) { return concerns(change, each.path); });
      if (!concerned.empty()) each.feed->onChanges(concerned);
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
