#include "host/ownrows.h"

#include <algorithm>

namespace Host {

using Statedb::Attribute;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;
using Statedb::Row;

bool OwnRows::Unknown::covers(Path path) const {
  if (removed.empty()) return false;
  for (;; path = path.parent()) {
    if (removed.contains(path)) return true;
    if (path.empty()) return false;
  }
}

bool OwnRows::Unknown::touches(const Change& change) const {
  const Path path = change.row.path;
  if (covers(path)) return true;
  if (change.kind == Change::Kind::put) return set.contains({path, change.row.attribute});
  return std::ranges::any_of(set, [&](const auto& each) { return each.first.isUnder(path); });
}

void OwnRows::forget(Path path) {
  path.forEachUnder([this](Path each) { entities_.erase(each); });
}

void OwnRows::put(const Row& row, Unknown* note) {
  const auto [place, added] = entities_.try_emplace(row.path, Record{row.path, row.type, {}});
  if (added && note) note->set.insert({row.path, {}});
  if (row.attribute.empty()) return;
  auto& attributes = place->second.attributes;
  const auto found = std::ranges::find(attributes, row.attribute, &Attribute::name);
  if (found == attributes.end())
    attributes.push_back({row.attribute, row.value});
  else
    found->value = row.value;
  if (note) note->set.insert({row.path, row.attribute});
}

void OwnRows::write(const Changes& changes) {
  for (const Change& change : changes) {
    const Path path = change.row.path;
    if (change.kind == Change::Kind::put) {
      put(change.row, &unsent_);
      continue;
    }
    path.forEachUnder([this](Path each) {
      if (entities_.erase(each) == 0) return;
      const auto first = unsent_.set.lower_bound({each, {}});
      unsent_.set.erase(
          first, std::find_if(first, unsent_.set.end(), [&](const auto& set) { return set.first != each; }));
    });
    unsent_.removed.insert(path);
  }
}

void OwnRows::adopt(const Record& record) {
  if (isRemoved(record.path)) return;
  const auto held = entities_.find(record.path);
  const Record* own = held == entities_.end() ? nullptr : &held->second;
  if (!own) put({record.path, record.type, {}, {}}, nullptr);
  for (const Attribute& each : record.attributes)
    if (!own || !own->find(each.name)) put({record.path, record.type, each.name, each.value}, nullptr);
}

Changes OwnRows::send() {
  underWay_ = std::exchange(unsent_, {});
  sending_ = true;
  Changes changes;
  for (const Path path : underWay_.removed) changes.push_back(Change::del(path));
  for (const auto& [path, attribute] : underWay_.set) {
    const auto entity = entities_.find(path);
    if (entity == entities_.end()) continue;
    const Zel::Value* value = entity->second.find(attribute);
    changes.push_back(Change::put(path, entity->second.type, attribute, value ? *value : Zel::Value()));
  }
  return changes;
}

void OwnRows::acknowledged() {
  underWay_ = {};
  sending_ = false;
}

void OwnRows::lost() {
  // A removal that was under way is sent again; one of what was never there does no harm.
  unsent_.removed.merge(underWay_.removed);
  acknowledged();
  for (const auto& [path, entity] : entities_) {
    unsent_.set.insert({path, {}});
    for (const Attribute& each : entity.attributes) unsent_.set.insert({path, each.name});
  }
}

Records OwnRows::over(const Records& snapshot, Path path) const {
  Records records;
  for (const Record* record : snapshot)
    if (!isRemoved(record->path) && !entities_.contains(record->path)) records.push_back(record);
  for (const auto& [own, entity] : entities_)
    if (own.isUnder(path)) records.push_back(&entity);
  std::ranges::sort(records, &Statedb::readsBefore, &Record::path);
  return records;
}

Changes OwnRows::told(const Changes& changes) {
  Changes heard;
  for (const Change& change : changes) {
    if (unsent_.touches(change) || underWay_.touches(change)) continue;
    if (change.kind == Change::Kind::del)
      forget(change.row.path);
    else if (entities_.contains(change.row.path))
      put(change.row, nullptr);
    heard.push_back(change);
  }
  return heard;
}

}  // namespace Host
