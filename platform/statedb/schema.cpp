#include "platform/statedb/schema.h"

#include <algorithm>
#include <sstream>

#include "platform/statedb/mount.h"
#include "platform/zel/assert.h"
#include "platform/zel/dir.h"
#include "platform/zel/entity.h"

namespace Statedb {

namespace {

std::string collectionsOf(const Zel::TypeNode& type) {
  std::string names;
  for (const Zel::TypeNode* each = &type; each; each = each->base())
    for (const Zel::AttributeInfo& row : each->attributes())
      if (row.memberType) names += (names.empty() ? "" : ", ") + std::string(row.name);
  return names;
}

std::string storedAttributesOf(const Zel::TypeNode& type) {
  std::string names;
  for (const Zel::TypeNode* each = &type; each; each = each->base())
    for (const Zel::AttributeInfo& row : each->attributes())
      if (row.stored && row.check) names += (names.empty() ? "" : ", ") + std::string(row.name);
  return names.empty() ? "none" : names;
}

// An object of a type holds its entries by name alone where one of its collections is direct.
bool isDirectory(const Zel::TypeNode& type) {
  for (const Zel::TypeNode* each = &type; each; each = each->base())
    for (const Zel::AttributeInfo& row : each->attributes())
      if (row.direct) return true;
  return false;
}

}  // namespace

std::string_view PathReader::component() {
  const std::size_t end = std::min(path_.find('/', at_), path_.size());
  const std::string_view text = path_.substr(at_, end - at_);
  if (text.empty() || end + 1 == path_.size())
    throw Zel::ValueError("'" + std::string(path_) +
                          "' has an empty component; a path is NAME/NAME without a slash at either end");
  at_ = end + 1;
  return text;
}

PathReader::Step PathReader::next(const Zel::TypeNode& type) {
  ZEL_REQUIRE(!done(), path_);
  Step step;
  if (!isDirectory(type)) {
    step.collection = component();
    const Zel::AttributeInfo* row = type.find(std::string_view(step.collection));
    if (!row || !row->memberType) {
      const std::string has = collectionsOf(type);
      throw Zel::ValueError("'" + step.collection + "' is no collection of " + type.name().stdString() +
                            (has.empty() ? ", which has none" : "; it has " + has));
    }
    if (done())
      throw Zel::ValueError("'" + step.collection + "' is a collection; a member's name must follow it");
    step.memberType = &row->memberType();
  }
  step.key = Zel::unescapeComponent(component());
  step.path = path_.substr(0, at_ - 1);
  return step;
}

namespace {

// The attribute of that name that stores hold. Throws ValueError where there is none.
const Zel::AttributeInfo& storedRow(const Zel::TypeNode& type, Zel::Name attribute) {
  const Zel::AttributeInfo* row = type.find(attribute);
  if (!row || !row->stored || !row->check)
    throw Zel::ValueError("'" + attribute.stdString() + "' is no attribute that " + type.name().stdString() +
                          " stores; it stores " + storedAttributesOf(type));
  return *row;
}

}  // namespace

void checkRow(Zel::Name typeName, Zel::Name attribute, const Zel::Value& value) {
  const Zel::TypeNode* type = Zel::typeNode(typeName);
  if (!type) throw Zel::ValueError("type '" + typeName.stdString() + "' is unknown");
  if (type->isA(Mounter::typeNode()))
    throw Zel::ValueError("type " + typeName.stdString() + " is an agent's, which only a host makes");
  if (attribute.empty()) return;
  storedRow(*type, attribute).check(value);
}

Zel::Name TypesAfter::typeAt(Path path) const {
  if (const auto found = types_.find(path); found != types_.end()) return found->second;
  for (const Path gone : gone_)
    if (path.isUnder(gone)) return {};
  return below_(path);
}

void TypesAfter::del(Path path) {
  for (auto& [known, type] : types_)
    if (known.isUnder(path)) type = {};
  gone_.push_back(path);
}

Zel::Name placeType(Path path, const TypesAfter& types) {
  const Zel::TypeNode* above = &Zel::Dir::typeNode();
  if (path.empty()) throw Zel::ValueError("the path is empty");
  const std::string text = path.text();
  for (PathReader reader(text);;) {
    const auto step = reader.next(*above);
    if (reader.done()) return step.memberType ? step.memberType->name() : Zel::Name();
    const Zel::Name found = types.typeAt(Path(step.path));
    if (found.empty() && step.memberType)
      throw Zel::ValueError("there is no entity at '" + std::string(step.path) + "'");
    above = found.empty() ? &Zel::Dir::typeNode() : Zel::typeNode(found);
    if (!above)
      throw Zel::ValueError("the type " + found.stdString() + " of '" + std::string(step.path) +
                            "' is unknown");
  }
}

namespace {

// Checks that the type of a put may stand at the end of its path. What stands there already stands rightly.
void checkPlace(const Row& row, const TypesAfter& types) {
  if (types.typeAt(row.path) == row.type) return;
  const Zel::Name wanted = placeType(row.path, types);
  if (!wanted.empty() && wanted != row.type)
    throw Zel::ValueError("found type " + row.type.stdString() + ", wanted " + wanted.stdString() +
                          " at this place");
  const Zel::TypeNode* type = Zel::typeNode(row.type);
  if (wanted.empty() && type && !type->newEntityForDir())
    throw Zel::ValueError("type " + row.type.stdString() + " is not made in directories");
}

void checkUnset(const Row& row, const TypesAfter& types) {
  const Zel::Name name = types.typeAt(row.path);
  if (name.empty()) throw Zel::ValueError("there is no entity at this path");
  const Zel::TypeNode* type = Zel::typeNode(name);
  if (!type) throw Zel::ValueError("type '" + name.stdString() + "' is unknown");
  storedRow(*type, row.attribute);
}

void checkChange(const Change& change, TypesAfter& types) {
  const Row& row = change.row;
  if (change.kind == Change::Kind::del) {
    if (types.typeAt(row.path).empty()) throw Zel::ValueError("there is no entity at this path");
    return types.del(row.path);
  }
  if (change.kind == Change::Kind::unset) return checkUnset(row, types);
  checkRow(row.type, row.attribute, row.value);
  checkPlace(row, types);
  types.put(row.path, row.type);
}

}  // namespace

std::vector<std::string> checkChanges(const Changes& changes, const TypeAt& typeAt) {
  std::vector<std::string> errors;
  std::vector<Path> notMade;  // what goes wrong at and under an entity that can't be made says nothing new
  TypesAfter types(typeAt);
  for (const Change& change : changes) {
    const Row& row = change.row;
    if (std::ranges::any_of(notMade, [&](Path path) { return row.path.isUnder(path); })) continue;
    try {
      checkChange(change, types);
    } catch (const Zel::ValueError& error) {
      if (row.attribute.empty() && change.kind == Change::Kind::put) notMade.push_back(row.path);
      errors.push_back(placeText(row) + ": " + error.what());
    }
  }
  return errors;
}

Path memberPath(Path above, const Zel::AttributeInfo& collection, Zel::Name member) {
  return (collection.direct ? above : above.child(collection.label)).childNamed(member);
}

std::string placeText(const Row& row) {
  return row.path.text() + (row.attribute.empty() ? "" : " " + row.attribute.stdString());
}

}  // namespace Statedb
