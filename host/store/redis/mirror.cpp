#include "host/store/redis/mirror.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/store/redis/spaces.h"
#include "platform/statedb/store/store.h"

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
  const Record* find(Path path);
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
    std::optional<Record> merged{};  // a cache
    Layers layers() const { return {orNull(stored), orNull(volatile_)}; }
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
  const Name type = entity.layers().type();
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
  return pending ? pending->layers() : spaces_.at(path);
}

const Record* Overlay::find(Path path) {
  Entity* pending = entity(path);
  if (!pending) return spaces_.find(path);
  if (!pending->merged) pending->merged = pending->layers().merged();
  return orNull(*pending->merged);
}

// Takes linear time while anything is pending.
std::size_t Overlay::count() {
  if (pending_.empty()) return spaces_.count();
  std::size_t count = 0;
  Path().forEachUnder([&](Path each) { count += at(each).type().empty() ? 0 : 1; });
  return count;
}

// Two walks over all paths: forth, which has an entity before those under it, for what is wanted, and back
// for what is not. Paths come and go between portions. One that a walk does not meet, because it was made
// behind it, has no entity but one that was carried, which is as wanted already; one that it meets after that
// is left as it is.
class Replacement {
 public:
  Replacement() = default;
  Replacement(Durability space, Mirror::Wanted wanted)
      : space_(space), wanted_(std::move(wanted)), walk_(Walk::forth) {}

  bool isDone() const { return walk_ == Walk::done; }
  void proceed(Spaces& spaces, std::size_t most, Changes& visible) {
    for (; most > 0 && !isDone(); --most)
      walk_ == Walk::forth ? stepForth(spaces, visible) : stepBack(spaces, visible);
  }

  // Carries a change that is wanted already, as may be others that follow.
  void carry(Spaces& spaces, const Change& change, Changes& visible) const {
    const Row& row = change.row;
    const bool isPut = change.kind == Change::Kind::put;
    if (change.kind == Change::Kind::del || (isPut && isOther(spaces.at(row.path), row.type)))
      renewUnder(spaces, row.path, visible);
    else
      renew(spaces, row.path, visible);
  }
  void hide(Spaces& spaces, const Change& change) const {
    if (change.kind == Change::Kind::del)
      hideUnder(spaces, change.row.path);
    else
      hideAt(spaces, change.row.path);
  }

 private:
  enum class Walk : std::uint8_t { forth, back, done };

  void stepForth(Spaces& spaces, Changes& visible) {
    put(spaces, at_, visible);
    at_ = at_.next();
    if (at_.empty()) walk_ = Walk::back;
  }
  void stepBack(Spaces& spaces, Changes& visible) {
    at_ = at_.previous();
    if (at_.empty())
      walk_ = Walk::done;
    else
      remove(spaces, at_, visible);
  }
  void put(Spaces& spaces, Path path, Changes& visible) const {
    const auto wanted = wanted_(path);
    if (wanted && *wanted) renew(spaces, path, *wanted, visible);
  }
  void remove(Spaces& spaces, Path path, Changes& visible) const {
    if (spaces.at(path).type().empty()) return;
    const auto wanted = wanted_(path);
    if (wanted && !*wanted) spaces.renew(space_, path, nullptr, visible);
  }

  void renew(Spaces& spaces, Path path, Changes& visible) const {
    if (const auto wanted = wanted_(path)) renew(spaces, path, *wanted, visible);
  }
  // An entity of another type takes along what is under it.
  void renew(Spaces& spaces, Path path, const Record* wanted, Changes& visible) const {
    const bool isReplaced = wanted && isOther(spaces.at(path), wanted->type);
    isReplaced ? renewUnder(spaces, path, visible) : spaces.renew(space_, path, wanted, visible);
  }
  bool isOther(const Layers& layers, Name type) const {
    const Record* own = space_ == Durability::stored ? layers.stored : layers.volatile_;
    return (own && own->type != type) || (!layers.type().empty() && layers.type() != type);
  }
  void renewUnder(Spaces& spaces, Path path, Changes& visible) const {
    hideUnder(spaces, path);
    spaces.showUnder(path, visible);
  }
  void hideUnder(Spaces& spaces, Path path) const {
    path.forEachUnder([&](Path each) { hideAt(spaces, each); });
  }
  void hideAt(Spaces& spaces, Path path) const {
    if (const auto wanted = wanted_(path)) spaces.renewHidden(space_, path, *wanted);
  }

  Durability space_ = Durability::stored;
  Mirror::Wanted wanted_{};
  Walk walk_ = Walk::done;
  Path at_{};  // forth: the next one; back: the last one
};

}  // namespace

struct Mirror::State {
  Spaces spaces{};
  Overlay overlay{spaces};
  Replacement stored{}, volatile_{};

  Replacement& replacement(Durability space) { return space == Durability::stored ? stored : volatile_; }
};

Mirror::Mirror() : state_(std::make_unique<State>()) {}
Mirror::~Mirror() = default;

void Mirror::carry(Durability space, const Changes& changes, Changes& visible) {
  const Replacement& replacement = state_->replacement(space);
  for (const Change& each : changes)
    if (replacement.isDone())
      state_->spaces.carry(space, each, visible);
    else
      replacement.carry(state_->spaces, each, visible);
  state_->overlay.spacesChanged();
}

void Mirror::carryHidden(const Changes& changes) {
  const Replacement& replacement = state_->volatile_;
  for (const Change& each : changes)
    if (replacement.isDone())
      state_->spaces.hide(Durability::volatile_, each);
    else
      replacement.hide(state_->spaces, each);
  state_->overlay.spacesChanged();
}

void Mirror::release(Changes& visible) { state_->spaces.showAll(visible); }

void Mirror::replace(Durability space, Wanted wanted) {
  state_->replacement(space) = Replacement(space, std::move(wanted));
}

bool Mirror::proceed(Durability space, std::size_t most, Changes& visible) {
  Replacement& replacement = state_->replacement(space);
  replacement.proceed(state_->spaces, most, visible);
  if (replacement.isDone()) state_->spaces.showAll(visible);
  state_->overlay.spacesChanged();
  return replacement.isDone();
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

// A written value counts if no later step of the batch is at its place, so each step looks for what is
// visible in itself and in the steps after it.
Changes Mirror::revealedBy(const Changes& changes) const {
  Changes revealed;
  for (auto change = changes.begin(); change != changes.end(); ++change) {
    const Row& row = change->row;
    Changes shown;
    if (change->kind == Change::Kind::put && row.attribute.empty()) continue;
    if (change->kind != Change::Kind::del)
      appendShown(row.path, row.attribute, shown);
    else
      withShown(row.path, [&](const Records& records) {
        for (const Record* each : records) appendRows(*each, shown);
      });
    for (Change& each : shown)
      if (std::find(change, changes.end(), each) == changes.end()) revealed.push_back(std::move(each));
  }
  return revealed;
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
