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

// Arguments of a generic operation: a key if the attribute is a collection, then the value or the arguments.
using Arguments = std::span<const Value>;

// Returns a type's readable name. A function, because types may refer to each other.
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
  // Whether stores hold the attribute: a plain value, a set of names or a collection of owned objects, of an
  // entity. References and computed values are not stored.
  bool stored = false;
  // Of a collection that owns its members: their type; null if any type will do.
  const TypeNode& (*memberType)() = nullptr;
  // Of such a collection: whether a member's path omits the attribute's name (directories).
  bool direct = false;
  // Of such a collection: the member of that name; null if there is none.
  Entity* (*member)(const Notifier&, Name) = nullptr;

  // The operations; null if not allowed. They throw ValueError if the arguments do not fit, and pass on what
  // the object throws.
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
  // Throws ValueError if `set` of a stored attribute would not take `value`.
  void (*check)(const Value& value) = nullptr;
};

}  // namespace Zel
