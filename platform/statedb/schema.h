// What may stand in a state database: paths and rows, checked against the types that are registered.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/statedb/row.h"
#include "platform/zel/export.h"
#include "platform/zel/type.h"

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

// Throws ValueError where an entity of that type can't hold the attribute with that value: the type is
// unknown or an agent's, the attribute is unknown or not stored, or the value is of the wrong kind. The text names the
// attribute and the reason, and what would be right; the path is the caller's to add. The empty attribute is
// fine for every known type.
ZEL_API void checkRow(Zel::Name type, Zel::Name attribute, const Zel::Value& value);

// The type of the entity at a path; empty where there is none.
using TypeAt = std::function<Zel::Name(Path path)>;

// What would stand where once some steps were stored over what `below` tells.
class ZEL_API TypesAfter {
 public:
  // `below` must outlive the object.
  explicit TypesAfter(const TypeAt& below) : below_(below) {}

  Zel::Name typeAt(Path path) const;
  void put(Path path, Zel::Name type) { types_[path] = type; }
  void del(Path path);

 private:
  const TypeAt& below_;
  std::unordered_map<Path, Zel::Name> types_;
  std::vector<Path> gone_;
};

// The type that the place at `path` takes; empty where it takes any. Throws ValueError where the path leads
// nowhere.
ZEL_API Zel::Name placeType(Path path, const TypesAfter& types);

// Checks a batch as it would be stored over what `typeAt` tells: every put must name an entity whose place
// takes its type, and hold a value that fits; every del and unset must meet an entity. Components of a path
// that nothing is known of count as directories. Returns one text for each step that does not fit, "PATH:
// reason" or "PATH ATTRIBUTE: reason", in the order of the batch; empty where all is well.
ZEL_API std::vector<std::string> checkChanges(const Changes& changes, const TypeAt& typeAt);

// Where a member of a collection stands that belongs to the entity at `above`.
ZEL_API Path memberPath(Path above, const Zel::AttributeInfo& collection, Zel::Name member);

// "PATH" or "PATH ATTRIBUTE", for messages about a row.
ZEL_API std::string placeText(const Row& row);

}  // namespace Statedb
