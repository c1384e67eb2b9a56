// Publishing: turns what agents write under a "wi" mount into rows. Internal to the entity manager.
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

// Watches one entity, and through its members all below it. Owned by the parent entity's.
class PublishedEntity : public Zel::Reactor<PublishedEntity, Zel::RawNotifiee> {
 public:
  static constexpr const char* kTypeName = "Statedb::PublishedEntity";

  // Assumes that the store has the entity's values.
  PublishedEntity(Publisher& publisher, Path path, const Zel::Ptr<const Zel::Entity>& entity);

  const Zel::Entity& entity() const { return *static_cast<const Zel::Entity*>(notifierBase()); }

  // The values came from the store and need not be published.
  void noteValues();
  // The store took the values that were put.
  void noteStored() { known_ = written_; }
  // The member came from the store, or the store removed it.
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
  std::size_t known_ = 0;    // a hash of the values that the store has
  std::size_t written_ = 0;  // the same once the store takes what was put
  // By collection. Null for the many entities without members.
  std::unique_ptr<std::map<Zel::AttributeIndex, Zel::PtrMap<PublishedEntity>>> members_;
};

// The changes under one mount that are not in the store yet.
class Publisher {
 public:
  Publisher(const Zel::Ptr<const Zel::Entity>& entity, Path path);

  Path path() const { return path_; }
  // Of an entity of this mount; null if it is not published.
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

// The publishers of this process, one for each "wi" mount.
class Publishers {
 public:
  Publishers(Store& store, Refusals& refusals) : store_(store), refusals_(refusals) {}

  // Publishes the entity, and all below it, from now on; once a path.
  void add(const Zel::Ptr<const Zel::Entity>& entity, Path path);
  // Calls `function` with each PublishedEntity of an entity. `path` is the entity's, or under it.
  template <class Function>
  void with(const Zel::Ptr<Zel::Entity>& entity, Path path, Function&& function) const {
    for (const auto& publisher : publishers_) {
      if (!path.isUnder(publisher->path())) continue;
      if (const auto found = publisher->find(*entity)) function(*found);
    }
  }
  // Calls `function` with the changes under each mount that are not in the store yet.
  template <class Function>
  void forEachBatch(Function&& function) const {
    for (const auto& publisher : publishers_) function(publisher->changes());
  }
  // Writes the changes to the store, one batch for each mount. `originOf` returns the subscriber of a mount's
  // path, which is not notified of the batch.
  using OriginOf = std::function<Subscriber*(Path)>;
  void write(const OriginOf& originOf);
  // Rows written so far.
  std::uint64_t rows() const { return rows_; }

 private:
  void write(const Changes& changes, Subscriber* origin);

  Store& store_;
  Refusals& refusals_;
  std::vector<std::unique_ptr<Publisher>> publishers_;
  std::uint64_t rows_ = 0;
};

}  // namespace Statedb
