// What may stand in a state database: paths and rows, checked against the types that are registered.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/statedb/store/row.h"
#include "platform/zel/core/export.h"
#include "platform/zel/object/type.h"

namespace Statedb {

// Reads a path from entity to entity: through a directory by an entry's name, through any other entity by the
// name of one of its collections and then a member's key.
class ZEL_API PathReader {
 public:
  explicit PathReader(std::string_view path) : path_(path) {}

  bool done() const { return at_ >= path_.size(); }

  struct Step {
    std::string collection;  // the attribute that holds the next entity; empty under a directory
    std::string key;         // the next entity's name, no longer escaped
    const Zel::TypeNode* memberType = nullptr;  // the type that it must have; null where it may be of any
    std::string_view path;                      // the path read so far, the next entity included
  };
  // The step from an entity of type `type`. Throws ValueError where the path does not go on from there: an
  // empty or wrongly escaped component, a collection that the type does not have, or a collection without a
  // key. REQUIRES: !done().
  Step next(const Zel::TypeNode& type);

 private:
  std::string_view component();

  std::string_view path_;
  std::size_t at_ = 0;
};

// The type of that name. Throws ValueError where it is unknown, or an agent's.
ZEL_API const Zel::TypeNode& typeNamed(std::string_view name);
// The attribute of that name; the second, where an entity of the type can hold it with that value. Throw
// ValueError where it is unknown or not stored, or the value is of the wrong kind. The text names the
// attribute and the reason, and what would be right; the path is the caller's to add.
ZEL_API const Zel::AttributeInfo& storedAttribute(const Zel::TypeNode& type, std::string_view attribute);
ZEL_API const Zel::AttributeInfo& checkAttribute(const Zel::TypeNode& type, std::string_view attribute,
                                                 const Zel::Value& value);
// Both for a row. The empty attribute is fine for every type.
ZEL_API void checkRow(Zel::Name type, Zel::Name attribute, const Zel::Value& value);

// The path above, as a text; empty above a single component.
ZEL_API std::string_view textAbove(std::string_view path);

// The type of the entity at a path; empty where there is none. A path is a text here, for what is refused
// must not be interned.
using TypeAt = std::function<Zel::Name(std::string_view path)>;

// What would stand where once some steps were stored over what `below` tells. The texts of its paths must
// outlive it.
class ZEL_API TypesAfter {
 public:
  // `below` must outlive the object.
  explicit TypesAfter(const TypeAt& below) : below_(below) {}

  Zel::Name typeAt(std::string_view path) const;
  void put(std::string_view path, Zel::Name type) { puts_[path] = {type, ++steps_}; }
  void del(std::string_view path) { dels_[path] = ++steps_; }

 private:
  struct Put {
    Zel::Name type;
    std::size_t step = 0;
  };
  // The last step that removed the entity at a path or one above it; 0: none did.
  std::size_t lastDel(std::string_view path) const;

  const TypeAt& below_;
  std::unordered_map<std::string_view, Put> puts_;
  std::unordered_map<std::string_view, std::size_t> dels_;
  std::size_t steps_ = 0;
};

// The type that the place at `path` takes; empty where it takes any. Throws ValueError where the path leads
// nowhere. Components of a path that nothing is known of count as directories.
ZEL_API Zel::Name placeType(std::string_view path, const TypesAfter& types);
// Throws ValueError where no entity of that type may be made at `path`.
ZEL_API void checkPlace(std::string_view path, const Zel::TypeNode& type, const TypesAfter& types);

// Where a member of a collection stands that belongs to the entity at `above`.
ZEL_API Path memberPath(Path above, const Zel::AttributeInfo& collection, Zel::Name member);

// "PATH" or "PATH ATTRIBUTE", for messages about a row.
ZEL_API std::string placeText(const Row& row);

}  // namespace Statedb
