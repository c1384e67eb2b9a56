#include "platform/statedb/mount/publisher.h"

#include <algorithm>
#include <set>

namespace Statedb {

namespace {

std::size_t mix(std::size_t seed, std::size_t hash) {
  return seed ^ (hash + 0x9E3779B97F4A7C15U + (seed << 6) + (seed >> 2));
}

// Equal values have equal hashes.
struct Hasher {
  std::size_t operator()(std::monostate) const { return 1; }
  std::size_t operator()(const Zel::Value::List& list) const {
    std::size_t seed = list.size();
    for (const Zel::Value& value : list) seed = mix(seed, value.visit(*this));
    return seed;
  }
  std::size_t operator()(const Zel::Value::Fields& fields) const {
    std::size_t sum = fields.size();
    for (const auto& [name, value] : fields) sum += mix(std::hash<std::string>()(name), value.visit(*this));
    return sum;
  }
  std::size_t operator()(const Zel::Value::Object& object) const {
    return std::hash<Zel::Ptr<const Zel::PtrInterface>>()(object.pointer);
  }
  template <class T>
  std::size_t operator()(const T& value) const {
    return std::hash<T>()(value);
  }
};

// Calls `function` with every stored attribute of the type that is no collection.
template <class Function>
void forEachPlain(const Zel::TypeNode& type, Function&& function) {
  for (const Zel::AttributeInfo* attribute : type.storedAttributes())
    if (attribute->kind != Zel::Kind::collection) function(*attribute);
}

}  // namespace

PublishedEntity::PublishedEntity(Publisher& publisher, Path path, const Zel::Ptr<const Zel::Entity>& entity)
    : publisher_(publisher), path_(path) {
  notifierIs(entity);
  noteValues();
  const Zel::TypeNode& type = entity->fwkType();
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& attribute = type.attribute(index); attribute.member)
      for (const Zel::Name& key : attribute.keys(*entity))
        watch(index, key, Zel::Ptr<const Zel::Entity>(attribute.member(*entity, key)));
}

void PublishedEntity::noteValues() { known_ = written_ = valuesHash(); }

std::size_t PublishedEntity::valuesHash() const {
  std::size_t seed = 0;
  forEachPlain(entity().fwkType(), [&](const Zel::AttributeInfo& attribute) {
    seed = mix(seed, attribute.get(entity(), {}).visit(Hasher()));
  });
  return seed;
}

Zel::AttributeIndex PublishedEntity::indexOf(const Zel::AttributeInfo& attribute) const {
  const Zel::TypeNode& type = entity().fwkType();
  Zel::AttributeIndex index = 0;
  while (&type.attribute(index) != &attribute) ++index;
  return index;
}

PublishedEntity* PublishedEntity::child(Zel::AttributeIndex collection, Zel::Name key) const {
  if (!members_) return nullptr;
  const auto members = members_->find(collection);
  return members == members_->end() ? nullptr : members->second.get(key);
}

void PublishedEntity::watch(Zel::AttributeIndex collection, Zel::Name key,
                            const Zel::Ptr<const Zel::Entity>& member) {
  unwatch(collection, key);
  if (!members_) members_ = std::make_unique<std::map<Zel::AttributeIndex, Zel::PtrMap<PublishedEntity>>>();
  const Path path = memberPath(path_, entity().fwkType().attribute(collection), key);
  (*members_)[collection].insert(key, Zel::allocate<PublishedEntity>(publisher_, path, member));
}

void PublishedEntity::unwatch(Zel::AttributeIndex collection, Zel::Name key) {
  if (members_) (*members_)[collection].remove(key);
}

void PublishedEntity::adopt(const Zel::AttributeInfo& collection, Zel::Name key,
                            const Zel::Ptr<const Zel::Entity>& member) {
  watch(indexOf(collection), key, member);
}

void PublishedEntity::forget(const Zel::AttributeInfo& collection, Zel::Name key) {
  unwatch(indexOf(collection), key);
}

