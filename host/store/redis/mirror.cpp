#include "host/store/redis/mirror.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/store/redis/spaces.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Record;
using Statedb::Records;
using Statedb::Row;
using Zel::Name;
using Zel::Value;

namespace {

// The entities that the pending writes change, as they make them. Applied from the start where anything
// under them changed, but not before somebody reads.
class Overlay {
 public:
  using Pending = Mirror::Pending;

  explicit Overlay(Spaces& spaces) : spaces_(spaces) {}

  Pending add(const Changes& changes);
  void remove(Pending pending);
  void spacesChanged() { isStale_ = !pending_.empty(); }

  Layers at(Path path);
  const Record* find(Path path);
  std::size_t count();

 private:
  struct Entity {
    Record stored{}, volatile_{};
    Record merged{};  // a cache
    Layers layers() const { return {orNull(stored), orNull(volatile_)}; }
  };

  void refresh();
  Layers layersAt(Path path) const;
  Entity& change(Path path);
  void apply(const Change& change);
  void put(const Row& row);
  void unset(Path path, Name attribute);
  void del(Path path);

  Spaces& spaces_;
  std::map<Pending, Changes> pending_{};
  Pending last_ = 0;
  std::unordered_map<Path, Entity> entities_{};
  bool isStale_ = false;
};

Overlay::Pending Overlay::add(const Changes& changes) {
  pending_.emplace(++last_, changes);
  if (!isStale_)
    for (const Change& each : changes) apply(each);
  return last_;
}

void Overlay::remove(Pending pending) {
  pending_.erase(pending);
  isStale_ = !pending_.empty();
  if (pending_.empty()) entities_.clear();
}

void Overlay::refresh() {
  if (!std::exchange(isStale_, false)) return;
  entities_.clear();
  for (const auto& [pending, changes] : pending_)
    for (const Change& each : changes) apply(each);
}

Layers Overlay::layersAt(Path path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? spaces_.at(path) : found->second.layers();
}

Layers Overlay::at(Path path) {
  refresh();
  return layersAt(path);
}

const Record* Overlay::find(Path path) {
  refresh();
  const auto found = entities_.find(path);
  if (found == entities_.end()) return spaces_.find(path);
  Record& merged = found->second.merged;
  if (!orNull(merged)) merged = found->second.layers().merged();
  return orNull(merged);
}

std::size_t Overlay::count() {
  refresh();
  std::size_t count = spaces_.count();
  for (const auto& [path, entity] : entities_) {
    if (!spaces_.at(path).type().empty()) --count;
    if (!entity.layers().type().empty()) ++count;
  }
  return count;
}

Overlay::Entity& Overlay::change(Path path) {
  const auto [found, isNew] = entities_.try_emplace(path);
  Entity& entity = found->second;
  entity.merged = {};
  if (!isNew) return entity;
  const Layers layers = spaces_.at(path);
  if (layers.stored) entity.stored = *layers.stored;
  if (layers.volatile_) entity.volatile_ = *layers.volatile_;
  return entity;
}

void Overlay::apply(const Change& change) {
  const Row& row = change.row;
  if (change.kind == Change::Kind::del)
    del(row.path);
  else if (change.kind == Change::Kind::unset)
    unset(row.path, row.attribute);
  else
    put(row);
}

void Overlay::put(const Row& row) {
  const Name type = layersAt(row.path).type();
  if (!type.empty() && type != row.type) del(row.path);
  Record& stored = change(row.path).stored;
  if (!orNull(stored)) stored = {row.path, row.type, {}};
  if (!row.attribute.empty()) setIn(stored, {row.attribute, row.value});
}

void Overlay::unset(Path path, Name attribute) {
  if (!layersAt(path).find(attribute)) return;
  Entity& entity = change(path);
  unsetIn(entity.stored, attribute);
  unsetIn(entity.volatile_, attribute);
}

void Overlay::del(Path path) {
  path.forEachUnder([this](Path each) {
    if (!layersAt(each).type().empty()) entities_[each] = {};
  });
}

}  // namespace

struct Mirror::State {
  Spaces spaces{};
  Overlay overlay{spaces};
};

Mirror::Mirror() : state_(std::make_unique<State>()) {}
Mirror::~Mirror() = default;

void Mirror::carry(Durability space, const Changes& changes, Changes& visible) {
  for (const Change& each : changes) state_->spaces.carry(space, each, visible);
  state_->overlay.spacesChanged();
}

void Mirror::carryHidden(const Changes& changes) {
  for (const Change& each : changes) state_->spaces.hide(Durability::volatile_, each);
  state_->overlay.spacesChanged();
}

void Mirror::release(Changes& visible) { state_->spaces.showAll(visible); }

void Mirror::replace(Durability space, const Records& rows, Changes& visible) {
  state_->spaces.replace(space, rows);
  state_->spaces.showAll(visible);
  state_->overlay.spacesChanged();
}

Mirror::Pending Mirror::pend(const Changes& changes) { return state_->overlay.add(changes); }
void Mirror::settle(Pending pending) { state_->overlay.remove(pending); }

void Mirror::withShown(Path path, const std::function<void(const Records&)>& take) const {
  Records records;
  path.forEachUnder([&](Path each) {
    if (const Record* record = state_->spaces.shown(each)) records.push_back(record);
  });
  take(records);
}

void Mirror::appendShown(Path path, Name attribute, Changes& changes) const {
  const Record* record = state_->spaces.shown(path);
  if (!record) return;
  if (attribute.empty()) return appendRows(*record, changes);
  if (const Value* value = record->find(attribute))
    changes.push_back(Change::put(path, record->type, attribute, *value));
}

bool Mirror::anyStored(Path path) const {
  bool any = false;
  path.forEachUnder([&](Path each) { any = any || state_->overlay.at(each).stored; });
  return any;
}

Records Mirror::read(Path path) const {
  Records records;
  path.forEachUnder([&](Path each) {
    if (const Record* record = state_->overlay.find(each)) records.push_back(record);
  });
  std::ranges::sort(records, &Statedb::readsBefore, &Record::path);
  return records;
}

Name Mirror::typeAt(Path path) const { return state_->overlay.at(path).type(); }

std::size_t Mirror::entities() const { return state_->overlay.count(); }

std::unordered_map<Name, std::size_t> Mirror::entitiesByType() const {
  std::unordered_map<Name, std::size_t> counts;
  Path().forEachUnder([&](Path each) {
    if (const Name type = typeAt(each); !type.empty()) ++counts[type];
  });
  return counts;
}

}  // namespace Host::Redis
