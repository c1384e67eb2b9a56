// Named, typed objects with a parent: the contents of a state database.
#pragma once

#include <iosfwd>
#include <string>
#include <utility>

#include "platform/zel/core/export.h"
#include "platform/zel/entity/described.h"

namespace Zel {

// Owned by its collection, whose object is then its parent, or by the holders of pointers to it.
class ZEL_API Entity : public Described<Entity, Notifier> {
 public:
  static constexpr auto attributes() {
    return std::tuple{attribute::accessor<&Entity::name>("name"),
                      attribute::accessor<&Entity::parentEntity>("parent")};
  }
  static const TypeNode& typeNode();

  Name name() const { return name_; }

  // Null if there is none. A member of a collection counts no reference to its parent.
  Entity* parent() const { return parent_; }
  Ptr<const Entity> parentEntity() const { return Ptr<const Entity>(parent_); }
  // Attaches the entity to a parent, of which no collection holds it, and counts a reference to the parent;
  // null detaches it.
  void parentIs(const Ptr<Entity>& parent);

  // The escaped names from the outermost parent down, joined by '/'. A member of a collection other than a
  // directory's entries has the collection's name before its own.
  std::string path() const override;

 protected:
  explicit Entity(Name name) : name_(std::move(name)) {}
  ~Entity() override;

 private:
  template <class, class>
  friend class Described;

  // For the object whose collection holds the entity. It must detach the entity before its own end.
  void ownerIs(Entity* owner);

  void appendPath(std::string& path) const;
  // The component before a member's name in its path: the name of the collection that holds it. Empty for
  // entries of directories and for entities that are only attached.
  const char* collectionOf(const Entity& member) const;

  // This entity counts a reference to its parent.
  static constexpr std::uint32_t kParentHeld = kFirstFreeNotifierFlag;

  Entity* parent_ = nullptr;
  const Name name_;  // last: a derived class's first word goes into the tail padding after it
};

// Makes an entity by name, as a type's newEntityForDir.
template <class T>
Ptr<Entity> newEntity(const Name& name, Dir*) {
  return allocate<T>(name);
}

// A readable reference: `<TYPE PATH>`, or `<null>`.
ZEL_API std::ostream& operator<<(std::ostream& out, const Entity& entity);
ZEL_API std::ostream& operator<<(std::ostream& out, const Ptr<Entity>& entity);
ZEL_API std::ostream& operator<<(std::ostream& out, const Ptr<const Entity>& entity);

// Prints an entity pointer: `<TYPE PATH at ADDRESS>`, or `null`. The address tells apart two objects that had
// the same path.
ZEL_API String valueToStrepOfRawPtr(const Entity* entity);

// Whether a name needs no escaping in a path.
ZEL_API bool isComponent(std::string_view name);
// Escapes a name as one component of a path: '/', '%', control characters and a lone "." or ".." as %XX.
ZEL_API std::string escapeComponent(std::string_view name);
// The inverse. Throws ValueError if escapeComponent writes `component` for no name.
ZEL_API std::string unescapeComponent(std::string_view component);

}  // namespace Zel
