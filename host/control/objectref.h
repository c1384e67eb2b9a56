// Resolves object paths (host/control/object.h) component by component. Interns no text from a path.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zel/notify/notifier.h"
#include "platform/zel/object/type.h"
#include "platform/zel/object/value.h"

namespace Host {

// The target of a path: an object, one of its attributes, or a key of an attribute: a collection key without
// a member (to set under), or a name of a set of names, present or absent.
struct ObjectRef {
  Zel::Ptr<const Zel::PtrInterface> object;       // null: no such target
  bool isConst = false;                           // the object is read-only
  const Zel::AttributeInfo* attribute = nullptr;  // null: the object itself
  std::optional<std::string> key;
};

// Resolves one more component. Throws ValueError, with the candidates, if it names nothing.
ObjectRef step(const ObjectRef& at, const std::string& component);
// Dereferences a pointer; returns anything else as it is. Throws ValueError if the pointer is null.
ObjectRef follow(const ObjectRef& at);

// The valid next components, for a message: the kCandidates nearest to `wanted`, and how many more there are.
inline constexpr std::size_t kCandidates = 16;
std::string candidatesText(const ObjectRef& at, std::string_view wanted = {});
// Throws ValueError: the attribute has no member `at.key`. REQUIRES: at.key.
[[noreturn]] void throwNoMember(const ObjectRef& at);

// The object that a value references; null if it is not a reference.
ObjectRef objectOf(const Zel::Value& value);
ObjectRef memberOf(const ObjectRef& at, const Zel::AttributeInfo& attribute, Zel::Name key);
// The same for a key that need not be interned.
ObjectRef memberOf(const ObjectRef& at, const Zel::AttributeInfo& attribute, const std::string& key);
// The object as a notifier, to read its attributes. REQUIRES: its type has attributes.
const Zel::Notifier& notifierOf(const ObjectRef& at);
// Calls `function` for every published attribute of a type, its bases' first, except those of a base that the
// type redeclares.
template <class Function>
void forEachAttribute(const Zel::TypeNode& type, Function&& function) {
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& attribute = type.attribute(index);
        attribute.kind != Zel::Kind::reserved && type.find(attribute.label) == &attribute)
      function(attribute);
}

}  // namespace Host
