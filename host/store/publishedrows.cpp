#include "host/store/publishedrows.h"

#include <algorithm>
#include <utility>

namespace Host {

using Statedb::Attribute;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;
using Statedb::Row;

bool PublishedRows::Unknown::covers(Path path) const {
  if (removed.empty()) return false;
  for (;; path = path.parent()) {
    if (removed.contains(path)) return true;
    if (path.empty()) return false;
  }
}

bool PublishedRows::Unknown::touches(const Change& change) const {
  return covers(change.row.path) || set.contains({change.row.path, change.row.attribute});
}

void PublishedRows::erase(Places& places, Path path) {
  const auto isOther = [&](const auto& each) { return each.first != path; };
  const auto first = places.lower_bound({path, {}});
  places.erase(first, std::find_if(first, places.end(), isOther));
}

// Whether something that was made or set here, at or under the path, is not known there yet.
bool PublishedRows::anyUnknown(Path path) const {
  const auto isMade = [&](const auto& each) {
    return each.first.isUnder(path) && entities_.contains(each.first);
  };
  return std::ranges::any_of(unsent_.set, isMade) || std::ranges::any_of(underWay_.set, isMade);
}

void PublishedRows::forget(Path path) {
  path.forEachUnder([this](Path each) { entities_.erase(each); });
}

void PublishedRows::put(const Row& row, Unknown* note) {
  if (note && !adopted_.empty()) {
    adopted_.erase({row.path, {}});
    adopted_.erase({row.path, row.attribute});
  }
  const auto [place, added] = entities_.try_emplace(row.path, Record{row.path, row.type, {}});
  if (note && (added || row.attribute.empty())) note->set.insert({row.path, {}});
  if (row.attribute.empty()) return;
  auto& attributes = place->second.attributes;
  const auto found = std::ranges::find(attributes, row.attribute, &Attribute::name);
  if (found == attributes.end())
    attributes.push_back({row.attribute, row.value});
  else
    found->value = row.value;
  if (note) note->set.insert({row.path, row.attribute});
}

void PublishedRows::unset(Path path, Zel::Name attribute) {
  const auto entity = entities_.find(path);
  if (entity == entities_.end()) return;
  std::erase_if(entity->second.attributes, [&](const Attribute& each) { return each.name == attribute; });
}

void PublishedRows::write(const Changes& changes) {
  for (const Change& change : changes) {
    const Path path = change.row.path;
    if (change.kind == Change::Kind::put) {
      put(change.row, &unsent_);
    } else if (change.kind == Change::Kind::unset) {
      unset(path, change.row.attribute);
      unsent_.set.insert({path, change.row.attribute});
    } else {
      remove(path);
    }
  }
}

void PublishedRows::remove(Path path) {
  path.forEachUnder([this](Path each) {
    if (entities_.erase(each) == 0) return;
    unsent_.forget(each);
    erase(adopted_, each);
  });
  unsent_.removed.insert(path);
}

void PublishedRows::adopt(const Record& record) {
  sendAll();
  if (isRemoved(record.path)) return;
  const auto held = entities_.find(record.path);
  const Record* own = held == entities_.end() ? nullptr : &held->second;
  const auto take = [&](Zel::Name attribute, const Zel::Value& value) {
    put({record.path, record.type, attribute, value}, nullptr);
    adopted_.insert({record.path, attribute});
  };
  if (!own) take({}, {});
  for (const Attribute& each : record.attributes)
    if (!own || !own->find(each.name)) take(each.name, each.value);
}

void PublishedRows::forgetAdopted(Path under) {
  std::erase_if(adopted_, [&](const auto& place) {
    const auto& [path, attribute] = place;
    if (!path.isUnder(under)) return false;
    attribute.empty() ? void(entities_.erase(path)) : unset(path, attribute);
    return true;
  });
}

Changes PublishedRows::send() {
  sendAll();
  underWay_ = std::exchange(unsent_, {});
  sending_ = true;
  Changes changes;
  for (const Path& path : underWay_.removed) changes.push_back(Change::del(path));
  for (const auto& [path, attribute] : underWay_.set) {
    const auto entity = entities_.find(path);
    const Zel::Value* value = entity == entities_.end() ? nullptr : entity->second.find(attribute);
    if (!value && !attribute.empty())
      changes.push_back(Change::unset(path, attribute));
    else if (entity != entities_.end())
      changes.push_back(Change::put(path, entity->second.type, attribute, value ? *value : Zel::Value()));
  }
  return changes;
}

void PublishedRows::acknowledged() {
  underWay_ = {};
  sending_ = false;
}

void PublishedRows::refused(const Change& change) {
  sendAll();
  const Path path = change.row.path;
  const Zel::Name attribute = change.row.attribute;
  const auto entity = entities_.find(path);
  if (change.kind != Change::Kind::put || entity == entities_.end()) return;
  const auto isWrittenSince = [&](Zel::Name name) { return unsent_.set.contains({path, name}); };
  auto& attributes = entity->second.attributes;
  if (attribute.empty()) {
    underWay_.forget(path);
    std::erase_if(attributes, [&](const Attribute& each) { return !isWrittenSince(each.name); });
    if (attributes.empty() && !isWrittenSince({})) entities_.erase(entity);
  } else {
    underWay_.set.erase({path, attribute});
    if (!isWrittenSince(attribute)) unset(path, attribute);
  }
}

// A removal that was under way is sent again; one of what was never there does no harm.
void PublishedRows::postponed() {
  unsent_.removed.merge(underWay_.removed);
  unsent_.set.merge(underWay_.set);
  acknowledged();
}

void PublishedRows::lost() {
  postponed();
  isAllUnsent_ = true;
}

void PublishedRows::sendAll() {
  if (std::exchange(isAllUnsent_, false)) sendAgain({});
}

void PublishedRows::sendAgain(Path under) {
  for (const auto& [path, entity] : entities_) {
    if (!path.isUnder(under)) continue;
    unsent_.set.insert({path, {}});
    for (const Attribute& each : entity.attributes) unsent_.set.insert({path, each.name});
  }
}

void PublishedRows::compare(const Records& theirs, bool replaces) {
  isAllUnsent_ = false;
  std::unordered_map<Path, const Record*> there;
  std::vector<Path> foreign;
  for (const Record* record : theirs) {
    if (unsent_.covers(record->path)) continue;  // gone when the rest arrives
    if (entities_.contains(record->path))
      there.emplace(record->path, record);
    else
      foreign.push_back(record->path);
  }
  for (const auto& [path, own] : entities_) {
    const auto found = there.find(path);
    const bool isSame = found != there.end() && found->second->type == own.type;
    compare(isSame ? found->second : nullptr, own, replaces);
  }
  if (!replaces) return;
  for (const Path& path : foreign) {
    unsent_.removed.insert(path);
    sendAgain(path);
  }
}

// Null: the other side has none of that type.
void PublishedRows::compare(const Record* theirs, const Record& own, bool replaces) {
  const auto note = [&](Zel::Name attribute, bool isUnsent) {
    if (isUnsent)
      unsent_.set.insert({own.path, attribute});
    else if (!unsent_.set.empty())
      unsent_.set.erase({own.path, attribute});
  };
  note({}, !theirs);
  for (const Attribute& each : own.attributes) {
    const Zel::Value* value = theirs ? theirs->find(each.name) : nullptr;
    note(each.name, !value || *value != each.value);
  }
  if (!theirs || !replaces) return;
  for (const Attribute& each : theirs->attributes)
    if (!own.find(each.name)) note(each.name, true);
}

namespace {

// Merges the rows published here over those of the other side, attribute by attribute.
Record mergedOf(const Record& theirs, const Record& own) {
  if (theirs.type != own.type) return own;
  Record record = theirs;
  for (const Attribute& each : own.attributes) {
    const auto found = std::ranges::find(record.attributes, each.name, &Attribute::name);
    if (found == record.attributes.end())
      record.attributes.push_back(each);
    else
      *found = each;
  }
  return record;
}

}  // namespace

// The record less the values that were unset here and not there yet.
const Record* PublishedRows::withoutUnset(const Record* record) {
  const auto own = entities_.find(record->path);
  const auto isUnset = [&](const Attribute& each) {
    const std::pair place{record->path, each.name};
    return (unsent_.set.contains(place) || underWay_.set.contains(place)) &&
           (own == entities_.end() || !own->second.find(each.name));
  };
  if (std::ranges::none_of(record->attributes, isUnset)) return record;
  Record less = *record;
  std::erase_if(less.attributes, isUnset);
  return &merged_.emplace_back(std::move(less));
}

// Null for none.
const Record* PublishedRows::merged(const Record* theirs, const Record* own) {
  if (!theirs || isRemoved(theirs->path)) return own;
  return withoutUnset(own ? &merged_.emplace_back(mergedOf(*theirs, *own)) : theirs);
}

const Record* PublishedRows::over(Path path, const Record* theirs) {
  merged_.clear();
  const auto own = entities_.find(path);
  return merged(theirs, own == entities_.end() ? nullptr : &own->second);
}

Records PublishedRows::over(const Records& snapshot, Path path) {
  Records records;
  merged_.clear();
  std::unordered_set<Path> both;
  for (const Record* record : snapshot) {
    if (isRemoved(record->path)) continue;
    const auto own = entities_.find(record->path);
    if (own != entities_.end()) both.insert(record->path);
    records.push_back(merged(record, own == entities_.end() ? nullptr : &own->second));
  }
  for (const auto& [own, entity] : entities_)
    if (own.isUnder(path) && !both.contains(own)) records.push_back(&entity);
  std::ranges::sort(records, &Statedb::readsBefore, &Record::path);
  return records;
}

// Returns whether the change stands against what will be overwritten from here.
bool PublishedRows::takeNote(const Change& change) {
  const Path path = change.row.path;
  if (isRemoved(path)) return false;
  // Everything that stood there went; what is kept here must be sent again.
  if (change.kind == Change::Kind::del && anyUnknown(path)) return sendAgain(path), true;
  if (unsent_.touches(change) || underWay_.touches(change)) return false;
  change.kind == Change::Kind::del ? forget(path) : carry(change);
  return true;
}

bool PublishedRows::takeNoteOfAnother(const Change& change) {
  const Path path = change.row.path;
  if (isRemoved(path)) return false;
  if (change.kind == Change::Kind::del) {
    if (!anyUnknown(path)) forgetAdopted(path);
    sendAgain(path);
    return true;
  }
  if (unsent_.touches(change) || underWay_.touches(change)) return false;
  if (adopted_.contains({path, change.row.attribute})) carry(change);
  return true;
}

// Carries a change of another process into what stands here.
void PublishedRows::carry(const Change& change) {
  const auto own = entities_.find(change.row.path);
  if (change.kind == Change::Kind::unset)
    unset(change.row.path, change.row.attribute);
  else if (own != entities_.end() && own->second.find(change.row.attribute))
    put(change.row, nullptr);
}

Changes PublishedRows::received(const Changes& changes) {
  return received(changes, &PublishedRows::takeNote);
}
Changes PublishedRows::receivedFromAnother(const Changes& changes) {
  return received(changes, &PublishedRows::takeNoteOfAnother);
}

Changes PublishedRows::received(const Changes& changes,
                                bool (PublishedRows::*isLetThrough)(const Change& change)) {
  sendAll();
  Changes accepted;
  for (const Change& each : changes) {
    if (!(this->*isLetThrough)(each)) continue;
    accepted.push_back(each);
    if (each.kind == Change::Kind::del) appendRows(each.row.path, accepted);
  }
  return accepted;
}

void PublishedRows::appendRows(Path under, Changes& changes) const {
  under.forEachUnder([&](Path path) {
    const auto entity = entities_.find(path);
    if (entity == entities_.end()) return;
    const auto& [at, type, attributes] = entity->second;
    changes.push_back(Change::put(at, type, {}, {}));
    for (const Attribute& each : attributes) changes.push_back(Change::put(at, type, each.name, each.value));
  });
}

Changes PublishedRows::revealed(const Changes& changes) {
  sendAll();
  Changes seen;
  std::ranges::copy_if(changes, std::back_inserter(seen),
                       [this](auto& each) { return !unsent_.touches(each); });
  return seen;
}

}  // namespace Host
