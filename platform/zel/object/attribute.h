// The attribute descriptor, which the generic interface, the stores and the documentation read. Generated
// from a class's declarations (platform/zel/entity/declarations.h).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/zel/core/name.h"
#include "platform/zel/object/value.h"

namespace Zel {

class Entity;
class Notifier;
class TypeNode;

enum class Kind : std::uint8_t {
  value,       // one value
  pointer,     // a reference to one object
  names,       // a set of names
  collection,  // objects keyed by name
  procedure,   // something to invoke
  reserved,    // a position without a published entry
};
ZEL_API const char* kindText(Kind kind);

enum class Operation : std::uint8_t { get = 1, set = 2, del = 4, iterate = 8, invoke = 16 };
// Several operations together.
using Operations = std::uint8_t;
constexpr Operations operator|(Operation a, Operation b) {
  return static_cast<Operations>(static_cast<Operations>(a) | static_cast<Operations>(b));
}
constexpr Operations operator|(Operations a, Operation b) {
  return static_cast<Operations>(a | static_cast<Operations>(b));
}
constexpr Operations only(Operation a) { return static_cast<Operations>(a); }
constexpr bool allows(Operations all, Operation one) { return (all & static_cast<Operations>(one)) != 0; }
ZEL_API const char* operationText(Operation operation);

// Position in the table of an object's class, counted from the first attribute of its outermost base.
using AttributeIndex = unsigned;

// Arguments of a generic operation: a key where the attribute is a collection, then the value or the
// arguments.
using Arguments = std::span<const Value>;

// The name of a type as a person reads it. A function, for a type may refer to one that refers to it.
using TypeText = std::string (*)();

struct Parameter {
  const char* name;
  TypeText type;
};

struct AttributeInfo {
  const char* name = "";
  Name label;  // the same; empty for a position without a published entry
  Kind kind = Kind::reserved;
  Operations operations = 0;
  TypeText type = nullptr;            // of the value, of the object pointed to, of the members
  std::vector<Parameter> parameters;  // of a procedure, or of a set that takes more than one value
  // Whether the attribute is state that stores hold: a plain value, a set of names, or a collection of
  // objects that live in it. References and computed values are not, nor is anything of an object that is no
  // entity.
  bool stored = false;
  // For a collection of objects that live in it: their type; null where they may be of any type.
  const TypeNode& (*memberType)() = nullptr;
  // For such a collection: whether a member's path leaves the attribute's name out (directories).
  bool direct = false;
  // For such a collection: the member of a name; null where there is none.
  Entity* (*member)(const Notifier&, Name) = nullptr;

  // The operations; null where one is not allowed. They throw ValueError where the
  // arguments do not fit, and whatever the object throws.
  using Get = Value (*)(const Notifier&, Arguments);
  using Change = Value (*)(Notifier&, Arguments);
  Get get = nullptr;
  Change set = nullptr;
  Change del = nullptr;
  Change invoke = nullptr;
  // The keys of a collection or of a set of names.
  std::vector<Name> (*keys)(const Notifier&) = nullptr;
  // Resets a stored value to that of a new object.
  void (*reset)(Notifier&) = nullptr;
  // Whether `value` would do for `set` of a stored attribute: throws ValueError where not.
  void (*check)(const Value& value) = nullptr;
};

}  // namespace Zel
