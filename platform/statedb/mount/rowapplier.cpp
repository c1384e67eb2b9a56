#include "platform/statedb/mount/rowapplier.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/statedb/store/schema.h"

namespace Statedb {

namespace {

Zel::Name typeOf(const Zel::Entity& entity) { return entity.fwkType().name(); }

// Calls `function` for each member of the entity's collections with its path.
template <class Function>
void forEachMember(const Zel::Entity& entity, Path path, Function&& function) {
  for (const Zel::AttributeInfo* attribute : entity.fwkType().storedAttributes()) {
    if (attribute->kind != Zel::Kind::collection) continue;
    for (const Zel::Name& key : attribute->keys(entity)) function(memberPath(path, *attribute, key));
  }
}

void set(Zel::Entity& entity, Zel::Name type, Zel::Name attribute, const Zel::Value& value) {
  const Zel::AttributeInfo* found = entity.fwkType().find(attribute);
  if (!found || !found->stored || !found->set || !found->check) return checkRow(type, attribute, value);
  found->set(entity, {&value, 1});
}

// The first change and those after it that put rows of the same entity.
std::span<const Change> rowsOfFirst(std::span<const Change> changes) {
  const Change& first = changes.front();
  const auto isOther = [&](const Change& each) {
    return each.kind != Change::Kind::put || each.row.path != first.row.path ||
           each.row.type != first.row.type;
  };
  if (first.kind != Change::Kind::put) return changes.first(1);
  return changes.first(static_cast<std::size_t>(std::ranges::find_if(changes, isOther) - changes.begin()));
}

// Adds the record, and the paths between it and the top.
void addPresent(std::unordered_map<Path, const Record*>& present, const Record& record, Path top) {
  present[record.path] = &record;
  for (Path above = record.path; above != top;) {
    above = above.parent();
    if (!present.try_emplace(above).second) break;
  }
}

}  // namespace

void RowApplier::apply(const Changes& changes) {
  for (std::span<const Change> left = changes; !left.empty();) {
    const auto rows = rowsOfFirst(left);
    left = left.subspan(rows.size());
    if (isWaiting() || mustWait(rows.front()))
      queue_.insert(queue_.end(), rows.begin(), rows.end());
    else
      apply(rows);
  }
}

void RowApplier::removalsDelivered() {
  removed_.clear();
  applyWaiting();
}

void RowApplier::overtake(const Changes& published) {
  if (!isWaiting()) return;
  std::set<std::pair<Path, Zel::Name>> put;
  std::vector<Path> removed;
  for (const Change& each : published)
    if (each.kind == Change::Kind::put)
      put.emplace(each.row.path, each.row.attribute);
    else
      removed.push_back(each.row.path);
  std::erase_if(queue_, [&](const Change& each) {
    const auto isGone = [&](const Path& path) { return each.row.path.isUnder(path); };
    return put.contains({each.row.path, each.row.attribute}) || std::ranges::any_of(removed, isGone);
  });
}

// Whether the entity at `path`, or one above it, was removed in this pass.
bool RowApplier::waitsForDelivery(Path path) const {
  if (removed_.empty()) return false;
  for (; !path.empty(); path = path.parent())
    if (removed_.contains(path)) return true;
  return false;
}

bool RowApplier::mustWait(const Change& change) const {
  return change.kind == Change::Kind::put && waitsForDelivery(change.row.path);
}

void RowApplier::applyWaiting() {
  for (; isWaiting() && !mustWait(queue_.front()); queue_.pop_front()) apply({&queue_.front(), 1});
}

// Puts of one entity, or one change of another kind.
void RowApplier::apply(std::span<const Change> rows) {
  const Change& first = rows.front();
  try {
    if (first.kind == Change::Kind::del)
      remove(first.row.path);
    else if (first.kind == Change::Kind::unset)
      unset(first.row);
    else
      put(rows);
  } catch (const std::exception& error) {
    for (const Change& each : rows) refuse(each.row, error.what());
  }
}

void RowApplier::refuse(const Row& row, const std::string& why) {
  if (row.attribute.empty()) refusedEntities_[row.path] = {row.path, row.type, why};
  refusals_.add(row, why);
}

const RowApplier::Refused* RowApplier::refusedAtOrAbove(Path path) const {
  for (; !path.empty(); path = path.parent())
    if (const auto found = refusedEntities_.find(path); found != refusedEntities_.end())
      return &found->second;
  return nullptr;
}

void RowApplier::put(std::span<const Change> rows) {
  const Path& path = rows.front().row.path;
  const auto entity = ensureOfType(path, rows.front().row.type);
  bool anyFits = false;
  for (const auto& [kind, row] : rows) anyFits |= put(row, *entity);
  if (anyFits) noteValues(entity, path);
}

// Returns whether the row fits.
bool RowApplier::put(const Row& row, Zel::Entity& entity) {
  if (row.attribute.empty()) refusedEntities_.erase(row.path);
  try {
    if (!row.attribute.empty()) set(entity, row.type, row.attribute, row.value);
    return true;
  } catch (const std::exception& error) {
    refuse(row, error.what());
    return false;
  }
}

void RowApplier::unset(const Row& row) {
  const auto entity = tree_.find(row.path).entity;
  const Zel::AttributeInfo* attribute = entity ? entity->fwkType().find(row.attribute) : nullptr;
  if (!attribute || !attribute->reset) return;
  attribute->reset(*entity);
  noteValues(entity, row.path);
}

std::vector<Path> RowApplier::membersOf(Path path) const {
  std::vector<Path> members;
  if (const auto entity = tree_.entityAt(path))
    forEachMember(*entity, path, [&](Path member) { members.push_back(member); });
  return members;
}

bool RowApplier::show(Path path, Zel::Name attribute, const Zel::Value& value) {
  const auto entity = tree_.entityAt(path);
  if (!entity) return false;
  set(*entity, typeOf(*entity), attribute, value);
  noteValues(entity, path);
  return true;
}

void RowApplier::noteValues(const Zel::Ptr<Zel::Entity>& entity, Path path) {
  publishers_.with(entity, path, [](PublishedEntity& published) { published.noteValues(); });
}

// Entities
// ----------------------------------------------------------------------------------------------------

Zel::Ptr<Zel::Entity> RowApplier::ensure(Path path, Zel::Name type) {
  return tree_
      .findOrMake(path, [&](const Found& at) { return make(at, at.whole ? type : typeOnTheWay(at.path)); })
      .entity;
}

Zel::Ptr<Zel::Entity> RowApplier::ensureOfType(Path path, Zel::Name type) {
  auto entity = ensure(path, type);
  if (typeOf(*entity) != type)
    throw Zel::ValueError("found type " + type.stdString() + ", the entity is a " +
                          typeOf(*entity).stdString());
  return entity;
}

Zel::Ptr<Zel::Entity> RowApplier::make(const Found& at, Zel::Name type) {
  if (!at.whole && !at.collection->direct)
    throw Zel::ValueError("there is no entity at '" + at.path.text() + "'");
  const auto made = newMember(at, type);
  publishers_.with(at.parent, at.path,
                   [&](PublishedEntity& above) { above.adopt(*at.collection, at.key, made); });
  return made;
}

// The type of an entity that has no row but is above one: the mounted type, or a directory.
Zel::Name RowApplier::typeOnTheWay(Path path) const {
  const Zel::Name mounted = mounts_.typeAt(path);
  return mounted.empty() ? Zel::Dir::typeNode().name() : mounted;
}

void RowApplier::remove(Path path) {
  forgetRefused(path);
  const Found found = tree_.find(path);
  if (!found.entity) return;
  if (path.empty() || mounts_.isAtOrUnder(path)) return clear(*found.entity, path);
  publishers_.with(found.parent, path,
                   [&](PublishedEntity& above) { above.forget(*found.collection, found.key); });
  removeMember(found);
  removed_.insert(path);
}

// Those of a del, or before a snapshot, which brings again what is still there.
void RowApplier::forgetRefused(const Path& path) {
  if (!refusedEntities_.empty())
    path.forEachUnder([this](const Path& each) { refusedEntities_.erase(each); });
}

void RowApplier::clear(Zel::Entity& entity, Path path) {
  forEachMember(entity, path, [&](Path member) { remove(member); });
  for (const Zel::AttributeInfo* attribute : entity.fwkType().storedAttributes())
    if (attribute->reset) attribute->reset(entity);
}

// Snapshots
// ----------------------------------------------------------------------------------------------------

void RowApplier::forget(Path path) {
  std::erase_if(queue_, [&](const Change& change) { return change.row.path.isUnder(path); });
  forgetRefused(path);
}

void RowApplier::applySnapshot(Path path, const Records& records) {
  forget(path);
  if (const auto top = tree_.entityAt(path)) {
    Present present;
    for (const Record* record : records) addPresent(present, *record, path);
    removeAbsent(*top, path, present);
  }
  for (const Record* record : records) put(*record);
  applyWaiting();
}

void RowApplier::resetAbsent(Zel::Entity& entity, const Record* record) {
  for (const Zel::AttributeInfo* attribute : entity.fwkType().storedAttributes())
    if (attribute->reset && (!record || !record->find(attribute->label))) attribute->reset(entity);
}

void RowApplier::renew(const Record& record) {
  if (const auto entity = tree_.entityAt(record.path)) resetAbsent(*entity, &record);
  put(record);
}

void RowApplier::removeAbsent(Zel::Entity& entity, Path path, const Present& present) {
  const auto found = present.find(path);
  resetAbsent(entity, found == present.end() ? nullptr : found->second);
  forEachMember(entity, path, [&](Path each) {
    const auto member = tree_.find(each).entity;
    if (member && present.contains(each))
      removeAbsent(*member, each, present);
    else if (member)
      remove(each);
  });
}

void RowApplier::put(const Record& record) {
  if (isWaiting() || waitsForDelivery(record.path)) return putLater(record);
  Zel::Ptr<Zel::Entity> entity;
  try {
    entity = ensureOfType(record.path, record.type);
  } catch (const std::exception& error) {
    return refuseAll(record, error.what());
  }
  refusedEntities_.erase(record.path);
  putAttributes(record, *entity);
  noteValues(entity, record.path);
}

void RowApplier::putLater(const Record& record) {
  queue_.push_back(Change::put(record.path, record.type, {}, {}));
  for (const Attribute& each : record.attributes)
    queue_.push_back(Change::put(record.path, record.type, each.name, each.value));
}

void RowApplier::putAttributes(const Record& record, Zel::Entity& entity) {
  for (const Attribute& each : record.attributes) {
    try {
      set(entity, record.type, each.name, each.value);
    } catch (const std::exception& error) {
      refuse({record.path, record.type, each.name, each.value}, error.what());
    }
  }
}

void RowApplier::refuseAll(const Record& record, const std::string& why) {
  refuse({record.path, record.type, {}, {}}, why);
  for (const Attribute& each : record.attributes)
    refuse({record.path, record.type, each.name, each.value}, why);
}

}  // namespace Statedb
