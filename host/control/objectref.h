// Steps from object to object along a path of live objects; host/control/object.h describes these paths.
// Nothing here interns a name that comes from a path.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zel/notify/notifier.h"
#include "platform/zel/object/type.h"
#include "platform/zel/object/value.h"

namespace Host {

// What a path leads to: an object, an attribute of one, or a place within an attribute: a member of a
// collection that is not there (a key to set under), or one name of a set of names (there or not).
struct ObjectRef {
  Zel::Ptr<const Zel::PtrInterface> object;       // null: the path leads nowhere
  bool isConst = false;                           // the object may be read only
  const Zel::AttributeInfo* attribute = nullptr;  // null: the object itself
  std::optional<std::string> key;
};

// One component further. Throws ValueError where it leads nowhere; the text has the candidates.
ObjectRef step(const ObjectRef& at, const std::string& component);
// The object behind a pointer; everything else as it is. Throws ValueError where the pointer is null.
ObjectRef follow(const ObjectRef& at);

// What may follow in a path, for a message: the nearest to `wanted`, kCandidates at most, and how many more.
inline constexpr std::size_t kCandidates = 16;
std::string candidatesText(const ObjectRef& at, std::string_view wanted = {});
// Throws ValueError: the collection has no member of the key. REQUIRES: at.key.
[[noreturn]] void throwNoMember(const ObjectRef& at);

// The object that a value refers to; null where it is no reference.
ObjectRef objectOf(const Zel::Value& value);
ObjectRef memberOf(const ObjectRef& at, const Zel::AttributeInfo& attribute, Zel::Name key);
// The same for a text, which need not be a name.
ObjectRef memberOf(const ObjectRef& at, const Zel::AttributeInfo& attribute, const std::string& key);
// What the object's published attributes are read from. REQUIRES: its type has attributes.
const Zel::Notifier& notifierOf(const ObjectRef& at);
// Calls `function` for every published attribute of a type, its bases' first, less those of a base that the
// type replaces.
template <class Function>
void forEachAttribute(const Zel::TypeNode& type, Function&& function) {
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& attribute = type.attribute(index);
        attribute.kind != Zel::Kind::reserved && type.find(attribute.label) == &attribute)
      function(attribute);
}

}  // namespace Host
