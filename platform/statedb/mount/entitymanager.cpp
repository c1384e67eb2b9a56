#include "platform/statedb/mount/entitymanager.h"

#include <algorithm>
#include <deque>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "platform/statedb/mount/entitytree.h"
#include "platform/statedb/mount/publisher.h"
#include "platform/statedb/store/schema.h"
#include "platform/statedb/store/store.h"
#include "platform/zel/notify/activity.h"

namespace Statedb {

namespace {

Zel::Name typeOf(const Zel::Entity& entity) { return entity.fwkType().name(); }

// Calls `function` for every stored row of the entity's type, its bases' first.
template <class Function>
void forEachStored(const Zel::TypeNode& type, Function&& function) {
  for (const Zel::AttributeInfo* row : type.storedAttributes()) function(*row);
}

// Members of the entity's collections, each with its path under `path`.
template <class Function>
void forEachMember(const Zel::Entity& entity, Path path, Function&& function) {
  forEachStored(entity.fwkType(), [&](const Zel::AttributeInfo& row) {
    if (row.kind != Zel::Kind::collection) return;
    for (const Zel::Name key : row.keys(entity)) function(memberPath(path, row, key));
  });
}

}  // namespace

// The entities, and everything that brings rows into them.
struct EntityManager::State : Zel::PassEnd, std::enable_shared_from_this<State> {
  // What stands under one path of the store.
  struct Subscription : Feed {
    Subscription(State& owner, Path subscribedPath) : state(owner), path(subscribedPath) {}
    void onSnapshot(const Records& records) override {
      arrived = true;
      state.applySnapshot(path, records);
      state.completeLater();
    }
    void onChanges(const Changes& changes) override {
      for (const Change& change : changes) state.take(change);
    }
    bool publishes(Path at) const override {
      return std::ranges::any_of(
          state.mounts, [&](const MountInfo& mount) { return mount.mode == "wi" && at.isUnder(mount.path); });
    }

    State& state;
    const Path path;
    bool arrived = false;
  };

  explicit State(Store& theStore) : store(theStore) { Zel::activityManager().passEndIs(*this); }
  ~State() override {
    for (const auto& subscription : subscriptions) store.unsubscribe(*subscription);
    Zel::activityManager().passEndDel(*this);
  }

  void say(const std::string& text) const {
    if (report) report(text);
  }
  void refuse(const Row& row, const std::string& why) {
    ++refusals;
    if (row.attribute.empty()) refusedEntities[row.path] = {row.type, why};
    say(placeText(row) + ": " + why);
  }

  // The entity at a path, made where it was not there; directories on the way as well.
  Zel::Ptr<Zel::Entity> ensure(Path path, Zel::Name type) {
    return tree
        .findOrMake(path, [&](const Found& at) { return make(at, at.whole ? type : typeOnTheWay(at.path)); })
        .entity;
  }

  Zel::Ptr<Zel::Entity> make(const Found& at, Zel::Name type) {
    if (!at.whole && !at.collection->direct)
      throw Zel::ValueError("there is no entity at '" + at.path.text() + "'");
    const auto made = newMember(at, type);
    published(at.parent, at.path, [&](PublishedEntity& above) { above.adopt(*at.collection, at.key, made); });
    return made;
  }

  // What stands above an entity without a row of its own: what is mounted there, else a directory.
  Zel::Name typeOnTheWay(Path path) const {
    const auto mount = std::ranges::find(mounts, path, &MountInfo::path);
    return mount == mounts.end() ? Zel::Dir::typeNode().name() : mount->type;
  }

  // Calls `function` with what publishes an entity, where something does. `path` is the entity's, or of
  // something under it.
  template <class Function>
  void published(const Zel::Ptr<Zel::Entity>& entity, Path path, Function&& function) {
    for (const auto& publisher : publishers) {
      if (!path.isUnder(publisher->path())) continue;
      if (const auto found = publisher->find(*entity)) function(*found);
    }
  }

  // Rows into entities
  // ------------------------------------------------------------------------------------------

  bool mountedAtOrUnder(Path path) const {
    return std::ranges::any_of(mounts, [&](const MountInfo& mount) { return mount.path.isUnder(path); });
  }
  // Whether the entity at `path`, or one above it, was removed in this pass.
  bool waitsForDelivery(Path path) const {
    if (gone.empty()) return false;
    for (; !path.empty(); path = path.parent())
      if (gone.contains(path)) return true;
    return false;
  }

