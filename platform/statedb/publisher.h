// Publishing: what agents write under a "wi" mount, turned into rows. Internal to the entity manager.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/statedb/row.h"
#include "platform/statedb/schema.h"
#include "platform/zel/entity.h"
#include "platform/zel/notifier.h"

namespace Statedb {

class Publisher;

// Watches one entity, and through its members all below it. Owned by the one above.
class PublishedEntity : public Zel::Reactor<PublishedEntity, Zel::RawNotifiee> {
 public:
  static constexpr const char* kTypeName = "Statedb::PublishedEntity";

  // Notes the values that the entity has now as known to the store.
  PublishedEntity(Publisher& publisher, const Zel::Ptr<const Zel::Entity>& entity);

  const Zel::Entity& entity() const { return *static_cast<const Zel::Entity*>(notifierBase()); }

  // The store has told what the entity holds now: it need not be told.
  void noteValues();
  // The same for a member that the store made or removed.
  void adopt(const PathReader::Step& step, const Zel::Ptr<const Zel::Entity>& member);
  void forget(const PathReader::Step& step);

  PublishedEntity* child(Zel::AttributeIndex collection, Zel::Name key) const;
  // Says everything that the entity holds beyond what a new one does, and all below it.
  void publishAll();

  void onRawAttribute(Zel::AttributeIndex index, Zel::Name key) override;

 private:
  using Key =
      std::pair<Zel::AttributeIndex, std::uint32_t>;  // a collection and the number of a member's name

  void watch(Zel::AttributeIndex collection, Zel::Name key, const Zel::Ptr<const Zel::Entity>& member);
  void memberChanged(Zel::AttributeIndex collection, Zel::Name key);
  void membersChanged(Zel::AttributeIndex collection);
  Zel::Ptr<const Zel::Entity> memberAt(Zel::AttributeIndex collection, Zel::Name key) const;
  std::size_t valuesHash() const;

  Publisher& publisher_;
  std::size_t known_ = 0;  // a hash of the values that the store has
  // Null for what has no members, as most have none.
  std::unique_ptr<std::map<Key, Zel::Ptr<PublishedEntity>>> members_;
};

// What was written under one mount since it was taken.
class Publisher {
 public:
  Publisher(const Zel::Ptr<const Zel::Entity>& entity, std::string path);

  const std::string& path() const { return path_; }
  // What publishes an entity of this mount; null where none does.
  PublishedEntity* find(const Zel::Entity& entity) const;
  // `source` is what it is a change of.
  void add(PublishedEntity& source, Change change);
  // From here on the store is taken to know what the changes say.
  Changes take();
  // Puts changes that could not be stored before those that came since.
  void giveBack(const Changes& changes) { changes_.insert(changes_.begin(), changes.begin(), changes.end()); }

 private:
  const std::string path_;
  Changes changes_;
  std::vector<Zel::Ptr<PublishedEntity>> sources_;
  Zel::Ptr<PublishedEntity> top_;
};

}  // namespace Statedb
