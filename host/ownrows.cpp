#include "host/ownrows.h"

#include <algorithm>

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Row;

namespace {

// The part of a map or set of paths that stands under `path`, but for the element at it: '0' follows '/'.
template <class Container>
auto below(Container& container, const std::string& path) {
  return std::pair(container.lower_bound(path + '/'), container.lower_bound(path + '0'));
}

// Whether `path` or something above it is in the set.
bool coveredBy(const std::set<std::string>& paths, const std::string& path) {
  return std::ranges::any_of(paths, [&](const std::string& each) { return Statedb::isUnder(path, each); });
}

}  // namespace

bool OwnRows::Unknown::touches(const Change& change) const {
  const std::string& path = change.row.path;
  if (change.kind == Change::Kind::put)
    return set.contains({path, change.row.attribute}) || coveredBy(removed, path);
  return coveredBy(removed, path) ||
         std::ranges::any_of(set, [&](const auto& each) { return Statedb::isUnder(each.first, path); });
}

void OwnRows::forget(const std::string& path) {
  const auto [first, last] = below(entities_, path);
  entities_.erase(first, last);
  entities_.erase(path);
}

void OwnRows::put(const Row& row, Unknown* note) {
  const auto [place, added] = entities_.try_emplace(row.path, Entity{row.type, {}});
  if (added && note) note->set.insert({row.path, ""});
  if (row.attribute.empty()) return;
  auto& attributes = place->second.attributes;
  const auto found = std::ranges::find(attributes, row.attribute, &std::pair<std::string, Zel::Value>::first);
  if (found == attributes.end())
    attributes.emplace_back(row.attribute, row.value);
  else
    found->second = row.value;
  if (note) note->set.insert({row.path, row.attribute});
}

void OwnRows::write(const Changes& changes) {
  for (const Change& change : changes) {
    const std::string& path = change.row.path;
    if (change.kind == Change::Kind::put) {
      put(change.row, &unsent_);
      continue;
    }
    forget(path);
    std::erase_if(unsent_.set, [&](const auto& each) { return Statedb::isUnder(each.first, path); });
    unsent_.removed.insert(path);
  }
}

void OwnRows::adopt(const Row& row) {
  if (coveredBy(unsent_.removed, row.path) || coveredBy(underWay_.removed, row.path)) return;
  const auto held = entities_.find(row.path);
  const auto name = &std::pair<std::string, Zel::Value>::first;
  if (held == entities_.end() ||
      std::ranges::find(held->second.attributes, row.attribute, name) == held->second.attributes.end())
    put(row, nullptr);
}

Changes OwnRows::send() {
  underWay_ = std::exchange(unsent_, {});
  sending_ = true;
  Changes changes;
  for (const std::string& path : underWay_.removed) changes.push_back(Change::del(path));
  for (const auto& [path, attribute] : underWay_.set) {
    const auto entity = entities_.find(path);
    if (entity == entities_.end()) continue;
    Zel::Value value;
    for (const auto& [name, held] : entity->second.attributes)
      if (name == attribute) value = held;
    changes.push_back(Change::put(path, entity->second.type, attribute, value));
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
    unsent_.set.insert({path, ""});
    for (const auto& [attribute, value] : entity.attributes) unsent_.set.insert({path, attribute});
  }
}

std::vector<Row> OwnRows::over(const std::vector<Row>& snapshot, const std::string& path) const {
  std::map<std::string, Entity> merged;
  for (const Row& row : snapshot) {
    if (coveredBy(unsent_.removed, row.path) || coveredBy(underWay_.removed, row.path)) continue;
    Entity& entity = merged[row.path];
    entity.type = row.type;
    if (!row.attribute.empty()) entity.attributes.emplace_back(row.attribute, row.value);
  }
  for (const auto& [own, entity] : entities_)
    if (Statedb::isUnder(own, path)) merged[own] = entity;
  std::vector<Row> rows;
  for (const auto& [at, entity] : merged) {
    rows.push_back({at, entity.type, "", {}});
    for (const auto& [attribute, value] : entity.attributes)
      rows.push_back({at, entity.type, attribute, value});
  }
  return rows;
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
