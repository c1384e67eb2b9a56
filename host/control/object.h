// Live objects by path: the generic interface as a person reaches it.
//
//     objects.get("agent/configReactor/gpioLedStateMachine/Status/flashingState");
//
// A path starts at an agent ("agent" is the first one, any agent goes by its name too) or at a mounted entity
// ("hardware/led/config/leds/Status"), and leads from object to object by attributes; behind a collection
// stands a member's key. Entries of a directory stand under it without the collection's name. Names are
// escaped as in entity paths, and the limits are the same. No component is empty.
//
// Clients read, and where the host allows it set, delete and invoke. Refused in either case, because the
// objects assert on it: start-up operations of an agent, null where an operation takes an object, and agents
// as entries of directories.
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
  // The agents in the order in which they were loaded, and the directory that the mounted entities stand in.
  // Asked for at every call, so that nothing here keeps an object alive.
  using Roots = std::function<std::vector<Root>()>;
  using EntityRoot = std::function<Zel::Ptr<Zel::Dir>()>;
  enum class Access { readOnly, writable };

  // None at all.
  Objects()
      : Objects([] { return std::vector<Root>(); }, [] { return Zel::allocate<Zel::Dir>(Zel::Name()); },
                Access::readOnly) {}
  Objects(Roots roots, EntityRoot entityRoot, Access access)
      : roots_(std::move(roots)), entityRoot_(std::move(entityRoot)), access_(access) {}

  // All throw ValueError where the path leads nowhere (the text says which component, and what there is
  // instead) or an argument does not fit, OperationNotSupportedException where what the path leads to does
  // not have the operation, and what the object's own operation throws. set, del and call throw ValueError
  // unless the access is writable.
  ObjectRef resolve(std::string_view path) const;

  // Of a collection kListed keys or members are listed at most, as in `list`; how many were left out is
  // counted in `omitted`, by attribute.
  static constexpr std::size_t kListed = 4096;
  struct Answer {
    Zel::Value value{};
    Zel::Value::Fields omitted{};
  };
  // An object's value is a reference; an attribute's what it holds; a collection's the list of its keys; one
  // name's of a set of names the truth value beside it.
  Answer get(const std::string& path) const;
  // For a collection, `arguments` are what makes a member; otherwise the one value. Texts stand for objects
  // as `call` says. Returns the member where one was made.
  Zel::Value set(const std::string& path, const Zel::Value::List& arguments) const;
  Zel::Value del(const std::string& path) const;
  // The keys of a collection or of a set of names.
  Answer iterate(const std::string& path) const;
  // `path` names a procedure. A text given for an object is a path, or the name of an object of that type
  // that is found from where the path started: behind pointers, and in collections under that name.
  Zel::Value call(const std::string& path, const Zel::Value::List& arguments) const;
  // The components that may follow, {"name", "kind", "type", "operations"} each.
  struct Listing {
    Zel::Value::List components{};
    Zel::Value::Fields omitted{};
  };
  Listing list(const std::string& path) const;
  // What lives at and under a path, each object once: {"path", "type", "members": […]}, and "seen" instead of
  // the members where the object stands further above. Of one collection kTreeMembers are listed at most, and
  // kTreeObjects altogether; what an object has beyond that is counted in its "omitted", by attribute.
  Zel::Value tree(const std::string& path, std::size_t depth) const;
  static constexpr std::size_t kTreeMembers = 256;
  static constexpr std::size_t kTreeObjects = 4096;

  // An object as a value that is no reference: {"object": PATH, "type": TYPE}, and "wakesIn" (seconds from
  // now) where it will do something by itself; lists and fields are gone through.
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
