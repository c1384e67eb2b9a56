#include "host/store/redis/mirror.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/store/redis/replacement.h"
#include "host/store/redis/spaces.h"
#include "platform/statedb/store/store.h"

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

// The pending writes on top of the spaces. Sorts the steps by path, and applies those that concern an entity,
// when one is read: so a change costs nothing, however much is pending.
class Overlay {
 public:
  using Pending = Mirror::Pending;

  explicit Overlay(Spaces& spaces) : spaces_(spaces) {}

  Pending add(const Changes& changes);
  void remove(Pending pending);
  void spacesChanged() { entities_ = {}; }

  Layers at(Path path);
  const Record* find(Path path, Layer layer);
  std::size_t count();

 private:
  using Order = std::uint64_t;  // of all pending steps
  using Orders = std::vector<Order>;
  struct Step {
    Order order;
    const Change* change;
  };
  struct Entity {
    Record stored{}, volatile_{};
    std::array<std::optional<Record>, 2> merged{};  // a cache, by Layer
    Layers under(const Record* covers) const { return {orNull(stored), orNull(volatile_), covers}; }
    void clear() { *this = {}; }
  };

  void index();
  Entity* entity(Path path);
  Entity applied(Path path, Orders& removals) const;
  static bool apply(const Row& row, Change::Kind kind, Entity& entity);

  Spaces& spaces_;
  std::map<Pending, Changes> pending_{};
  Pending last_ = 0, indexed_ = 0;
  Order lastOrder_ = 0;
  std::unordered_map<Path, std::vector<Step>> steps_{};  // in order
  std::unordered_map<Path, Entity> entities_{};          // a cache until anything changes
};

Overlay::Pending Overlay::add(const Changes& changes) {
  entities_ = {};
  pending_.emplace(++last_, changes);
  return last_;
}

void Overlay::index() {
  for (auto batch = pending_.upper_bound(indexed_); batch != pending_.end(); ++batch)
    for (const Change& each : batch->second) steps_[each.row.path].push_back({++lastOrder_, &each});
  indexed_ = last_;
}

void Overlay::remove(Pending pending) {
  const auto batch = pending_.extract(pending);
  if (!batch) return;
  entities_ = {};
  if (pending > indexed_) return;
  for (const Change& each : batch.mapped()) {
    const auto found = steps_.find(each.row.path);
    std::erase_if(found->second, [&](const Step& step) { return step.change == &each; });
    if (found->second.empty()) steps_.erase(found);
  }
}

// Null where no pending step concerns it. The steps of the entities above count, because they may remove it.
Overlay::Entity* Overlay::entity(Path path) {
  if (pending_.empty()) return nullptr;
  index();
  if (const auto found = entities_.find(path); found != entities_.end()) return &found->second;
  std::vector<Path> concerned;
  for (Path each = path;; each = each.parent()) {
    if (steps_.contains(each)) concerned.push_back(each);
    if (each.empty()) break;
  }
  if (concerned.empty()) return nullptr;
  Orders removals;
  std::ranges::reverse(concerned);
  for (const Path& each : concerned)
    if (each != path) applied(each, removals);
  return &entities_.emplace(path, applied(path, removals)).first->second;
}

// `removals`: of the entities above; adds those of this one.
Overlay::Entity Overlay::applied(Path path, Orders& removals) const {
  Entity entity;
  const Layers layers = spaces_.at(path);
  if (layers.stored) entity.stored = *layers.stored;
  if (layers.volatile_) entity.volatile_ = *layers.volatile_;
  Orders own;
  auto removal = removals.begin();
  const auto removeUntil = [&](Order order) {
    for (; removal != removals.end() && *removal < order; ++removal) entity.clear();
  };
  if (const auto steps = steps_.find(path); steps != steps_.end())
    for (const auto& [order, change] : steps->second) {
      removeUntil(order);
      if (apply(change->row, change->kind, entity)) own.push_back(order);
    }
  removeUntil(lastOrder_ + 1);
  removals.insert(removals.end(), own.begin(), own.end());
  std::ranges::sort(removals);
  return entity;
}

// As Statedb::Store says for stored steps. Whether all under the entity is removed.
bool Overlay::apply(const Row& row, Change::Kind kind, Entity& entity) {
  const Name type = entity.under(nullptr).type();
  const bool removes =
      kind == Change::Kind::del || (kind == Change::Kind::put && !type.empty() && type != row.type);
  if (removes) entity.clear();
  if (kind == Change::Kind::unset) {
    unsetIn(entity.stored, row.attribute);
    unsetIn(entity.volatile_, row.attribute);
  }
  if (kind != Change::Kind::put) return removes;
  if (!orNull(entity.stored)) entity.stored = {row.path, row.type, {}};
  if (!row.attribute.empty()) setIn(entity.stored, {row.attribute, row.value});
  return removes;
}

Layers Overlay::at(Path path) {
  const Entity* pending = entity(path);
  const Layers layers = spaces_.at(path);
  return pending ? pending->under(layers.covers) : layers;
}

const Record* Overlay::find(Path path, Layer layer) {
  Entity* pending = entity(path);
  if (!pending) return spaces_.find(path, layer);
  std::optional<Record>& merged = pending->merged[static_cast<std::size_t>(layer)];
  if (!merged) merged = at(path).merged(layer);
  return orNull(*merged);
}

