// The entities of the mounted paths, by path. Internal to the entity manager.
#pragma once

#include <functional>

#include "platform/statedb/store/path.h"
#include "platform/statedb/store/schema.h"
#include "platform/zel/core/lastseen.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/entity/entity.h"

namespace Statedb {

// How far a path leads through the entities.
struct Found {
  // The last step that was read: from this entity, through this collection of it, to the member of this name.
  Zel::Ptr<Zel::Entity> parent;
  const Zel::AttributeInfo* collection = nullptr;
  Zel::Name key;
  Path path;                     // of the member
  Zel::Ptr<Zel::Entity> entity;  // the member; null where there is none
  bool whole = true;             // whether the path was read to its end
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
  // The same, making what is missing on the way; ends where `make` returns null. Throws what `make` throws.
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
  // By the path of its members without their last component: the next path is mostly in the same one.
  Zel::LastSeen<Path, Collection> lastCollection_;
};

}  // namespace Statedb