  // Whether a change must wait: for those before it, or as a re-creation whose removal was not delivered yet.
  bool mustWait(const Change& change) const {
    return change.kind == Change::Kind::put && waitsForDelivery(change.row.path);
  }

  void take(const Change& change) {
    if (!queue.empty() || mustWait(change))
      queue.push_back(change);
    else
      apply(change);
  }

  // Applies what waited, as far as it need not wait any more.
  void work() {
    for (; !queue.empty() && !mustWait(queue.front()); queue.pop_front()) apply(queue.front());
  }

  void apply(const Change& change) {
    const Row& row = change.row;
    try {
      if (change.kind == Change::Kind::del)
        remove(row.path);
      else if (change.kind == Change::Kind::unset)
        unset(row);
      else
        put(row);
    } catch (const std::exception& error) {
      refuse(row, error.what());
    }
  }

  void put(const Row& row) {
    const auto entity = ensureOfType(row.path, row.type);
    if (row.attribute.empty())
      refusedEntities.erase(row.path);
    else
      set(*entity, row.type, row.attribute, row.value);
    published(entity, row.path, [](PublishedEntity& publisher) { publisher.noteValues(); });
  }

  void unset(const Row& row) {
    const auto entity = tree.find(row.path).entity;
    const Zel::AttributeInfo* attribute = entity ? entity->fwkType().find(row.attribute) : nullptr;
    if (!attribute || !attribute->reset) return;
    attribute->reset(*entity);
    published(entity, row.path, [](PublishedEntity& publisher) { publisher.noteValues(); });
  }

  Zel::Ptr<Zel::Entity> ensureOfType(Path path, Zel::Name type) {
    auto entity = ensure(path, type);
    if (typeOf(*entity) != type)
      throw Zel::ValueError("found type " + type.stdString() + ", the entity is a " +
                            typeOf(*entity).stdString());
    return entity;
  }

  static void set(Zel::Entity& entity, Zel::Name type, Zel::Name attribute, const Zel::Value& value) {
    const Zel::AttributeInfo* row = entity.fwkType().find(attribute);
    if (!row || !row->stored || !row->set || !row->check) return checkRow(type, attribute, value);
    row->set(entity, {&value, 1});
  }

  // Takes an entity out. One that is mounted, or that holds one that is, stays and is emptied instead.
  void remove(Path path) {
    std::erase_if(refusedEntities, [&](const auto& refused) { return refused.first.isUnder(path); });
    const Found found = tree.find(path);
    if (!found.entity) return;
    if (path.empty() || mountedAtOrUnder(path)) return clear(*found.entity, path);
    published(found.parent, path,
              [&](PublishedEntity& above) { above.forget(*found.collection, found.key); });
    removeMember(found);
    gone.insert(path);
  }

  void clear(Zel::Entity& entity, Path path) {
    forEachMember(entity, path, [&](Path member) { remove(member); });
    forEachStored(entity.fwkType(), [&](const Zel::AttributeInfo& row) {
      if (row.reset) row.reset(entity);
    });
  }

  // Everything under `path` becomes what the records say: what is gone goes first, what is the same hears
  // nothing.
  void applySnapshot(Path path, const Records& records) {
    std::erase_if(queue, [&](const Change& change) { return change.row.path.isUnder(path); });
    if (const auto top = tree.entityAt(path)) {
      Present present;
      for (const Record* record : records) present.add(*record, path);
      removeAbsent(*top, path, present);
    }
    for (const Record* record : records) put(*record);
    work();
  }

  void put(const Record& record) {
    const Row there{record.path, record.type, {}, {}};
    if (!queue.empty() || waitsForDelivery(record.path)) {
      queue.push_back({Change::Kind::put, there});
      for (const Attribute& each : record.attributes)
        queue.push_back(Change::put(record.path, record.type, each.name, each.value));
      return;
    }
    Zel::Ptr<Zel::Entity> entity;
    std::string reason;
    try {
      entity = ensureOfType(record.path, record.type);
      refusedEntities.erase(record.path);
    } catch (const std::exception& error) {
      reason = error.what();
      refuse(there, reason);
    }
    for (const Attribute& each : record.attributes) {
      try {
        if (!entity) throw Zel::ValueError(reason);
        set(*entity, record.type, each.name, each.value);
      } catch (const std::exception& error) {
        refuse({record.path, record.type, each.name, each.value}, error.what());
      }
    }
    if (entity) published(entity, record.path, [](PublishedEntity& publisher) { publisher.noteValues(); });
  }

