// Checks paths and rows against the registered types.
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

// The type of that name. Throws ValueError if it is unknown or an agent's.
ZEL_API const Zel::TypeNode& typeNamed(std::string_view name);
// The attribute of that name; the second also checks that it takes the value. Throw ValueError if the
// attribute is unknown or not stored, or the value is of the wrong kind. The message names attribute, reason
// and what would be right; callers add the path.
ZEL_API const Zel::AttributeInfo& storedAttribute(const Zel::TypeNode& type, std::string_view attribute);
ZEL_API const Zel::AttributeInfo& checkAttribute(const Zel::TypeNode& type, std::string_view attribute,
                                                 const Zel::Value& value);
// Checks a row's type and attribute. Every type has the empty attribute.
ZEL_API void checkRow(Zel::Name type, Zel::Name attribute, const Zel::Value& value);

// The type of the entity at a path; empty if there is none. Takes a string, because a refused path must not
// be interned.
using TypeAt = std::function<Zel::Name(std::string_view path)>;

// The types of the entities as a batch would leave them: those of `below`, changed by put() and del(). The
// paths' strings must outlive it.
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
  // The last step that removed the entity at a path or above it; 0 if none did.
  std::size_t lastDel(std::string_view path) const;

  const TypeAt& below_;
  std::unordered_map<std::string_view, Put> puts_;
  std::unordered_map<std::string_view, std::size_t> dels_;
  std::size_t steps_ = 0;
};

// The type that an entity at `path` must have; empty if any will do. Throws ValueError if the path leads
// nowhere. Components without an entity count as directories.
ZEL_API Zel::Name placeType(std::string_view path, const TypesAfter& types);
// Throws ValueError if no entity of that type may be made at `path`.
ZEL_API void checkPlace(std::string_view path, const Zel::TypeNode& type, const TypesAfter& types);

// The path of a member of a collection of the entity at `above`.
ZEL_API Path memberPath(Path above, const Zel::AttributeInfo& collection, Zel::Name member);

// "PATH" or "PATH ATTRIBUTE", for messages about a row.
ZEL_API std::string placeText(const Row& row);

}  // namespace Statedb
