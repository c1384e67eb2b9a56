// The writes of a MemoryStore.
#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "platform/statedb/store/memorystate.h"
#include "platform/statedb/store/memorystore.h"

namespace Statedb {

namespace {

// Applies one batch to the entries and collects its effects: `visible` for the subscribers other than
// `origin`, `corrected` for `origin`, `stored` for persist(). While there are covers, `base` is what those
// would be without them.
class Writer {
 public:
  // `changes`: how many there are, mostly as many as the effects.
  Writer(MemoryState& state, Durability durability, Subscriber* origin, std::size_t changes)
      : state_(state), durability_(durability), origin_(origin), changes_(changes) {
    if (covers_) base = std::make_unique<Changes>();
  }

  Changes visible{};
  Places corrected{};
  Changes stored{};
  std::unique_ptr<Changes> base{};  // null while there are no covers

  bool isStored() const { return durability_ == Durability::stored; }

  void apply(const Change& change) {
    if (change.kind == Change::Kind::put)
      put(change);
    else if (change.kind == Change::Kind::unset)
      unset(change);
    else if (isStored())
      del(change.row.path);
    else
      withdraw(change.row.path);
    if (covers_ && origin_) correctCovered(change.row.path);
  }

 private:
  // The origin does not see the covers over what it wrote.
  void correctCovered(Path path) {
    const Entry* entry = entries_.find(path);
    const Record* cover = entry ? covers_->find(path, entry->type) : nullptr;
    if (!cover) return;
    for (const Attribute& each : cover->attributes) correct(path, each.name);
  }

