#include "host/control/objectref.h"

#include <algorithm>
#include <span>

#include "platform/zel/core/assert.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/entity/pathwalker.h"

namespace Host {

using Zel::AttributeInfo;
using Zel::Kind;
using Zel::Value;
using Zel::ValueError;

const Zel::Notifier& notifierOf(const ObjectRef& at) {
  const Zel::TypeNode& type = at.object->fwkType();
  ZEL_REQUIRE(type.endIndex() > 0, type.name());
  return static_cast<const Zel::Notifier&>(*at.object);
}

ObjectRef objectOf(const Value& value) {
  const auto* object = value.as<Value::Object>();
  return object ? ObjectRef{object->pointer, object->isConst, nullptr, {}} : ObjectRef{};
}

ObjectRef memberOf(const ObjectRef& at, const AttributeInfo& attribute, Zel::Name key) {
  const Value name = key.view();
  ObjectRef member = objectOf(attribute.get(notifierOf(at), {&name, 1}));
  member.isConst |= at.isConst;
  return member;
}

ObjectRef memberOf(const ObjectRef& at, const AttributeInfo& attribute, const std::string& key) {
  const auto name = Zel::Name::existing(key);
  return name ? memberOf(at, attribute, *name) : ObjectRef{};
}

namespace {

[[noreturn]] void throwUnknown(const ObjectRef& at, const std::string& component) {
  throw ValueError("there is no '" + component + "'; known: " + candidatesText(at, component));
}

ObjectRef stepIntoAttribute(const ObjectRef& at, const std::string& component) {
  if (!at.attribute->keys) throwUnknown(at, component);
  std::string key = Zel::unescapeComponent(component);
  if (at.attribute->kind == Kind::collection)
    if (ObjectRef member = memberOf(at, *at.attribute, key); member.object) return member;
  return {at.object, at.isConst, at.attribute, std::move(key)};
}

}  // namespace

ObjectRef step(const ObjectRef& at, const std::string& component) {
  if (at.key) throwNoMember(at);
  if (at.attribute) return stepIntoAttribute(at, component);
  const Zel::TypeNode& type = at.object->fwkType();
  if (const AttributeInfo* direct = Zel::directCollection(type))
    if (ObjectRef entry = memberOf(at, *direct, Zel::unescapeComponent(component)); entry.object)
      return entry;
  if (const AttributeInfo* attribute = type.find(std::string_view(component)))
    return {at.object, at.isConst, attribute, {}};
  throwUnknown(at, component);
}

ObjectRef follow(const ObjectRef& at) {
  if (!at.attribute || at.attribute->kind != Kind::pointer) return at;
  ObjectRef object = objectOf(at.attribute->get(notifierOf(at), {}));
  if (!object.object) throw ValueError("'" + std::string(at.attribute->name) + "' is null");
  object.isConst |= at.isConst;
  return object;
}

namespace {

void addKeys(std::vector<std::string_view>& names, const ObjectRef& at, const AttributeInfo& attribute) {
  for (const Zel::Name& key : attribute.keys(notifierOf(at))) names.push_back(key.view());
}

std::vector<std::string_view> candidates(const ObjectRef& at) {
  std::vector<std::string_view> names;
  if (at.attribute) {
    if (at.attribute->keys) addKeys(names, at, *at.attribute);
    return names;
  }
  const Zel::TypeNode& type = at.object->fwkType();
  if (const AttributeInfo* direct = Zel::directCollection(type)) addKeys(names, at, *direct);
  forEachAttribute(type, [&](const AttributeInfo& attribute) { names.emplace_back(attribute.name); });
  return names;
}

std::size_t commonPrefix(std::string_view a, std::string_view b) {
  return static_cast<std::size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
}

// Sorts the kCandidates names with the longest prefix in common with `wanted` to the front. REQUIRES: there
// are more.
void nearestFirst(std::vector<std::string_view>& names, std::string_view wanted) {
  std::ranges::partial_sort(names, names.begin() + kCandidates, [&](std::string_view a, std::string_view b) {
    const auto inA = commonPrefix(a, wanted), inB = commonPrefix(b, wanted);
    return inA != inB ? inA > inB : a < b;
  });
}

}  // namespace

std::string candidatesText(const ObjectRef& at, std::string_view wanted) {
  auto names = candidates(at);
  const std::size_t more = names.size() - std::min(names.size(), kCandidates);
  if (more > 0) nearestFirst(names, wanted);
  std::string text;
  for (const std::string_view name : std::span(names).first(names.size() - more))
    text += (text.empty() ? "" : ", ") + Zel::escapeComponent(name);
  if (more > 0) text += " and " + std::to_string(more) + " more";
  return text.empty() ? "none" : text;
}

void throwNoMember(const ObjectRef& at) {
  ZEL_REQUIRE(at.key, at.attribute->name);
  const ObjectRef collection{at.object, at.isConst, at.attribute, {}};
  throw ValueError("'" + *at.key + "' is not a member of '" + at.attribute->name +
                   "'; known: " + candidatesText(collection, *at.key));
}

}  // namespace Host
