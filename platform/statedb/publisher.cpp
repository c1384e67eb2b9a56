#include "platform/statedb/publisher.h"

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

// The index of the collection that a step leads through.
Zel::AttributeIndex collectionOf(const Zel::TypeNode& type, const PathReader::Step& step) {
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& row = type.attribute(index); row.direct || row.name == step.collection) return index;
  return type.endIndex();
}

bool isPlain(const Zel::AttributeInfo& row) { return row.stored && row.kind != Zel::Kind::collection; }

}  // namespace

PublishedEntity::PublishedEntity(Publisher& publisher, const Zel::Ptr<const Zel::Entity>& entity)
    : publisher_(publisher) {
  notifierIs(entity);
  noteValues();
  const Zel::TypeNode& type = entity->fwkType();
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& row = type.attribute(index); row.stored && row.kind == Zel::Kind::collection)
      for (const Zel::Name key : row.keys(*entity)) watch(index, key, memberAt(index, key));
}

void PublishedEntity::noteValues() { known_ = valuesHash(); }

std::size_t PublishedEntity::valuesHash() const {
  const Zel::TypeNode& type = entity().fwkType();
  std::size_t seed = 0;
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& row = type.attribute(index); isPlain(row))
      seed = mix(seed, row.get(entity(), {}).visit(Hasher()));
  return seed;
}

Zel::Ptr<const Zel::Entity> PublishedEntity::memberAt(Zel::AttributeIndex collection, Zel::Name key) const {
  const Zel::Value name = key.view();
  const Zel::Value found = entity().fwkType().attribute(collection).get(entity(), {&name, 1});
  return Zel::ValueTraits<Zel::Ptr<const Zel::Entity>>::fromValue(found);
}

PublishedEntity* PublishedEntity::child(Zel::AttributeIndex collection, Zel::Name key) const {
  if (!members_) return nullptr;
  const auto found = members_->find({collection, key.id()});
  return found == members_->end() ? nullptr : found->second.get();
}

void PublishedEntity::watch(Zel::AttributeIndex collection, Zel::Name key,
                            const Zel::Ptr<const Zel::Entity>& member) {
  if (!members_) members_ = std::make_unique<std::map<Key, Zel::Ptr<PublishedEntity>>>();
  (*members_)[{collection, key.id()}] = Zel::allocate<PublishedEntity>(publisher_, member);
}

void PublishedEntity::adopt(const PathReader::Step& step, const Zel::Ptr<const Zel::Entity>& member) {
  watch(collectionOf(entity().fwkType(), step), step.key, member);
}

void PublishedEntity::forget(const PathReader::Step& step) {
  if (members_) members_->erase({collectionOf(entity().fwkType(), step), Zel::Name(step.key).id()});
}

void PublishedEntity::publishAll() {
  const std::string path = entity().path();
  const Zel::TypeNode& type = entity().fwkType();
  publisher_.add(*this, Change::put(path, type.name().stdString(), "", {}));
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& row = type.attribute(index); isPlain(row))
      publisher_.add(*this, Change::put(path, type.name().stdString(), row.name, row.get(entity(), {})));
  if (!members_) return;
  for (const auto& [key, member] : *members_) member->publishAll();
}

void PublishedEntity::onRawAttribute(Zel::AttributeIndex index, Zel::Name key) {
  const Zel::AttributeInfo& row = entity().fwkType().attribute(index);
  if (row.kind == Zel::Kind::collection && row.stored)
    return key.empty() ? membersChanged(index) : memberChanged(index, key);
  if (!isPlain(row) || valuesHash() == known_) return;
  publisher_.add(*this, Change::put(entity().path(), entity().fwkType().name().stdString(), row.name,
                                    row.get(entity(), {})));
}

void PublishedEntity::memberChanged(Zel::AttributeIndex collection, Zel::Name key) {
  const auto member = memberAt(collection, key);
  PublishedEntity* watched = child(collection, key);
  if (watched && member == &watched->entity()) return;
  if (watched) {
    const auto& row = entity().fwkType().attribute(collection);
    publisher_.add(*this,
                   Change::del(entity().path() + '/' + (row.direct ? "" : row.name + std::string("/")) +
                               Zel::escapeComponent(key.view())));
    members_->erase({collection, key.id()});
  }
  if (!member) return;
  watch(collection, key, member);
  child(collection, key)->publishAll();
}

void PublishedEntity::membersChanged(Zel::AttributeIndex collection) {
  std::set<Zel::Name> keys;
  if (members_)
    for (const auto& [key, member] : *members_)
      if (key.first == collection) keys.insert(member->entity().name());
  for (const Zel::Name key : entity().fwkType().attribute(collection).keys(entity())) keys.insert(key);
  for (const Zel::Name key : keys) memberChanged(collection, key);
}

Publisher::Publisher(const Zel::Ptr<const Zel::Entity>& entity, std::string path)
    : path_(std::move(path)), top_(Zel::allocate<PublishedEntity>(*this, entity)) {}

void Publisher::add(PublishedEntity& source, Change change) {
  changes_.push_back(std::move(change));
  if (sources_.empty() || sources_.back() != &source) sources_.emplace_back(&source);
}

Changes Publisher::take() {
  for (const auto& source : std::exchange(sources_, {})) source->noteValues();
  return std::exchange(changes_, {});
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

}  // namespace Statedb
