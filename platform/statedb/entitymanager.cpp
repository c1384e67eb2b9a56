#include "platform/statedb/entitymanager.h"

#include <algorithm>
#include <deque>
#include <map>
#include <set>

#include "platform/statedb/publisher.h"
#include "platform/statedb/schema.h"
#include "platform/zel/activity.h"
#include "platform/zel/generic.h"

namespace Statedb {

namespace {

// A path followed through the entities as far as they go.
struct Found {
  Zel::Ptr<Zel::Entity> parent;  // of the last step
  PathReader::Step step;         // the last step that was read
  Zel::Ptr<Zel::Entity> entity;  // null where the last step leads to nothing
  bool whole = true;             // whether the path was read to its end
};

Zel::Ptr<Zel::Entity> member(const Zel::Ptr<Zel::Entity>& parent, const PathReader::Step& step) {
  if (const auto dir = Zel::dynamicPtrCast<Zel::Dir>(parent)) return dir->entityRef(step.key);
  const Zel::Value key = step.key;
  const Zel::Value found = Zel::GenericIf::perform(*parent, Zel::Operation::get, step.collection, {&key, 1});
  return Zel::ValueTraits<Zel::Ptr<Zel::Entity>>::fromValue(found);
}

Zel::Ptr<Zel::Entity> newMember(const Zel::Ptr<Zel::Entity>& parent, const PathReader::Step& step,
                                const std::string& type) {
  if (const auto dir = Zel::dynamicPtrCast<Zel::Dir>(parent)) return dir->entryIs(step.key, type);
  if (step.memberType->name().view() != type)
    throw Zel::ValueError("found type " + type + ", wanted " + step.memberType->name().stdString());
  const Zel::Value key = step.key;
  const Zel::Value made = Zel::GenericIf::perform(*parent, Zel::Operation::set, step.collection, {&key, 1});
  return Zel::ValueTraits<Zel::Ptr<Zel::Entity>>::fromValue(made);
}

void removeMember(const Zel::Ptr<Zel::Entity>& parent, const PathReader::Step& step) {
  if (const auto dir = Zel::dynamicPtrCast<Zel::Dir>(parent)) {
    dir->entryDel(step.key);
    return;
  }
  const Zel::Value key = step.key;
  Zel::GenericIf::perform(*parent, Zel::Operation::del, step.collection, {&key, 1});
}

std::string typeOf(const Zel::Entity& entity) { return entity.fwkType().name().stdString(); }

// Calls `function` for every stored row of the entity's type, its bases' first.
template <class Function>
void forEachStored(const Zel::TypeNode& type, Function&& function) {
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const Zel::AttributeInfo& row = type.attribute(index); row.stored) function(index, row);
}

// Members of the entity's collections, each with its path under `path`.
template <class Function>
void forEachMember(const Zel::Entity& entity, const std::string& path, Function&& function) {
  forEachStored(entity.fwkType(), [&](Zel::AttributeIndex, const Zel::AttributeInfo& row) {
    if (row.kind != Zel::Kind::collection) return;
    for (const Zel::Name key : row.keys(entity))
      function((path.empty() ? "" : path + "/") + (row.direct ? "" : row.name + std::string("/")) +
               Zel::escapeComponent(key.view()));
  });
}

}  // namespace

// The entities, and everything that brings rows into them.
struct EntityManager::State : Zel::PassEnd {
  // What stands under one path of the store.
  struct Subscription : Feed {
    Subscription(State& owner, std::string subscribedPath) : state(owner), path(std::move(subscribedPath)) {}
    void onSnapshot(const std::vector<Row>& rows) override {
      arrived = true;
      state.applySnapshot(path, rows);
      state.completeLater();
    }
    void onChanges(const Changes& changes) override {
      state.queue.insert(state.queue.end(), changes.begin(), changes.end());
      state.work();
    }
    bool publishes(const std::string& at) const override {
      return std::ranges::any_of(state.mounts, [&](const MountInfo& mount) {
        return mount.mode == "wi" && isUnder(at, mount.path);
      });
    }

    State& state;
    const std::string path;
    bool arrived = false;
  };

  explicit State(Store& theStore) : store(theStore), root(Zel::allocate<Zel::Dir>(Zel::Name())) {
    Zel::activityManager().passEndIs(*this);
  }
  ~State() override {
    for (const auto& subscription : subscriptions) store.unsubscribe(*subscription);
    Zel::activityManager().passEndDel(*this);
  }