  // What a snapshot holds, by path; and every path on the way to it, without a record.
  struct Present {
    std::unordered_map<Path, const Record*> records;

    void add(const Record& record, Path top) {
      records[record.path] = &record;
      for (Path above = record.path; above != top;) {
        above = above.parent();
        if (!records.try_emplace(above).second) break;
      }
    }
  };

  void removeAbsent(Zel::Entity& entity, Path path, const Present& present) {
    const auto found = present.records.find(path);
    const Record* record = found == present.records.end() ? nullptr : found->second;
    forEachStored(entity.fwkType(), [&](const Zel::AttributeInfo& row) {
      if (row.reset && (!record || !record->find(row.label))) row.reset(entity);
    });
    forEachMember(entity, path, [&](Path each) {
      const auto member = tree.find(each).entity;
      if (member && present.records.contains(each))
        removeAbsent(*member, each, present);
      else if (member)
        remove(each);
    });
  }

  // Mounting
  // ----------------------------------------------------------------------------------------------------

  Subscription* covering(Path path) const {
    for (const auto& subscription : subscriptions)
      if (path.isUnder(subscription->path)) return subscription.get();
    return nullptr;
  }

  // Subscribes to the mounts' paths, outer ones first, so that no row is heard twice.
  void subscribe(const MountGroup& group) {
    std::vector<Path> paths;
    for (const Mount& mount : group.mounts()) paths.emplace_back(mount.path().view());
    std::ranges::sort(paths, &readsBefore);
    for (const Path path : paths) {
      if (covering(path)) continue;
      std::vector<std::unique_ptr<Subscription>> covered;
      for (auto& subscription : subscriptions)
        if (subscription->path.isUnder(path)) covered.push_back(std::move(subscription));
      std::erase(subscriptions, nullptr);
      subscriptions.push_back(std::make_unique<Subscription>(*this, path));
      for (const auto& old : covered) store.unsubscribe(*old);
      store.subscribe(path, *subscriptions.back());
    }
  }

  void noteMounts(const MountGroup& group) {
    for (const Mount& mount : group.mounts()) {
      const Path path(mount.path().view());
      const auto known = std::ranges::find(mounts, path, &MountInfo::path);
      if (known == mounts.end())
        mounts.push_back({path, mount.typeName(), mount.mode().stdString(), false});
      else if (mount.mode() == "wi")
        known->mode = "wi";
    }
  }

  void close(const Zel::Ptr<MountGroup>& group) {
    std::erase_if(open, [&](const auto& entry) { return entry.second == group; });
    closed.push_back(group);
    post([group](State& state) { state.mount(group); });
  }

  void mount(const Zel::Ptr<MountGroup>& group) {
    if (std::ranges::find(closed, group) == closed.end()) return;
    noteMounts(*group);
    subscribe(*group);
    completeLater();
  }

  void completeLater() {
    post([](State& state) { state.complete(); });
  }

  // Runs `task` in the next pass, if the manager is still there.
  template <class Task>
  void post(Task task) {
    Zel::activityManager().post([weak = weak_from_this(), task = std::move(task)] {
      if (const auto state = weak.lock()) task(*state);
    });
  }

