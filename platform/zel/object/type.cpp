#include "platform/zel/object/type.h"

#include <algorithm>
#include <new>
#include <unordered_map>

#include "platform/zel/core/assert.h"

namespace Zel {

const char* kindText(Kind kind) {
  static constexpr const char* kTexts[] = {"value",      "pointer",   "names",
                                           "collection", "procedure", "reserved"};
  return kTexts[static_cast<std::size_t>(kind)];
}

const char* operationText(Operation operation) {
  switch (operation) {
    case Operation::get:
      return "get";
    case Operation::set:
      return "set";
    case Operation::del:
      return "delete";
    case Operation::iterate:
      return "iterate";
    case Operation::invoke:
      return "invoke";
  }
  return "";
}

void AllocTrackTypeInfo::trackAllocation(const TypeNode& type, std::size_t size) {
  ++type.allocations_.objects_;
  ++type.allocations_.total_;
  type.allocations_.bytes_ += size;
}

void AllocTrackTypeInfo::trackDeallocation(const TypeNode& type, std::size_t size) {
  --type.allocations_.objects_;
  type.allocations_.bytes_ -= size;
}

namespace {

std::vector<AttributeInfo> labelled(std::vector<AttributeInfo> attributes) {
  for (AttributeInfo& attribute : attributes)
    attribute.label = attribute.kind == Kind::reserved ? Name() : Name(attribute.name);
  return attributes;
}

std::vector<const AttributeInfo*> storedOf(const TypeNode* base,
                                           const std::vector<AttributeInfo>& attributes) {
  auto stored = base ? base->storedAttributes() : std::vector<const AttributeInfo*>();
  for (const AttributeInfo& attribute : attributes)
    if (attribute.stored) stored.push_back(&attribute);
  return stored;
}

}  // namespace

TypeNode::TypeNode(const char* name, const TypeNode* base, std::vector<AttributeInfo> attributes,
                   Dispatch dispatchOperation, NewForDir newForDir)
    : name_(name),
      base_(base),
      attributes_(labelled(std::move(attributes))),
      stored_(storedOf(base, attributes_)),
      firstIndex_(base ? base->endIndex() : 0),
      dispatch_(dispatchOperation),
      newEntityForDir_(newForDir) {
  ZEL_REQUIRE(endIndex() <= 32, name << " has " << endIndex() << " attributes; a reactor's marks hold 32");
}

bool TypeNode::isA(const TypeNode& other) const { return this == &other || (base_ && base_->isA(other)); }

const AttributeInfo& TypeNode::attribute(AttributeIndex index) const {
  ZEL_REQUIRE(index < endIndex(), "index " << index << " of " << name_);
  return index >= firstIndex_ ? attributes_[index - firstIndex_] : base_->attribute(index);
}

AttributeIndex TypeNode::indexOf(std::string_view name) const {
  const auto found = std::ranges::find_if(attributes_, [&](const AttributeInfo& attribute) {
    return attribute.kind != Kind::reserved && attribute.name == name;
  });
  if (found != attributes_.end())
    return firstIndex_ + static_cast<AttributeIndex>(found - attributes_.begin());
  const AttributeIndex inherited = base_ ? base_->indexOf(name) : 0;
  return base_ && inherited != base_->endIndex() ? inherited : endIndex();
}

const AttributeInfo* TypeNode::find(std::string_view name) const {
  const AttributeIndex index = indexOf(name);
  return index == endIndex() ? nullptr : &attribute(index);
}

const AttributeInfo* TypeNode::find(const Name& name) const {
  if (name.empty()) return nullptr;
  const auto found = std::ranges::find(attributes_, name, &AttributeInfo::label);
  if (found != attributes_.end()) return &*found;
  return base_ ? base_->find(name) : nullptr;
}

namespace {

// Never destroyed: libraries unregister their types during static destruction.
std::unordered_map<Name, const TypeNode*>& registry() {
  static auto& instance = *new std::unordered_map<Name, const TypeNode*>;
  return instance;
}

}  // namespace

void typeNodeIs(const TypeNode& type) {
  const auto [place, added] = registry().try_emplace(type.name(), &type);
  ZEL_REQUIRE(added || place->second == &type, "a second type is named " << type.name());
}

void typeNodeDel(const TypeNode& type) {
  const auto found = registry().find(type.name());
  if (found != registry().end() && found->second == &type) registry().erase(found);
}

const TypeNode* typeNode(const Name& name) {
  const auto found = registry().find(name);
  return found == registry().end() ? nullptr : found->second;
}

std::vector<const TypeNode*> typeNodes() {
  std::vector<const TypeNode*> types;
  for (const auto& [name, type] : registry()) types.push_back(type);
  std::ranges::sort(types, {}, &TypeNode::name);
  return types;
}

TypeRegistration::TypeRegistration(std::initializer_list<const TypeNode& (*)()> types) {
  for (const auto type : types) {
    typeNodeIs(type());
    types_.push_back(&type());
  }
}

TypeRegistration::~TypeRegistration() {
  for (auto type = types_.rbegin(); type != types_.rend(); ++type) typeNodeDel(**type);
}

}  // namespace Zel