  void say(const std::string& text) const {
    if (report) report(text);
  }
  void refuse(const Row& row, const std::string& why) {
    ++refusals;
    if (row.attribute.empty()) refusedTypes[row.path] = row.type;
    say(row.path + (row.attribute.empty() ? "" : " " + row.attribute) + ": " + why);
  }

  // Follows a path. Throws ValueError where it is not one.
  Found find(const std::string& path) const {
    Found found;
    found.entity = root;
    for (PathReader reader(path); !reader.done();) {
      found.parent = found.entity;
      found.step = reader.next(found.parent->fwkType());
      found.entity = member(found.parent, found.step);
      found.whole = reader.done();
      if (!found.entity) break;
    }
    return found;
  }

  // The same for paths that need not be one.
  Zel::Ptr<Zel::Entity> entityAt(const std::string& path) const {
    try {
      return find(path).entity;
    } catch (const Zel::ValueError&) {
      return nullptr;
    }
  }

  // The entity at a path, made where it was not there; directories on the way as well.
  Zel::Ptr<Zel::Entity> ensure(const std::string& path, const std::string& type) {
    for (;;) {
      const Found found = find(path);
      if (found.entity) return found.entity;
      if (!found.whole && found.step.memberType)
        throw Zel::ValueError("there is no entity at '" + found.step.path + "'");
      const auto made =
          newMember(found.parent, found.step, found.whole ? type : typeOnTheWay(found.step.path));
      published(found.parent, [&](PublishedEntity& above) { above.adopt(found.step, made); });
      if (found.whole) return made;
    }
  }

  // What stands above an entity without a row of its own: what is mounted there, else a directory.
  std::string typeOnTheWay(const std::string& path) const {
    const auto mount = std::ranges::find(mounts, path, &MountInfo::path);
    return mount == mounts.end() ? "Zel::Dir" : mount->type;
  }

  // Calls `function` with what publishes an entity, where something does.
  template <class Function>
  void published(const Zel::Ptr<Zel::Entity>& entity, Function&& function) {
    for (const auto& publisher : publishers)
      if (const auto found = publisher->find(*entity)) function(*found);
  }

  // Rows into entities
  // ------------------------------------------------------------------------------------------

  bool mountedAtOrUnder(const std::string& path) const {
    return std::ranges::any_of(mounts, [&](const MountInfo& mount) { return isUnder(mount.path, path); });
  }
  // Whether the entity at `path`, or one above it, was removed in this pass.
  bool waitsForDelivery(const std::string& path) const {
    if (gone.empty()) return false;
    for (std::size_t end = path.find('/');; end = path.find('/', end + 1)) {
      if (gone.contains(path.substr(0, end))) return true;
      if (end == std::string::npos) return false;
    }
  }

  // Applies what is queued, up to a re-creation whose removal was not delivered yet.
  void work() {
    while (!queue.empty()) {
      const Change& next = queue.front();
      if (next.kind == Change::Kind::put && waitsForDelivery(next.row.path)) return;
      apply(next);
      queue.pop_front();
    }
  }

  void apply(const Change& change) {
    const Row& row = change.row;
    try {
      if (change.kind == Change::Kind::del)
        remove(row.path);
      else
        put(row);
    } catch (const std::exception& error) {
      refuse(row, error.what());
    }
  }

  void put(const Row& row) {
    const auto entity = ensure(row.path, row.type);
    if (typeOf(*entity) != row.type)
      throw Zel::ValueError("found type " + row.type + ", the entity is a " + typeOf(*entity));
    if (row.attribute.empty()) {
      refusedTypes.erase(row.path);
      return;
    }
    checkRow(row.type, row.attribute, row.value);
    entity->fwkType().find(row.attribute)->set(*entity, {&row.value, 1});
    published(entity, [](PublishedEntity& publisher) { publisher.noteValues(); });
  }

  // Takes an entity out. One that is mounted, or that holds one that is, stays and is emptied instead.
  void remove(const std::string& path) {
    std::erase_if(refusedTypes, [&](const auto& refused) { return isUnder(refused.first, path); });
    const Found found = find(path);
    if (!found.entity) return;
    if (path.empty() || mountedAtOrUnder(path)) return clear(*found.entity, path);
    published(found.parent, [&](PublishedEntity& above) { above.forget(found.step); });
    removeMember(found.parent, found.step);
    gone.insert(path);
  }

