// Live objects by path: the generic interface as a person reaches it.
//
// A path starts at an agent ("agent" is the first one, any agent goes by its name too) or at a mounted entity
// ("hardware/led/config/leds/Status"), and leads from object to object by attributes; behind a collection
// stands a member's key: "agent/configReactor/gpioLedStateMachine/Status/flashingState". Entries of a
// directory stand under it without the collection's name. Names are escaped as in entity paths.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/zel/dir.h"
#include "platform/zel/generic.h"

namespace Host {

// What a path leads to: an object, or an attribute of one, or one member of a collection that is not there (a
// key to set under).
struct ObjectRef {
  Zel::Ptr<const Zel::Notifier> object;
  bool isConst = false;                           // the object may be read only
  const Zel::AttributeInfo* attribute = nullptr;  // null: the object itself
  std::optional<Zel::Name> key;                   // of a member of the collection `attribute`
};

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

  // None at all.
  Objects()
      : Objects([] { return std::vector<Root>(); }, [] { return Zel::allocate<Zel::Dir>(Zel::Name()); }) {}
  Objects(Roots roots, EntityRoot entityRoot)
      : roots_(std::move(roots)), entityRoot_(std::move(entityRoot)) {}

  // All throw ValueError where the path leads nowhere (the text says which component, and what there is
  // instead) or an argument does not fit, and what the object's own operation throws.
  ObjectRef resolve(const std::string& path) const;

  // An object's value is a reference; an attribute's what it holds; a collection's the list of its keys.
  Zel::Value get(const std::string& path) const;
  // For a collection, `arguments` are what makes a member; otherwise the one value. Texts stand for objects
  // as `call` says. Returns the member where one was made.
  Zel::Value set(const std::string& path, const Zel::Value::List& arguments) const;
  Zel::Value del(const std::string& path) const;
  // The keys of a collection or of a set of names.
  Zel::Value iterate(const std::string& path) const { return perform(path, Zel::Operation::iterate, {}); }
  // `path` names a procedure. A text given for an object is a path, or the name of an object of that type
  // which can be reached from where the path started.
  Zel::Value call(const std::string& path, const Zel::Value::List& arguments) const;
  // The components that may follow: {"name", "kind", "type", "operations"} each.
  Zel::Value list(const std::string& path) const;
  // What lives at and under a path, each object once: {"path", "type", "name", "members": […]}.
  Zel::Value tree(const std::string& path, std::size_t depth) const;

  // An object as a value that is no reference: {"object": PATH, "type": TYPE}; lists and fields are gone
  // through.
  static Zel::Value describe(const Zel::Value& value);

 private:
  Zel::Value perform(const std::string& path, Zel::Operation operation,
                     const Zel::Value::List& arguments) const;
  Zel::Value coerce(const std::string& path, const Zel::Parameter& parameter, const Zel::Value& given) const;
  Zel::Ptr<const Zel::PtrInterface> named(const std::string& path, const Zel::TypeNode& type,
                                          const std::string& name) const;

  Roots roots_;
  EntityRoot entityRoot_;
};

}  // namespace Host