// Takes linear time while anything is pending.
std::size_t Overlay::count() {
  if (pending_.empty()) return spaces_.count();
  std::size_t count = 0;
  Path().forEachUnder([&](Path each) { count += at(each).type().empty() ? 0 : 1; });
  return count;
}

}  // namespace

struct Mirror::State {
  Spaces spaces{};
  Overlay overlay{spaces};
  std::array<Replacement, 3> replacements{};  // by Durability

  Replacement& replacement(Durability space) { return replacements[static_cast<std::size_t>(space)]; }
};

Mirror::Mirror() : state_(std::make_unique<State>()) {}
Mirror::~Mirror() = default;

void Mirror::carry(Durability space, const Changes& changes, LayeredChanges& visible) {
  const Replacement& replacement = state_->replacement(space);
  for (const Change& each : changes)
    if (replacement.isDone())
      state_->spaces.carry(space, each, visible);
    else
      replacement.carry(state_->spaces, each, visible);
  state_->overlay.spacesChanged();
}

void Mirror::carryHidden(const Changes& changes) {
  const Replacement& replacement = state_->replacement(Durability::volatile_);
  for (const Change& each : changes)
    if (replacement.isDone())
      state_->spaces.hide(Durability::volatile_, each);
    else
      replacement.hide(state_->spaces, each);
  state_->overlay.spacesChanged();
}

void Mirror::release(LayeredChanges& visible) { state_->spaces.showAll(visible); }

void Mirror::replace(Durability space, Wanted wanted) {
  state_->replacement(space) = Replacement(space, std::move(wanted));
}

bool Mirror::proceed(Durability space, std::size_t most, LayeredChanges& visible) {
  Replacement& replacement = state_->replacement(space);
  replacement.proceed(state_->spaces, most, visible);
  if (replacement.isDone()) state_->spaces.showAll(visible);
  state_->overlay.spacesChanged();
  return replacement.isDone();
}

Mirror::Pending Mirror::pend(const Changes& changes) { return state_->overlay.add(changes); }
void Mirror::settle(Pending pending) { state_->overlay.remove(pending); }

const Record* Mirror::shown(Path path, Layer layer) const { return state_->spaces.shown(path, layer); }

void Mirror::withShown(Path path, Layer layer, const std::function<void(const Records&)>& take) const {
  Records records;
  path.forEachUnder([&](Path each) {
    if (const Record* record = shown(each, layer)) records.push_back(record);
  });
  take(records);
}

void Mirror::appendShown(Path path, Name attribute, Changes& changes) const {
  const Record* record = shown(path, Layer::effective);
  if (!record) return;
  if (attribute.empty()) return appendRows(*record, changes);
  if (const Value* value = record->find(attribute))
    changes.push_back(Change::put(path, record->type, attribute, *value));
}

// A written value counts if no later step of the batch is at its place, so each step looks for what is
// visible in itself and in the steps after it.
Changes Mirror::revealedBy(const Changes& changes) const {
  Changes revealed;
  for (auto change = changes.begin(); change != changes.end(); ++change) {
    Changes shown;
    appendShownAt(*change, shown);
    for (Change& each : shown)
      if (std::find(change, changes.end(), each) == changes.end()) revealed.push_back(std::move(each));
  }
  return revealed;
}

// That an entity is there is no news to whom put it, but its covers are.
void Mirror::appendShownAt(const Change& change, Changes& shown) const {
  const Row& row = change.row;
  if (change.kind == Change::Kind::del)
    return withShown(row.path, Layer::effective, [&](const Records& records) {
      for (const Record* each : records) appendRows(*each, shown);
    });
  if (!row.attribute.empty()) appendShown(row.path, row.attribute, shown);
  const Record* covers = state_->spaces.at(row.path).shownCovers();
  if (change.kind != Change::Kind::put || !covers) return;
  for (const Attribute& each : covers->attributes)
    if (each.name != row.attribute) appendShown(row.path, each.name, shown);
}

void Mirror::checkTypes(const Changes& changes) const {
  for (const Change& change : changes) {
    const auto& [path, type, attribute, value] = change.row;
    if (change.kind != Change::Kind::put) continue;
    const Name there = typeAt(path);
    if (!there.empty() && there != type && anyStored(path))
      throw Statedb::RefusedError("'" + path.text() + "' is stored as a " + there.stdString() +
                                  "; delete it before a " + type.stdString() + " is published there");
  }
}

bool Mirror::hasCovers() const { return state_->spaces.hasCovers(); }

bool Mirror::anyStored(Path path) const {
  bool any = false;
  path.forEachUnder([&](Path each) { any = any || state_->overlay.at(each).stored; });
  return any;
}

Records Mirror::read(Path path, Layer layer) const {
  Records records;
  path.forEachUnder([&](Path each) {
    if (const Record* record = state_->overlay.find(each, layer)) records.push_back(record);
  });
  std::ranges::sort(records, &Statedb::readsBefore, &Record::path);
  return records;
}

Records Mirror::readCovers(Path path) const {
  Records records;
  path.forEachUnder([&](Path each) {
    const Record* covers = state_->spaces.at(each).covers;
    if (covers && !covers->attributes.empty()) records.push_back(covers);
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
