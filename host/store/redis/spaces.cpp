#include "host/store/redis/spaces.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace Host::Redis {

using Statedb::Attribute;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Layer;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;
using Statedb::Row;
using Zel::Name;
using Zel::Value;

namespace {

bool isSame(const Value* a, const Value* b) { return a && b ? *a == *b : a == b; }

// Ignores order and durability.
bool hasSameRows(const Record& a, const Record& b) {
  const auto isInB = [&](const Attribute& each) { return isSame(&each.value, b.find(each.name)); };
  return a.type == b.type && a.attributes.size() == b.attributes.size() &&
         std::ranges::all_of(a.attributes, isInB);
}

// Appends what makes `before`, of the same type or none, become `now`.
void appendDifferences(const Record& before, const Record& now, Changes& changes) {
  if (!orNull(before)) changes.push_back(Change::put(now.path, now.type, {}, {}));
  for (const Attribute& each : before.attributes)
    if (!now.find(each.name)) changes.push_back(Change::unset(now.path, each.name));
  for (const Attribute& each : now.attributes)
    if (!isSame(&each.value, before.find(each.name)))
      changes.push_back(Change::put(now.path, now.type, each.name, each.value));
}

}  // namespace

void setIn(Record& record, Attribute attribute) {
  const auto before = std::ranges::find(record.attributes, attribute.name, &Attribute::name);
  if (before != record.attributes.end())
    *before = std::move(attribute);
  else
    record.attributes.push_back(std::move(attribute));
}

void unsetIn(Record& record, Name attribute) {
  std::erase_if(record.attributes, [&](const Attribute& each) { return each.name == attribute; });
}

void appendRows(const Record& record, Changes& changes) { appendDifferences({}, record, changes); }

Name Layers::type() const {
  const Record* any = stored ? stored : volatile_;
  return any ? any->type : Name();
}

const Value* Layers::findBase(Name attribute) const {
  const Record* over = top();
  const Value* value = over ? over->find(attribute) : nullptr;
  return value || !stored ? value : stored->find(attribute);
}

Record Layers::merged(Layer layer) const {
  const Record* lowest = stored ? stored : volatile_;
  if (!lowest) return {};
  Record record = *lowest;
  for (const Record* over : {stored ? top() : nullptr, layer == Layer::effective ? shownCovers() : nullptr})
    if (over)
      for (const Attribute& each : over->attributes) setIn(record, each);
  return record;
}

const Record* Spaces::find(Path path, Layer layer) {
  const Layers layers = at(path);
  const bool isCovered = layer == Layer::effective && layers.shownCovers();
  if (!isCovered && !layers.isMerged()) return layers.stored ? layers.stored : layers.volatile_;
  const auto [found, isNew] = (isCovered ? covered_ : merged_).try_emplace(path);
  if (isNew) found->second = layers.merged(layer);
  return &found->second;
}

const Record* Spaces::shown(Path path, Layer layer) {
  const auto held = held_.find(path);
  return held == held_.end() ? find(path, layer) : orNull(held->second.of(layer));
}

void Spaces::forgetMerged(Path path) {
  merged_.erase(path);
  covered_.erase(path);
}

Record& Spaces::make(Durability space, Path path, Name type) {
  if (space != Durability::cover && at(path).type().empty()) ++count_;
  return in(space).at(path) = {path, type, {}};
}

void Spaces::remove(Durability space, Path path) {
  if (!in(space).find(path)) return;
  hold(path);
  in(space).erase(path);
  if (space != Durability::cover && at(path).type().empty()) --count_;
}

void Spaces::removeUnder(Durability space, Path path) {
  path.forEachUnder([&](Path each) { remove(space, each); });
}

void Spaces::put(Durability space, const Row& row) {
  if (space == Durability::cover && row.attribute.empty()) return;
  const Record* before = in(space).find(row.path);
  if (before && before->type != row.type)
    space == Durability::cover ? remove(space, row.path) : removeUnder(space, row.path);
  hold(row.path);
  Record* own = in(space).find(row.path);
  if (!own) own = &make(space, row.path, row.type);
  if (!row.attribute.empty()) setIn(*own, {row.attribute, row.value, space});
}

void Spaces::unset(Durability space, Path path, Name attribute) {
  Record* own = in(space).find(path);
  if (!own) return;
  hold(path);
  unsetIn(*own, attribute);
}

void Spaces::hide(Durability space, const Change& change) {
  const Row& row = change.row;
  if (change.kind == Change::Kind::del)
    removeUnder(space, row.path);
  else if (change.kind == Change::Kind::unset)
    unset(space, row.path, row.attribute);
  else
    put(space, row);
}

