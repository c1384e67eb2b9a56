// Publishing: what agents write under a "wi" mount, turned into rows. Internal to the entity manager.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "platform/statedb/mount/refusals.h"
#include "platform/statedb/store/row.h"
#include "platform/statedb/store/schema.h"
#include "platform/statedb/store/store.h"
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

  // The values came from the store and need not be published.
  void noteValues();
  // What was put is stored.
  void noteStored() { known_ = written_; }
  // The same for a member that the store made or removed.
  void adopt(const Zel::AttributeInfo& collection, Zel::Name key, const Zel::Ptr<const Zel::Entity>& member);
  void forget(const Zel::AttributeInfo& collection, Zel::Name key);

  PublishedEntity* child(Zel::AttributeIndex collection, Zel::Name key) const;
  // Publishes all values of the entity, and of those below it.
  void publishAll();

  void onRawAttribute(Zel::AttributeIndex index, Zel::Name key) override;

 private:
  void put(Zel::Name attribute, Zel::Value value);
  Zel::AttributeIndex indexOf(const Zel::AttributeInfo& attribute) const;
  void watch(Zel::AttributeIndex collection, Zel::Name key, const Zel::Ptr<const Zel::Entity>& member);
  void unwatch(Zel::AttributeIndex collection, Zel::Name key);
  void memberChanged(Zel::AttributeIndex collection, Zel::Name key);
  void membersChanged(Zel::AttributeIndex collection);
  std::size_t valuesHash() const;

  Publisher& publisher_;
  const Path path_;
  std::size_t known_ = 0;  // a hash of the values that the store has
  std::size_t written_ = 0;    // the same, once what was put is stored
  // Of each collection. Null for what has no members, as most have none.
  std::unique_ptr<std::map<Zel::AttributeIndex, Zel::PtrMap<PublishedEntity>>> members_;
};

// What was written under one mount and is not stored yet.
class Publisher {
 public:
  Publisher(const Zel::Ptr<const Zel::Entity>& entity, Path path);

  Path path() const { return path_; }
  // What publishes an entity of this mount; null if nothing does.
  PublishedEntity* find(const Zel::Entity& entity) const;
  // Adds a change of `source`.
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

// What this process publishes: one publisher a "wi" mount.
class Publishers {
 public:
  Publishers(Store& store, Refusals& refusals) : store_(store), refusals_(refusals) {}

  // Publishes the entity, and all below it, from now on; once a path.
  void add(const Zel::Ptr<const Zel::Entity>& entity, Path path);
  // Calls `function` with what publishes an entity, if anything does. `path` is the entity's, or of something
  // under it.
  template <class Function>
  void with(const Zel::Ptr<Zel::Entity>& entity, Path path, Function&& function) const {
    for (const auto& publisher : publishers_) {
      if (!path.isUnder(publisher->path())) continue;
      if (const auto found = publisher->find(*entity)) function(*found);
    }
  }
  // Writes what has changed to the store, one batch a mount. `originOf` is the subscriber at a mount's path,
  // which is not notified of the batch.
  using OriginOf = std::function<Subscriber*(Path)>;
  void write(const OriginOf& originOf);
  // Written so far.
  std::uint64_t rows() const { return rows_; }

 private:
  void write(const Changes& changes, Subscriber* origin);

  Store& store_;
  Refusals& refusals_;
  std::vector<std::unique_ptr<Publisher>> publishers_;
  std::uint64_t rows_ = 0;
};

}  // namespace Statedb
