#include "platform/statedb/schema.h"

#include <algorithm>
#include <sstream>

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

const Zel::TypeNode* knownType(const std::string& name) {
  const auto known = Zel::Name::existing(name);
  return known ? Zel::typeNode(*known) : nullptr;
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
    const Zel::AttributeInfo* row = type.find(step.collection);
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
  step.path = std::string(path_.substr(0, at_ - 1));
  return step;
}

void checkRow(const std::string& typeName, const std::string& attribute, const Zel::Value& value) {
  const Zel::TypeNode* type = knownType(typeName);
  if (!type) throw Zel::ValueError("type '" + typeName + "' is unknown");
  if (attribute.empty()) return;
  const Zel::AttributeInfo* row = type->find(attribute);
  if (!row || !row->stored || !row->check)
    throw Zel::ValueError("'" + attribute + "' is no attribute that " + typeName + " stores; it stores " +
                          storedAttributesOf(*type));
  row->check(value);
}

std::string TypesAfter::typeAt(const std::string& path) const {
  if (const auto found = types_.find(path); found != types_.end()) return found->second;
  for (const std::string& gone : gone_)
    if (isUnder(path, gone)) return {};
  return below_(path);
}

void TypesAfter::del(const std::string& path) {
  for (auto& [known, type] : types_)
    if (isUnder(known, path)) type.clear();
  gone_.push_back(path);
}

std::string placeType(const std::string& path, const TypesAfter& types) {
  const Zel::TypeNode* above = &Zel::Dir::typeNode();
  if (path.empty()) throw Zel::ValueError("the path is empty");
  for (PathReader reader(path);;) {
    const auto step = reader.next(*above);
    if (step.key.size() > 255) throw Zel::ValueError("the name '" + step.key + "' is longer than 255 bytes");
    if (reader.done()) return step.memberType ? step.memberType->name().stdString() : std::string();
    const std::string found = types.typeAt(step.path);
    if (found.empty() && step.memberType) throw Zel::ValueError("there is no entity at '" + step.path + "'");
    above = found.empty() ? &Zel::Dir::typeNode() : knownType(found);
    if (!above) throw Zel::ValueError("the type " + found + " of '" + step.path + "' is unknown");
  }
}

namespace {

// Checks that the type of a put may stand at the end of its path.
void checkPlace(const Row& row, const TypesAfter& types) {
  const std::string wanted = placeType(row.path, types);
  if (!wanted.empty() && wanted != row.type)
    throw Zel::ValueError("found type " + row.type + ", wanted " + wanted + " at this place");
  const Zel::TypeNode* type = knownType(row.type);
  if (wanted.empty() && type && !type->newEntityForDir())
    throw Zel::ValueError("type " + row.type + " is not made in directories");
}

void checkChange(const Change& change, TypesAfter& types) {
  const Row& row = change.row;
  if (change.kind == Change::Kind::del) {
    if (types.typeAt(row.path).empty()) throw Zel::ValueError("there is no entity at this path");
    return types.del(row.path);
  }
  checkRow(row.type, row.attribute, row.value);
  checkPlace(row, types);
  types.put(row.path, row.type);
}

}  // namespace

std::vector<std::string> checkChanges(const Changes& changes, const TypeAt& typeAt) {
  std::vector<std::string> errors;
  std::vector<std::string>
      notMade;  // what goes wrong at and under an entity that can't be made says nothing new
  TypesAfter types(typeAt);
  for (const Change& change : changes) {
    if (std::ranges::any_of(notMade, [&](const std::string& path) { return isUnder(change.row.path, path); }))
      continue;
    try {
      checkChange(change, types);
    } catch (const Zel::ValueError& error) {
      const std::string& attribute = change.row.attribute;
      if (attribute.empty() && change.kind == Change::Kind::put) notMade.push_back(change.row.path);
      errors.push_back(change.row.path + (attribute.empty() ? "" : " " + attribute) + ": " + error.what());
    }
  }
  return errors;
}

}  // namespace Statedb