void Spaces::carry(Durability space, const Change& change, LayeredChanges& visible) {
  const Row& row = change.row;
  const Record* own = in(space).find(row.path);
  const bool isPut = change.kind == Change::Kind::put;
  const bool isDel = change.kind == Change::Kind::del;
  const bool isReplaced = isPut && own && own->type != row.type;
  const bool isCovered = space == Durability::cover || in(Durability::cover).find(row.path);
  if (own && !isDel && !isReplaced && !isCovered) return carryValue(space, change, visible);
  hide(space, change);
  if (isDel || isReplaced)
    showUnder(row.path, visible);
  else
    show(row.path, visible);
}

// The most frequent change: of a value without covers. Holds nothing, and leaves the other values as
// subscribers know them.
void Spaces::carryValue(Durability space, const Change& change, LayeredChanges& visible) {
  const Path path = change.row.path;
  const Name& attribute = change.row.attribute;
  const Value& value = change.row.value;
  Record& own = *in(space).find(path);
  const bool isPut = change.kind == Change::Kind::put;
  if (attribute.empty() || isSame(own.find(attribute), isPut ? &value : nullptr)) return;
  const auto held = held_.find(path);
  Record* const theirs = held == held_.end() ? nullptr : &held->second.base;
  const Value* known = theirs ? theirs->find(attribute) : at(path).findBase(attribute);
  const std::optional<Value> before = known ? std::optional(*known) : std::nullopt;
  forgetMerged(path);
  isPut ? setIn(own, {attribute, value, space}) : unsetIn(own, attribute);
  const Layers layers = at(path);
  const Value* now = layers.findBase(attribute);
  if (isSame(before ? &*before : nullptr, now)) return;
  visible.both([&](Changes& changes) {
    changes.push_back(now ? Change::put(path, layers.type(), attribute, *now)
                          : Change::unset(path, attribute));
  });
  if (theirs) now ? setIn(*theirs, {attribute, *now}) : unsetIn(*theirs, attribute);
}

void Spaces::assign(Durability space, const Record& wanted) {
  Record& made = make(space, wanted.path, wanted.type);
  made.attributes = wanted.attributes;
  for (Attribute& each : made.attributes) each.durability = space;
}

void Spaces::renew(Durability space, Path path, const Record* wanted, LayeredChanges& visible) {
  const bool isHidden = held_.contains(path);
  const bool isNew = wanted && !isHidden && at(path).type().empty();
  if (isNew && space != Durability::cover) {  // the most frequent one, of the first snapshot
    assign(space, *wanted);
    return showNew(path, visible);
  }
  renewHidden(space, path, wanted);
  if (!isHidden || space == Durability::cover) show(path, visible);
}

void Spaces::renewHidden(Durability space, Path path, const Record* wanted) {
  const Record* own = in(space).find(path);
  if (wanted ? own && hasSameRows(*own, *wanted) : !own) return;
  hold(path);
  wanted ? assign(space, *wanted) : remove(space, path);
}

// Before a change of the entity: keeps it as subscribers know it, for show().
void Spaces::hold(Path path) {
  forgetMerged(path);
  if (held_.contains(path)) return;
  const Layers layers = at(path);
  Held held{layers.merged(Layer::base), {}};
  if (layers.shownCovers()) held.covered = layers.merged(Layer::effective);
  held_.emplace(path, std::move(held));
}

void Spaces::show(Path path, LayeredChanges& visible) {
  const auto held = held_.extract(path);
  if (!held) return;
  const Record& before = held.mapped().base;
  const Name type = at(path).type();
  if (orNull(before) && type != before.type)
    showReplaced(path, visible);
  else if (!type.empty())
    showDifferences(held.mapped(), path, visible);
}

void Spaces::showDifferences(const Held& before, Path path, LayeredChanges& visible) {
  const Record& base = *find(path, Layer::base);
  const Record& effective = *find(path, Layer::effective);
  if (!before.covered && &effective == &base)
    return visible.both([&](Changes& changes) { appendDifferences(before.base, base, changes); });
  visible.apart([&](Changes& ofEffective, Changes& ofBase) {
    appendDifferences(before.of(Layer::effective), effective, ofEffective);
    appendDifferences(before.base, base, ofBase);
  });
}

void Spaces::showNew(Path path, LayeredChanges& visible) { showDifferences({}, path, visible); }

// A del takes along what is under the path: puts what stays.
void Spaces::showReplaced(Path path, LayeredChanges& visible) {
  visible.both([&](Changes& changes) { changes.push_back(Change::del(path)); });
  path.forEachUnder([&](Path each) {
    held_.erase(each);
    if (!at(each).type().empty()) showNew(each, visible);
  });
}

void Spaces::showUnder(Path path, LayeredChanges& visible) {
  show(path, visible);
  if (!held_.empty()) path.forEachUnder([&](Path each) { show(each, visible); });
}

// An entity before those under it.
void Spaces::showAll(LayeredChanges& visible) {
  std::vector<Path> paths;
  for (const auto& [path, before] : held_) paths.push_back(path);
  std::ranges::sort(paths);
  for (const Path& each : paths) show(each, visible);
}

}  // namespace Host::Redis
