// The entities of the mounted paths, by path. Internal to the entity manager.
#pragma once

#include <functional>

#include "platform/statedb/store/path.h"
#include "platform/statedb/store/schema.h"
#include "platform/zel/core/lastseen.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/entity/entity.h"

namespace Statedb {

// The result of following a path through the entities.
struct Found {
  // The last step: from this entity, through this collection of it, to the member of this name.
  Zel::Ptr<Zel::Entity> parent;
  const Zel::AttributeInfo* collection = nullptr;
  Zel::Name key;
  Path path;                     // of the member
  Zel::Ptr<Zel::Entity> entity;  // the member; null if there is none
  bool whole = true;             // the path was read to its end
};

// Makes the member that is missing. Throws ValueError if the collection takes no entity of that type.
Zel::Ptr<Zel::Entity> newMember(const Found& found, Zel::Name type);
void removeMember(const Found& found);

class EntityTree {
 public:
  EntityTree() : root_(Zel::allocate<Zel::Dir>(Zel::Name())) {}

  // The directory at the root of all paths.
  const Zel::Ptr<Zel::Dir>& root() const { return root_; }
  // Makes the entity that is missing, or returns null.
  using Make = std::function<Zel::Ptr<Zel::Entity>(const Found& at)>;

  // Follows a path. Throws ValueError if it is not valid.
  Found find(Path path);
  // The same, making missing entities on the way; stops when `make` returns null. Throws what `make` throws.
  Found findOrMake(Path path, const Make& make);
  // Null if there is no entity, or the path is not valid.
  Zel::Ptr<Zel::Entity> entityAt(Path path);

 private:
  bool isThere(const Zel::Entity& entity) const;
  void follow(Path path, Found& found, const Make& make) const;

  const Zel::Ptr<Zel::Dir> root_;
  struct Collection {
    Zel::Ptr<Zel::Entity> parent{};
    const Zel::AttributeInfo* info = nullptr;
  };
  // By its members' parent path: the next path is mostly in the same collection.
  Zel::LastSeen<Path, Collection> lastCollection_;
};

}  // namespace Statedb