  void put(const Change& change) {
    const Row& row = change.row;
    Entry* entry = entries_.find(row.path);
    if (entry && entry->type != row.type) {
      replace(*entry, row);
      entry = nullptr;
    }
    if (!entry) {
      entry = &entries_.make(row.path, row.type, durability_);
      note(Change::put(row.path, row.type, {}, {}));
    } else if (isStored() && entry->durability == Durability::volatile_) {
      entries_.storedIs(*entry);
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
    return std::ranges::any_of(entries_.under(path), [](const Record* each) {
      return static_cast<const Entry*>(each)->durability == Durability::stored;
    });
  }

  void set(Entry& entry, const Change& change) {
    const Row& row = change.row;
    Attribute* attribute = findIn(entry.attributes, row.attribute);
    if (!attribute) {
      entries_.add(entry, {row.attribute, row.value, durability_});
      return note(change);
    }
    if (attribute->durability != durability_)
      return isStored() ? hide(entry, change) : shadow(entry, *attribute, change);
    if (attribute->value == row.value) return;
    entries_.change(entry, *attribute, row.value);
    note(change);
  }

  // Keeps a stored value under the visible volatile one.
  void hide(Entry& entry, const Change& change) {
    correct(entry.path, change.row.attribute);
    const Zel::Value* before = entries_.hidden(entry, change.row.attribute);
    if (before && *before == change.row.value) return;
    entries_.hide(entry, change.row.attribute, change.row.value);
    stored.push_back(change);
  }

  // The origin assumes that its value is visible; it must be notified of the one that is.
  void correct(const Path& path, const Zel::Name& attribute) {
    if (origin_) corrected.emplace_back(path, attribute);
  }

  // Puts a volatile value over a stored one.
  void shadow(Entry& entry, Attribute& attribute, const Change& change) {
    const bool isSeen = attribute.value != change.row.value;
    entries_.shadow(entry, attribute, change.row.value);
    if (isSeen) notify(change);
  }

  // Removes the entity at a path and all under it.
  void del(Path path) {
    bool any = false, isKept = false;
    path.forEachUnder([&](const Path& each) {
      Entry* entry = entries_.find(each);
      if (!entry) return;
      any = true;
      isKept |= entry->durability == Durability::stored;
      entries_.remove(*entry);
    });
    if (any) notify(Change::del(path));
    if (isKept) stored.push_back(Change::del(path));
  }

  // Removes volatile values and entities at and under a path, which reveals the stored ones. The origin has
  // dropped those as well, so it gets them back.
  void withdraw(Path path) {
    std::optional<Path> gone;  // subscribers drop it with all under it
    path.forEachUnder([&](const Path& each) {
      Entry* entry = entries_.find(each);
      if (!entry) return;
      const bool isGone = gone && each.isUnder(*gone);
      if (entry->durability == Durability::stored) {
        reveal(*entry, !isGone);
        if (isGone) showAgain(*entry);
        correct(each, {});
        return;
      }
      entries_.remove(*entry);
      if (isGone) return;
      gone = each;
      notify(Change::del(each));
    });
  }

  void reveal(Entry& entry, bool notifies) {
    std::vector<Zel::Name> names;
    for (const Attribute& each : entry.attributes)
      if (each.durability == Durability::volatile_) names.push_back(each.name);
    for (const Zel::Name& name : names) reveal(entry, name, notifies);
  }

  // Removes the volatile value of an attribute and reveals the stored one, if any.
  void reveal(Entry& entry, Zel::Name name, bool notifies) {
    if (!entries_.hidden(entry, name)) {
      entries_.remove(entry, name);
      if (notifies) notify(Change::unset(entry.path, name));
      return;
    }
    Attribute& attribute = *findIn(entry.attributes, name);
    const Zel::Value before = attribute.value;
    entries_.reveal(entry, attribute);
    if (notifies && attribute.value != before)
      notify(Change::put(entry.path, entry.type, name, attribute.value));
  }

  void unset(const Change& change) {
    const Zel::Name name = change.row.attribute;
    Entry* entry = entries_.find(change.row.path);
    const Attribute* attribute = entry ? findIn(entry->attributes, name) : nullptr;
    if (!attribute) return;
    const bool wasStored = attribute->durability == Durability::stored;
    if (isStored()) {
      if (wasStored || entries_.hidden(*entry, name)) stored.push_back(change);
      entries_.remove(*entry, name);
      return notify(change);
    }
    if (!wasStored) reveal(*entry, name, true);
    correct(entry->path, name);
  }

  void showAgain(const Entry& entry) {
    appendRows(covers_ ? covers_->over(entry) : entry, visible);
    if (covers_) appendRows(entry, *base);
  }

  void note(const Change& change) {
    if (isStored()) stored.push_back(change);
    notify(change);
  }
  void notify(const Change& change) {
    if (!isSubscribed(change)) return;
    if (visible.empty()) visible.reserve(changes_);
    if (covers_) return notifyOverCovers(change);
    visible.push_back(change);
  }
  // An entity is shown with its covers, and no change of a covered value is.
  void notifyOverCovers(const Change& change) {
    base->push_back(change);
    const Row& row = change.row;
    const Entry* entry = change.kind == Change::Kind::del ? nullptr : entries_.find(row.path);
    const Record* cover = entry ? covers_->find(row.path, entry->type) : nullptr;
    if (cover && cover->find(row.attribute)) return;
    visible.push_back(change);
    if (cover && row.attribute.empty()) appendValues(*cover, visible);
  }

  // Whether a change concerns a subscription other than those of `origin`.
  bool isSubscribed(const Change& change) {
    const Path& path = change.row.path;
    if (change.kind == Change::Kind::del || path.empty())
      return state_.anySubscription(origin_,
                                    [&](const Path& subscribed) { return concerns(change, subscribed); });
    if (const Path above = path.parent(); above != lastAbove_ || above.empty()) {
      lastAbove_ = above;
      isAboveSubscribed_ =
          state_.anySubscription(origin_, [&](const Path& subscribed) { return above.isUnder(subscribed); });
    }
    return isAboveSubscribed_ ||
           state_.anySubscription(origin_, [&](const Path& subscribed) { return path == subscribed; });
  }

  MemoryState& state_;
  EntryTable& entries_ = state_.entries;
  const CoverTable* const covers_ = state_.covers.empty() ? nullptr : &state_.covers;
  const Durability durability_;
  Subscriber* const origin_;
  const std::size_t changes_;
  // A memo, because consecutive changes are mostly in one collection: the last change's parent path, and
  // whether a subscription is at it or above.
  Path lastAbove_{};
  bool isAboveSubscribed_ = false;
};

}  // namespace

void MemoryStore::write(const Changes& changes, Durability durability, Subscriber* origin) {
  if (durability == Durability::cover) return writeCovers(changes);
  EntryTable& entries = state_->entries;
  const std::size_t before = entries.mark();
  std::vector<Notice>& notices = state_->notices;
  const std::size_t noticesBefore = notices.size();
  auto& uncommitted = state_->uncommitted;
  Writer writer(*state_, durability, origin, changes.size());
  if (writer.isStored()) writer.stored.reserve(changes.size());
  try {
    constexpr std::size_t kAtOnce = 16;
    for (std::size_t i = 0; i < changes.size(); ++i) {
      if (i % kAtOnce == 0)
        entries.prefetch(std::span(changes).subspan(i, std::min(kAtOnce, changes.size() - i)));
      writer.apply(changes[i]);
    }
    if (!writer.visible.empty() || !writer.corrected.empty() || (writer.base && !writer.base->empty()))
      notices.push_back(
          {std::move(writer.visible), std::move(writer.corrected), origin, std::move(writer.base)});
    if (writer.isStored() && !uncommitted)
      uncommitted.emplace(Uncommitted{before, state_->covers.mark(), noticesBefore});
    if (!writer.isStored() && uncommitted)
      uncommitted->volatileSince.push_back({changes, durability, origin});
    if (!writer.stored.empty()) persist(writer.stored);
  } catch (...) {
    notices.resize(noticesBefore);
    entries.undoTo(before);
    throw;
  }
}

namespace {

// Applies one step to the covers.
void apply(CoverTable& covers, const Change& change) {
  const Row& row = change.row;
  if (change.kind == Change::Kind::unset)
    covers.remove(row.path, row.attribute);
  else if (change.kind == Change::Kind::put && !row.attribute.empty())
    covers.put(row);
}

// Appends what leads from one state of an entity to another.
void appendDifference(const Record& before, const Record& after, Changes& changes) {
  for (const Attribute& each : before.attributes)
    if (!after.find(each.name)) changes.push_back(Change::unset(after.path, each.name));
  for (const Attribute& each : after.attributes)
    if (const Zel::Value* value = before.find(each.name); !value || *value != each.value)
      changes.push_back(Change::put(after.path, after.type, each.name, each.value));
}

// The entity's paths that a step to the covers may change.
std::vector<Path> pathsOf(const CoverTable& covers, const Change& change) {
  if (change.kind != Change::Kind::del) return {change.row.path};
  std::vector<Path> paths;
  for (const Record* each : covers.under(change.row.path)) paths.push_back(each->path);
  return paths;
}

}  // namespace

void MemoryStore::writeCovers(const Changes& changes) {
  CoverTable& covers = state_->covers;
  const std::size_t before = covers.mark();
  Changes visible;
  try {
    for (const Change& change : changes)
      for (const Path& path : pathsOf(covers, change)) {
        const Entry* entry = state_->entries.find(path);
        const Record shown = entry ? covers.over(*entry) : Record();
        change.kind == Change::Kind::del ? covers.removeAt(path) : apply(covers, change);
        if (entry) appendDifference(shown, covers.over(*entry), visible);
      }
  } catch (...) {
    covers.undoTo(before);
    throw;
  }
  if (!visible.empty())
    state_->notices.push_back({.changes = std::move(visible), .base = std::make_unique<Changes>()});
  if (state_->uncommitted)
    state_->uncommitted->volatileSince.push_back({changes, Durability::cover, nullptr});
}

}  // namespace Statedb
