// Named, typed objects with a parent: what a state database holds.
#pragma once

#include <iosfwd>
#include <string>

#include "platform/zel/core/export.h"
#include "platform/zel/entity/described.h"

namespace Zel {

// Owned by the collection that it lives in (its parent is then the collection's object), or by whoever holds
// a pointer to it.
class ZEL_API Entity : public Described<Entity, Notifier> {
 public:
  static constexpr auto attributes() {
    return std::tuple{attribute::accessor<&Entity::name>("name"),
                      attribute::accessor<&Entity::parentEntity>("parent")};
  }
  static const TypeNode& typeNode();

  Name name() const { return name_; }

  // The entity above; null where there is none. An entity that lives in a collection does not count a
  // reference to its parent.
  Entity* parent() const { return parent_; }
  Ptr<const Entity> parentEntity() const { return Ptr<const Entity>(parent_); }
  // Attaches the entity under a parent without making it a member of any collection, and holds a reference to
  // the parent as long; null detaches it.
  void parentIs(const Ptr<Entity>& parent);

  // Where it stands: the escaped names from the outermost parent down, joined by '/'. A member of a
  // collection other than a directory's entries has the collection's name before its own.
  std::string path() const override;

 protected:
  explicit Entity(Name name) : name_(name) {}
  ~Entity() override;

 private:
  template <class, class>
  friend class Described;

  // For the object whose collection the entity lives in. The object detaches it before it goes away itself.
  void ownerIs(Entity* owner);

  void appendPath(std::string& path) const;
  // The component before a member's name in its path: the name of the collection of this entity that holds
  // it. Empty for entries of directories and for what is only attached.
  const char* collectionOf(const Entity& member) const;

  // An entity that holds a reference to its parent.
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

// The framework's text for an entity pointer: `<TYPE PATH at ADDRESS>`, or `null`. Two objects that stand
// under the same path have different texts.
ZEL_API String valueToStrepOfRawPtr(const Entity* entity);

// Whether a name is written in a path as it is.
ZEL_API bool isComponent(std::string_view name);
// Encodes a name as one component of a path: '/', '%', control characters and a lone "." or ".." are written
// as %XX.
ZEL_API std::string escapeComponent(std::string_view name);
// The inverse. Throws ValueError where `component` is not what escapeComponent writes for some name.
ZEL_API std::string unescapeComponent(std::string_view component);

}  // namespace Zel