  void clear(Zel::Entity& entity, const std::string& path) {
    forEachMember(entity, path, [&](const std::string& member) { remove(member); });
    forEachStored(entity.fwkType(), [&](Zel::AttributeIndex, const Zel::AttributeInfo& row) {
      if (row.reset) row.reset(entity);
    });
  }

  // Everything under `path` becomes what the rows say: what is gone goes first, what is the same hears
  // nothing.
  void applySnapshot(const std::string& path, const std::vector<Row>& rows) {
    std::erase_if(queue, [&](const Change& change) { return isUnder(change.row.path, path); });
    std::map<std::string, std::set<std::string>> present;
    for (const Row& row : rows) present[row.path].insert(row.attribute);
    if (const auto top = entityAt(path)) removeAbsent(*top, path, present);
    for (const Row& row : rows) queue.push_back({Change::Kind::put, row});
    work();
  }

  void removeAbsent(Zel::Entity& entity, const std::string& path,
                    const std::map<std::string, std::set<std::string>>& present) {
    const auto rows = present.find(path);
    forEachStored(entity.fwkType(), [&](Zel::AttributeIndex, const Zel::AttributeInfo& row) {
      if (row.reset && (rows == present.end() || !rows->second.contains(row.name))) row.reset(entity);
    });
    forEachMember(entity, path, [&](const std::string& each) {
      const Found found = find(each);
      if (found.entity && (present.contains(each) || hasUnder(present, each)))
        removeAbsent(*found.entity, each, present);
      else if (found.entity)
        remove(each);
    });
  }

  template <class Map>
  static bool hasUnder(const Map& present, const std::string& path) {
    const auto next = present.lower_bound(path + '/');
    return next != present.end() && isUnder(next->first, path);
  }

  // Mounting
  // ----------------------------------------------------------------------------------------------------

  Subscription* covering(const std::string& path) const {
    for (const auto& subscription : subscriptions)
      if (isUnder(path, subscription->path)) return subscription.get();
    return nullptr;
  }

  // Subscribes to the mounts' paths, outer ones first, so that no row is heard twice.
  void subscribe(const MountGroup& group) {
    std::set<std::string> paths;
    for (const Mount& mount : group.mounts()) paths.insert(mount.path().stdString());
    for (const std::string& path : paths) {
      if (covering(path)) continue;
      std::vector<std::unique_ptr<Subscription>> covered;
      for (auto& subscription : subscriptions)
        if (isUnder(subscription->path, path)) covered.push_back(std::move(subscription));
      std::erase(subscriptions, nullptr);
      subscriptions.push_back(std::make_unique<Subscription>(*this, path));
      for (const auto& old : covered) store.unsubscribe(*old);
      store.subscribe(path, *subscriptions.back());
    }
  }

  void noteMounts(const MountGroup& group) {
    for (const Mount& mount : group.mounts()) {
      const auto known = std::ranges::find(mounts, mount.path().stdString(), &MountInfo::path);
      if (known == mounts.end())
        mounts.push_back(
            {mount.path().stdString(), mount.typeName().stdString(), mount.mode().stdString(), false});
      else if (mount.mode() == "wi")
        known->mode = "wi";
    }
  }

  void close(const Zel::Ptr<MountGroup>& group) {
    std::erase_if(open, [&](const auto& entry) { return entry.second == group; });
    closed.push_back(group);
    Zel::activityManager().post([this, group] {
      if (std::ranges::find(closed, group) == closed.end()) return;
      noteMounts(*group);
      subscribe(*group);
      completeLater();
    });
  }

  void completeLater() {
    Zel::activityManager().post([this] { complete(); });
  }

  // Completes the groups whose rows have all arrived and been applied, in the order in which they were
  // closed.
  void complete() {
    for (const auto& group : std::vector(closed)) {
      const bool ready = queue.empty() && std::ranges::all_of(group->mounts(), [&](const Mount& mount) {
                           const Subscription* subscription = covering(mount.path().stdString());
                           return subscription && subscription->arrived;
                         });
      if (!ready) continue;
      std::erase(closed, group);
      finish(*group);
    }
  }

