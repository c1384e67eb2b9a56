// Live objects by path: the generic interface for clients.
//
//     objects.get("agent/configReactor/gpioLedStateMachine/Status/flashingState");
//
// A path starts at an agent (by name; "agent" is the first one) or at a mounted entity
// ("hardware/led/config/leds/Status"), and goes from object to object by attribute; a collection is followed
// by a member's key. A directory is followed by an entry's key directly. Names are escaped as in entity
// paths, with the same limits. No component is empty.
//
// Clients read and, if the host allows it, set, delete and invoke. Always refused, because the objects assert
// on it: an agent's start-up operations, null for an object argument, agents as directory entries.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/control/objectref.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/entity/generic.h"

namespace Host {

class Objects {
 public:
  struct Root {
    std::string name;
    Zel::Ptr<Zel::Notifier> object;
  };
  // The agents in the order of loading, and the root directory of the mounted entities. Called for each
  // request, so that nothing here keeps an object alive.
  using Roots = std::function<std::vector<Root>()>;
  using EntityRoot = std::function<Zel::Ptr<Zel::Dir>()>;
  enum class Access { readOnly, writable };

  // Without any objects.
  Objects()
      : Objects([] { return std::vector<Root>(); }, [] { return Zel::allocate<Zel::Dir>(Zel::Name()); },
                Access::readOnly) {}
  Objects(Roots roots, EntityRoot entityRoot, Access access)
      : roots_(std::move(roots)), entityRoot_(std::move(entityRoot)), access_(access) {}

  // All throw ValueError if the path leads nowhere (the message names the component and the candidates) or an
  // argument does not fit, OperationNotSupportedException if the target does not have the operation, and what
  // the object's own operation throws. set, del and call throw ValueError unless the access is writable.
  ObjectRef resolve(std::string_view path) const;

  // get, iterate and list return at most kListed keys or members of a collection; `omitted` counts the
  // others, by attribute.
  static constexpr std::size_t kListed = 4096;
  struct Answer {
    Zel::Value value{};
    Zel::Value::Fields omitted{};
  };
  // A reference for an object, the value of an attribute, an array of keys for a collection, a boolean for
  // a name in a set.
  Answer get(const std::string& path) const;
  // For a collection, `arguments` are those of its setter; otherwise the one value. Strings resolve to
  // objects as in `call`. Returns the added member, if any.
  Zel::Value set(const std::string& path, const Zel::Value::List& arguments) const;
  Zel::Value del(const std::string& path) const;
  // The keys of a collection or of a set of names.
  Answer iterate(const std::string& path) const;
  // Invokes the procedure at `path`. A string given for an object is a path, or the name of an object of that
  // type, which is searched from the start of `path` through pointers and collections.
  Zel::Value call(const std::string& path, const Zel::Value::List& arguments) const;
  // The valid next components, each {"name", "kind", "type", "operations"}.
  struct Listing {
    Zel::Value::List components{};
    Zel::Value::Fields omitted{};
  };
  Listing list(const std::string& path) const;
  // The objects at and under a path: {"path", "type", "members": […]}, with "seen" instead of the members if
  // the object was listed already. Lists at most kTreeMembers of one collection and kTreeObjects altogether;
  // an object's "omitted" counts the others, by attribute.
  Zel::Value tree(const std::string& path, std::size_t depth) const;
  static constexpr std::size_t kTreeMembers = 256;
  static constexpr std::size_t kTreeObjects = 4096;

  // Replaces references, also inside arrays and objects, by {"object": PATH, "type": TYPE}, with "wakesIn"
  // (seconds from now) if the object has a timer armed.
  static Zel::Value describe(const Zel::Value& value);

 private:
  void expectWritable() const;
  Zel::Value::List coerced(const std::string& path, const Zel::AttributeInfo& attribute,
                           const Zel::Value::List& arguments) const;
  Zel::Value coerce(const std::string& path, const Zel::Parameter& parameter, const Zel::Value& given) const;
  Zel::Ptr<const Zel::PtrInterface> named(const std::string& path, const Zel::TypeNode& type,
                                          const std::string& name) const;

  Roots roots_;
  EntityRoot entityRoot_;
  Access access_;
};

}  // namespace Host
