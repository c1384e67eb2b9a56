#include "platform/statedb/store/schema.h"

#include <algorithm>

#include "platform/zel/core/assert.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/entity/pathwalker.h"

namespace Statedb {

namespace {

std::string storedAttributesOf(const Zel::TypeNode& type) {
  std::string names;
  for (const Zel::TypeNode* each = &type; each; each = each->base())
    for (const Zel::AttributeInfo& attribute : each->attributes())
      if (attribute.stored && attribute.check)
        names += (names.empty() ? "" : ", ") + std::string(attribute.name);
  return names.empty() ? "none" : names;
}

// Agents are mounters.
bool isAgents(const Zel::TypeNode& type) {
  static const Zel::Name mounters("Statedb::Mounter");
  const Zel::TypeNode* mounter = Zel::typeNode(mounters);
  return mounter && type.isA(*mounter);
}

const Zel::TypeNode& expectStorable(const Zel::TypeNode* type, std::string_view name) {
  if (!type) throw Zel::ValueError("type '" + Zel::excerpt(name) + "' is unknown");
  if (isAgents(*type))
    throw Zel::ValueError("type " + std::string(name) + " is an agent's, which only a host makes");
  return *type;
}

}  // namespace

const Zel::TypeNode& typeNamed(std::string_view name) {
  const auto known = Zel::Name::existing(name);
  return expectStorable(known ? Zel::typeNode(*known) : nullptr, name);
}

const Zel::AttributeInfo& storedAttribute(const Zel::TypeNode& type, std::string_view attribute) {
  const Zel::AttributeInfo* found = type.find(attribute);
  if (!found || !found->stored || !found->check)
    throw Zel::ValueError("'" + Zel::excerpt(attribute) + "' is no attribute that " +
                          type.name().stdString() + " stores; it stores " + storedAttributesOf(type));
  return *found;
}

const Zel::AttributeInfo& checkAttribute(const Zel::TypeNode& type, std::string_view attribute,
                                         const Zel::Value& value) {
  const Zel::AttributeInfo& found = storedAttribute(type, attribute);
  found.check(value);
  return found;
}

void checkRow(Zel::Name typeName, Zel::Name attribute, const Zel::Value& value) {
  const Zel::TypeNode& type = expectStorable(Zel::typeNode(typeName), typeName.view());
  if (!attribute.empty()) checkAttribute(type, attribute.view(), value);
}

Zel::Name TypesAfter::typeAt(std::string_view path) const {
  const auto put = puts_.find(path);
  const std::size_t step = put == puts_.end() ? 0 : put->second.step;
  if (lastDel(path) > step) return {};
  return put == puts_.end() ? below_(path) : put->second.type;
}

std::size_t TypesAfter::lastDel(std::string_view path) const {
  std::size_t last = 0;
  for (; !dels_.empty() && !path.empty(); path = Zel::PathWalker::above(path))
    if (const auto del = dels_.find(path); del != dels_.end()) last = std::max(last, del->second);
  return last;
}

Zel::Name placeType(std::string_view path, const TypesAfter& types) {
  if (path.empty()) throw Zel::ValueError("the path is empty");
  const Zel::TypeNode* above = &Zel::Dir::typeNode();
  for (Zel::PathWalker walker(path);;) {
    const auto step = walker.next(*above);
    const auto memberType = step.collection->memberType;
    if (walker.done()) return memberType ? memberType().name() : Zel::Name();
    const Zel::Name found = types.typeAt(step.path);
    if (found.empty() && memberType)
      throw Zel::ValueError("there is no entity at '" + std::string(step.path) + "'");
    above = found.empty() ? &Zel::Dir::typeNode() : &typeNamed(found.view());
  }
}

void checkPlace(std::string_view path, const Zel::TypeNode& type, const TypesAfter& types) {
  const Zel::Name wanted = placeType(path, types);
  if (!wanted.empty() && wanted != type.name())
    throw Zel::ValueError("found type " + type.name().stdString() + ", expected " + wanted.stdString() +
                          " at this place");
  if (wanted.empty() && !type.newEntityForDir())
    throw Zel::ValueError("type " + type.name().stdString() + " can't be put in a directory");
}

Path memberPath(Path above, const Zel::AttributeInfo& collection, Zel::Name member) {
  return (collection.direct ? above : above.child(collection.label)).childNamed(member);
}

std::string placeText(const Row& row) {
  return row.path.text() + (row.attribute.empty() ? "" : " " + row.attribute.stdString());
}

}  // namespace Statedb
