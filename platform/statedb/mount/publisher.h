// Publishing: what agents write under a "wi" mount, turned into rows. Internal to the entity manager.
#pragma once

#include <map>
#include <memory>

#include "platform/statedb/store/row.h"
#include "platform/statedb/store/schema.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/notify/notifier.h"

namespace Statedb {

class Publisher;

// Watches one entity, and through its members all below it. Owned by the one above.
class PublishedEntity : public Zel::Reactor<PublishedEntity, Zel::RawNotifiee> {
 public:
  static constexpr const char* kTypeName = "Statedb::PublishedEntity";

  // Notes the values that the entity has now as known to the store.
  PublishedEntity(Publisher& publisher, Path path, const Zel::Ptr<const Zel::Entity>& entity);

  const Zel::Entity& entity() const { return *static_cast<const Zel::Entity*>(notifierBase()); }

  // The store has told what the entity holds now: it need not be told.
  void noteValues();
  // The store is taken to know what was put.
  void noteTold() { known_ = told_; }
  // The same for a member that the store made or removed.
  void adopt(const Zel::AttributeInfo& collection, Zel::Name key, const Zel::Ptr<const Zel::Entity>& member);
  void forget(const Zel::AttributeInfo& collection, Zel::Name key);

  PublishedEntity* child(Zel::AttributeIndex collection, Zel::Name key) const;
  // Says everything that the entity holds beyond what a new one does, and all below it.
  void publishAll();

  void onRawAttribute(Zel::AttributeIndex index, Zel::Name key) override;

 private:
  void put(Zel::Name attribute, Zel::Value value);
  Zel::AttributeIndex indexOf(const Zel::AttributeInfo& row) const;
  void watch(Zel::AttributeIndex collection, Zel::Name key, const Zel::Ptr<const Zel::Entity>& member);
  void unwatch(Zel::AttributeIndex collection, Zel::Name key);
  void memberChanged(Zel::AttributeIndex collection, Zel::Name key);
  void membersChanged(Zel::AttributeIndex collection);
  std::size_t valuesHash() const;

  Publisher& publisher_;
  const Path path_;
  std::size_t known_ = 0;  // a hash of the values that the store has
  std::size_t told_ = 0;   // the same, once what was put is stored
  // Of each collection. Null for what has no members, as most have none.
  std::unique_ptr<std::map<Zel::AttributeIndex, Zel::PtrMap<PublishedEntity>>> members_;
};

// What was written under one mount and is not stored yet.
class Publisher {
 public:
  Publisher(const Zel::Ptr<const Zel::Entity>& entity, Path path);

  Path path() const { return path_; }
  // What publishes an entity of this mount; null where none does.
  PublishedEntity* find(const Zel::Entity& entity) const;
  // `source` is what it is a change of.
  void add(PublishedEntity& source, Change change);
  const Changes& changes() const { return changes_; }
  // The changes were stored.
  void clear();

 private:
  const Path path_;
  Changes changes_;
  std::vector<Zel::Ptr<PublishedEntity>> sources_;
  Zel::Ptr<PublishedEntity> top_;
};

}  // namespace Statedb