  void finish(MountGroup& group) {
    for (const Mount& mount : group.mounts()) {
      try {
        finish(mount);
      } catch (const std::exception& error) {
        group.failures_.push_back("mount of '" + mount.path().stdString() + "': " + error.what());
        say(group.failures_.back());
      }
    }
    const auto mounter = std::exchange(group.mounter_, nullptr);
    const auto manager = std::exchange(group.entityManager_, nullptr);
    const Zel::ActivityManager::AgentScope scope(mounter->name());
    mounter->doMountsComplete(group.failures_.empty() ? mountSuccess_ : mountFailure_, manager);
  }

  void finish(const Mount& mount) {
    const std::string path = mount.path().stdString();
    const std::string asked = mount.typeName().stdString();
    if (!Zel::typeNode(Zel::Name(asked)))
      throw Zel::ValueError("the type asked for, " + asked + ", is unknown");
    const auto refused = refusedTypes.find(path);
    const auto entity = refused == refusedTypes.end() ? ensure(path, asked) : nullptr;
    const std::string found = entity ? typeOf(*entity) : refused->second;
    if (found != asked) throw Zel::ValueError("found an entity of type " + found + ", asked for " + asked);
    std::ranges::find(mounts, path, &MountInfo::path)->complete = true;
    mounted[path] = entity;
    if (mount.mode() == "wi" &&
        std::ranges::none_of(publishers, [&](auto& each) { return each->path() == path; }))
      publishers.push_back(std::make_unique<Publisher>(entity, path));
  }

  // The end of a pass: what the agents wrote goes out, and what waited for deliveries goes on.
  void onPassEnd() override {
    for (const auto& publisher : publishers) publish(*publisher);
    gone.clear();
    work();
    if (!closed.empty() && queue.empty()) complete();
  }

  void publish(Publisher& publisher) {
    const Changes changes = publisher.take();
    if (changes.empty()) return;
    try {
      store.write(changes, Durability::derived, covering(publisher.path()));
      publishedRows += changes.size();
    } catch (const StoreError& error) {
      say(publisher.path() + ": could not be published: " + error.what());
      publisher.giveBack(changes);
    }
  }

  Store& store;
  const Zel::Ptr<Zel::Dir> root;
  std::vector<MountInfo> mounts;
  std::map<std::string, Zel::Ptr<Zel::Entity>> mounted;
  std::map<const Mounter*, Zel::Ptr<MountGroup>> open;
  std::vector<Zel::Ptr<MountGroup>> closed;  // and not complete
  std::vector<std::unique_ptr<Subscription>> subscriptions;
  std::vector<std::unique_ptr<Publisher>> publishers;
  std::deque<Change> queue;                         // told by the store, not applied yet
  std::set<std::string> gone;                       // paths whose removal waits to be delivered
  std::map<std::string, std::string> refusedTypes;  // of entities that could not be made, by path
  std::function<void(const std::string&)> report;
  std::uint64_t refusals = 0;
  std::uint64_t publishedRows = 0;
};

EntityManager::EntityManager(Store& store) : state_(std::make_unique<State>(store)) {}
EntityManager::~EntityManager() = default;

Zel::Ptr<MountGroup> EntityManager::getMountGroup(const Zel::Ptr<Mounter>& mounter) {
  auto& group = state_->open[mounter.get()];
  if (!group) group = Zel::allocate<MountGroup>(Zel::Ptr<EntityManager>(this), mounter);
  return group;
}

Zel::Ptr<Zel::Entity> EntityManager::getEntity(Zel::String path) const {
  const auto found = state_->mounted.find(path.stdString());
  return found == state_->mounted.end() ? nullptr : found->second;
}

Zel::Ptr<Zel::Entity> EntityManager::entityAt(const std::string& path) const {
  return state_->entityAt(path);
}

const Zel::Ptr<Zel::Dir>& EntityManager::root() const { return state_->root; }

std::vector<EntityManager::MountInfo> EntityManager::mounts() const { return state_->mounts; }

void EntityManager::reportIs(std::function<void(const std::string&)> report) {
  state_->report = std::move(report);
}
std::uint64_t EntityManager::refusals() const { return state_->refusals; }
std::uint64_t EntityManager::published() const { return state_->publishedRows; }

void EntityManager::close(const Zel::Ptr<MountGroup>& group) { state_->close(group); }

void EntityManager::stop() {
  state_->open.clear();
  for (const auto& group : std::exchange(state_->closed, {})) {
    group->mounter_ = nullptr;
    group->entityManager_ = nullptr;
  }
}

}  // namespace Statedb