  // Completes the groups whose rows have all arrived and been applied, in the order in which they were
  // closed.
  void complete() {
    for (const auto& group : std::vector(closed)) {
      const bool ready = queue.empty() && std::ranges::all_of(group->mounts(), [&](const Mount& mount) {
                           const Subscription* subscription = covering(Path(mount.path().view()));
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
    const MountStatus status = group.failures_.empty() ? mountSuccess_ : mountFailure_;
    Zel::runForAgent(mounter->name(), "doMountsComplete",
                     [&] { mounter->doMountsComplete(status, manager); });
  }

  static constexpr const char* kRemedy = "; delete that entity from a host without this agent";

  void finish(const Mount& mount) {
    const Path path(mount.path().view());
    const Zel::Name asked(mount.typeName());
    if (!Zel::typeNode(asked))
      throw Zel::ValueError("the type asked for, " + asked.stdString() + ", is unknown");
    checkRefused(path, asked);
    const auto entity = ensure(path, asked);
    if (typeOf(*entity) != asked)
      throw Zel::ValueError("found an entity of type " + typeOf(*entity).stdString() + ", asked for " +
                            asked.stdString() + kRemedy);
    std::ranges::find(mounts, path, &MountInfo::path)->complete = true;
    mounted[path] = entity;
    if (mount.mode() == "wi" &&
        std::ranges::none_of(publishers, [&](auto& each) { return each->path() == path; }))
      publishers.push_back(std::make_unique<Publisher>(entity, path));
  }

  // Throws where the entity at the path, or one above it, is in the store and could not be made here.
  void checkRefused(Path path, Zel::Name asked) const {
    for (Path each = path; !each.empty(); each = each.parent()) {
      const auto refused = refusedEntities.find(each);
      if (refused == refusedEntities.end()) continue;
      throw Zel::ValueError("found an entity of type " + refused->second.type.stdString() +
                            (each == path ? "" : " at '" + each.text() + "'") + " that can't be made (" +
                            refused->second.why + "), asked for " + asked.stdString() + kRemedy);
    }
  }

  // The end of a pass: what the agents wrote goes out, and what waited for deliveries goes on.
  void onPassEnd() override {
    for (const auto& publisher : publishers) publish(*publisher);
    gone.clear();
    work();
    if (!closed.empty() && queue.empty()) complete();
  }

  void publish(Publisher& publisher) {
    if (publisher.changes().empty()) return;
    write(publisher.changes(), publisher.path());
    publisher.clear();
  }

  // A batch that is refused is halved until what is wrong with it stands alone.
  void write(const Changes& changes, Path mount) {
    try {
      store.write(changes, Durability::derived, covering(mount));
      publishedRows += changes.size();
    } catch (const StoreError& error) {
      if (changes.size() == 1) return refusePublished(changes.front().row, error.what());
      const auto [first, second] = halves(changes);
      write(first, mount);
      write(second, mount);
    }
  }

  void refusePublished(const Row& row, const std::string& why) {
    ++refusals;
    say(placeText(row) + ": could not be published: " + why);
  }

  struct Refused {
    Zel::Name type;
    std::string why;
  };

  Store& store;
  EntityTree tree;
  std::vector<MountInfo> mounts;
  std::unordered_map<Path, Zel::Ptr<Zel::Entity>> mounted;
  std::map<const Mounter*, Zel::Ptr<MountGroup>> open;
  std::vector<Zel::Ptr<MountGroup>> closed;  // and not complete
  std::vector<std::unique_ptr<Subscription>> subscriptions;
  std::vector<std::unique_ptr<Publisher>> publishers;
  std::deque<Change> queue;                           // told by the store, not applied yet
  std::unordered_set<Path> gone;                      // paths whose removal waits to be delivered
  std::unordered_map<Path, Refused> refusedEntities;  // that could not be made
  std::function<void(const std::string&)> report;
  std::uint64_t refusals = 0;
  std::uint64_t publishedRows = 0;
};

EntityManager::EntityManager(Store& store) : state_(std::make_shared<State>(store)) {}
EntityManager::~EntityManager() = default;

const Zel::TypeNode& EntityManager::typeNode() {
  static const Zel::TypeNode type("Statedb::EntityManager", nullptr, {}, nullptr, nullptr);
  return type;
}

Zel::Ptr<MountGroup> EntityManager::getMountGroup(const Zel::Ptr<Mounter>& mounter) {
  auto& group = state_->open[mounter.get()];
  if (!group) group = Zel::allocate<MountGroup>(Zel::Ptr<EntityManager>(this), mounter);
  return group;
}

Zel::Ptr<Zel::Entity> EntityManager::getEntity(Zel::String path) const {
  const auto known = Path::existing(path.view());
  const auto found = known ? state_->mounted.find(*known) : state_->mounted.end();
  return found == state_->mounted.end() ? nullptr : found->second;
}

Zel::Ptr<Zel::Entity> EntityManager::entityAt(Path path) const { return state_->tree.entityAt(path); }

const Zel::Ptr<Zel::Dir>& EntityManager::root() const { return state_->tree.root(); }

const std::vector<EntityManager::MountInfo>& EntityManager::mounts() const { return state_->mounts; }

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