void PublishedEntity::put(Zel::Name attribute, Zel::Value value) {
  publisher_.add(*this, Change::put(path_, entity().fwkType().name(), attribute, std::move(value)));
}

void PublishedEntity::publishAll() {
  bool any = false;
  forEachPlain(entity().fwkType(), [&](const Zel::AttributeInfo& attribute) {
    put(attribute.label, attribute.get(entity(), {}));
    any = true;
  });
  if (!any) put({}, {});
  written_ = valuesHash();
  if (!members_) return;
  for (const auto& [collection, members] : *members_)
    for (const auto& member : members) member->publishAll();
}

void PublishedEntity::onRawAttribute(Zel::AttributeIndex index, Zel::Name key) {
  const Zel::AttributeInfo& attribute = entity().fwkType().attribute(index);
  if (attribute.member) return key.empty() ? membersChanged(index) : memberChanged(index, key);
  if (!attribute.stored) return;
  const std::size_t values = valuesHash();
  if (values == known_ && written_ == known_) return;
  written_ = values;
  put(attribute.label, attribute.get(entity(), {}));
}

void PublishedEntity::memberChanged(Zel::AttributeIndex collection, Zel::Name key) {
  const auto& attribute = entity().fwkType().attribute(collection);
  const Zel::Ptr<const Zel::Entity> member(attribute.member(entity(), key));
  PublishedEntity* watched = child(collection, key);
  if (watched && member == &watched->entity()) return;
  if (watched) {
    publisher_.add(*this, Change::del(memberPath(path_, attribute, key)));
    unwatch(collection, key);
  }
  if (!member) return;
  watch(collection, key, member);
  child(collection, key)->publishAll();
}

void PublishedEntity::membersChanged(Zel::AttributeIndex collection) {
  std::set<Zel::Name> keys;
  if (members_)
    for (const auto& member : (*members_)[collection]) keys.insert(member->entity().name());
  for (const Zel::Name& key : entity().fwkType().attribute(collection).keys(entity())) keys.insert(key);
  for (const Zel::Name& key : keys) memberChanged(collection, key);
}

Publisher::Publisher(const Zel::Ptr<const Zel::Entity>& entity, Path path)
    : path_(path), top_(Zel::allocate<PublishedEntity>(*this, path, entity)) {}

void Publisher::add(PublishedEntity& source, Change change) {
  changes_.push_back(std::move(change));
  if (sources_.empty() || sources_.back() != &source) sources_.emplace_back(&source);
}

void Publisher::clear() {
  for (const auto& source : sources_) source->noteStored();
  clearKeeping(sources_);
  clearKeeping(changes_);
}

PublishedEntity* Publisher::find(const Zel::Entity& entity) const {
  if (&top_->entity() == &entity) return top_.get();
  if (!entity.parent()) return nullptr;
  PublishedEntity* above = find(*entity.parent());
  if (!above) return nullptr;
  const Zel::TypeNode& type = entity.parent()->fwkType();
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (PublishedEntity* found = above->child(index, entity.name()); found && &found->entity() == &entity)
      return found;
  return nullptr;
}

void Publishers::add(const Zel::Ptr<const Zel::Entity>& entity, Path path) {
  if (std::ranges::none_of(publishers_, [&](const auto& each) { return each->path() == path; }))
    publishers_.push_back(std::make_unique<Publisher>(entity, path));
}

void Publishers::write(const OriginOf& originOf) {
  for (const auto& publisher : publishers_) {
    if (publisher->changes().empty()) continue;
    write(publisher->changes(), originOf(publisher->path()));
    publisher->clear();
  }
}

// Bisects a refused batch down to the rows at fault.
void Publishers::write(const Changes& changes, Subscriber* origin) {
  try {
    store_.write(changes, Durability::volatile_, origin);
    rows_ += changes.size();
  } catch (const StoreError& error) {
    if (changes.size() == 1)
      return refusals_.add(changes.front().row, std::string("could not be published: ") + error.what());
    const auto [first, second] = halves(changes);
    write(first, origin);
    write(second, origin);
  }
}

}  // namespace Statedb
