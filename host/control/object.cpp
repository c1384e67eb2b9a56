#include "host/control/object.h"

#include <algorithm>
#include <span>
#include <unordered_set>

#include "platform/statedb/store/schema.h"
#include "platform/warden/cagent.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/entity/pathwalker.h"
#include "platform/zel/notify/clock.h"

namespace Host {

using Zel::AttributeInfo;
using Zel::Kind;
using Zel::Operation;
using Zel::Ptr;
using Zel::Value;
using Zel::ValueError;

namespace {

// Whether a reference leads from an object to an entity above it.
bool leadsUp(const ObjectRef& at, const ObjectRef& target) {
  const auto* entity = dynamic_cast<const Zel::Entity*>(at.object.get());
  return entity && entity->parent() && entity->parent() == target.object.get();
}

// The target of a pointer; null if the pointer is null or leads up.
ObjectRef targetOf(const ObjectRef& at, const AttributeInfo& attribute) {
  ObjectRef target = objectOf(attribute.get(notifierOf(at), {}));
  return leadsUp(at, target) ? ObjectRef{} : target;
}

[[noreturn]] void refuse(Operation operation, const std::string& on) {
  Zel::throwOperationNotSupportedException("operation " + Zel::String(Zel::operationText(operation)) +
                                           " is not supported on " + on);
}

Value perform(const ObjectRef& at, Operation operation, const Value::List& arguments) {
  const Zel::AttributeIndex index = at.object->fwkType().indexOf(at.attribute->name);
  return Zel::GenericIf::perform(const_cast<Zel::Notifier&>(notifierOf(at)), operation, index, arguments);
}

// Throws unless the path leads to an attribute that has the operation.
void expectSupported(const ObjectRef& at, Operation operation) {
  if (!at.attribute) refuse(operation, "an object; name one of its attributes: " + candidatesText(at));
  if (at.key && at.attribute->kind == Kind::collection) throwNoMember(at);
  const std::string name = "'" + std::string(at.attribute->name) + "'";
  if (at.key) refuse(operation, "one name of " + name + "; ask for " + name + " as a whole");
  if (!Zel::allows(at.attribute->operations, operation)) perform(at, operation, {});  // throws
  const bool reads = operation == Operation::get || operation == Operation::iterate;
  if (at.isConst && !reads) throw ValueError("the object may be read only");
}

// The boolean of one name in a set. Throws ValueError if the set does not have the name.
Value nameValue(const ObjectRef& at) {
  const Value names = at.attribute->get(notifierOf(at), {});
  if (const Value* value = names.field(*at.key)) return *value;
  const auto* list = names.as<Value::List>();
  if (!list || std::ranges::find(*list, Value(*at.key)) == list->end()) throwNoMember(at);
  return true;
}

// Whether a procedure is a step of an agent's start-up, which only its host calls, once.
bool isStartUp(const ObjectRef& at) {
  const std::string_view name = at.attribute ? at.attribute->name : "";
  return (name == "doInit" || name == "doMountsComplete") &&
         at.object->fwkType().isA(Warden::CAgent::typeNode());
}

// Calls `add` with at most kListed keys of a collection or a set of names, and counts the rest in `omitted`.
template <class Add>
void forEachListed(const ObjectRef& at, const AttributeInfo& attribute, Value::Fields& omitted, Add add) {
  const auto keys = attribute.keys(notifierOf(at));
  const std::size_t listed = std::min(keys.size(), Objects::kListed);
  for (const Zel::Name& key : std::span(keys).first(listed)) add(key);
  if (keys.size() > listed)
    omitted.emplace_back(attribute.name, static_cast<std::int64_t>(keys.size() - listed));
}

Objects::Answer keysOf(const ObjectRef& at) {
  Objects::Answer answer;
  Value::List keys;
  forEachListed(at, *at.attribute, answer.omitted, [&](Zel::Name key) { keys.emplace_back(key.view()); });
  answer.value = std::move(keys);
  return answer;
}

}  // namespace

ObjectRef Objects::resolve(std::string_view path) const {
  Zel::PathWalker::checkComponents(path);
  if (path.empty())
    throw ValueError("the path is empty; it starts at an agent (agent) or a mounted entity (hardware)");
  const auto roots = roots_();
  Zel::PathWalker walker(path);
  const std::string first(walker.component());
  auto root = std::ranges::find(roots, first, &Root::name);
  if (root == roots.end() && first == "agent") root = roots.begin();
  ObjectRef at;
  if (root != roots.end())
    at.object = root->object;
  else
    at = step({entityRoot_(), false, nullptr, {}}, first);
  while (!walker.done()) at = step(follow(at), std::string(walker.component()));
  return at;
}

void Objects::expectWritable() const {
  if (access_ != Access::writable)
    throw ValueError(
        "live objects may only be read; to set, delete or invoke them, start pinlampd with "
        "--allow-object-writes");
}

Objects::Answer Objects::get(const std::string& path) const {
  const ObjectRef at = resolve(path);
  if (!at.attribute) return {Value::Object{at.object, at.isConst}};
  if (at.key && at.attribute->kind == Kind::names) return {nameValue(at)};
  expectSupported(at, Operation::get);
  if (at.attribute->kind == Kind::collection) return keysOf(at);
  return {perform(at, Operation::get, {})};
}

Objects::Answer Objects::iterate(const std::string& path) const {
  const ObjectRef at = resolve(path);
  expectSupported(at, Operation::iterate);
  return keysOf(at);
}

Value Objects::set(const std::string& path, const Value::List& arguments) const {
  expectWritable();
  ObjectRef at = resolve(path);
  // A collection whose setter takes no objects makes a member by key.
  Value::List given;
  if (at.key && at.attribute->kind == Kind::collection && at.attribute->parameters.empty())
    given.emplace_back(*std::exchange(at.key, std::nullopt));
  expectSupported(at, Operation::set);
  std::ranges::move(coerced(path, *at.attribute, arguments), std::back_inserter(given));
  return perform(at, Operation::set, given);
}

Value Objects::del(const std::string& path) const {
  expectWritable();
  ObjectRef at = resolve(path);
  const std::string_view above = Zel::PathWalker::above(path);
  if (at.attribute || above.empty()) {
    expectSupported(at, Operation::del);
    return perform(at, Operation::del, {});
  }
  // The last component is the member's key; the path above leads to its collection.
  const Value key = Zel::unescapeComponent(std::string_view(path).substr(above.size() + 1));
  at = follow(resolve(above));
  if (!at.attribute) at.attribute = Zel::directCollection(at.object->fwkType());
  expectSupported(at, Operation::del);
  return perform(at, Operation::del, {key});
}

Value Objects::call(const std::string& path, const Value::List& arguments) const {
  expectWritable();
  const ObjectRef at = resolve(path);
  expectSupported(at, Operation::invoke);
  if (isStartUp(at)) refuse(Operation::invoke, "'" + path + "': only the host starts an agent");
  return perform(at, Operation::invoke, coerced(path, *at.attribute, arguments));
}

Value::List Objects::coerced(const std::string& path, const AttributeInfo& attribute,
                             const Value::List& arguments) const {
  Value::List given = arguments;
  if (attribute.direct) {  // the type of an entry
    for (const Value& type : given) {
      const auto* text = type.as<std::string>();
      if (text && !Statedb::typeNamed(*text).newEntityForDir())
        throw ValueError("type " + *text + " can't be put in a directory");
    }
    return given;
  }
  const Zel::Parameter plain{attribute.name, attribute.type};
  for (std::size_t i = 0; i < given.size(); ++i)
    given[i] = coerce(path, i < attribute.parameters.size() ? attribute.parameters[i] : plain, given[i]);
  for (std::size_t i = 0; i < std::min(given.size(), attribute.parameters.size()); ++i)
    if (given[i].isNull())
      throw ValueError("argument " + std::to_string(i + 1) + " is null, expected a " +
                       attribute.parameters[i].type());
  return given;
}

Value Objects::coerce(const std::string& path, const Zel::Parameter& parameter, const Value& given) const {
  const auto* text = given.as<std::string>();
  const auto known = parameter.type ? Zel::Name::existing(parameter.type()) : std::nullopt;
  const Zel::TypeNode* type = known ? Zel::typeNode(*known) : nullptr;
  if (!text || !type) return given;
  if (const auto found = named(path, *type, *text)) return Value::Object{found, false};
  const ObjectRef at = follow(resolve(*text));
  if (at.attribute) throw ValueError("'" + *text + "' is no object; expected a " + parameter.type());
  return Value::Object{at.object, at.isConst};
}

namespace {

// Searches for an entity by type and name, through pointers and in collections.
class Search {
 public:
  Search(const Zel::TypeNode& type, Zel::Name name) : type_(type), name_(name) {}

  Ptr<const Zel::PtrInterface> from(const ObjectRef& at) {
    if (!at.object || !seen_.insert(at.object.get()).second) return nullptr;
    const auto* entity = dynamic_cast<const Zel::Entity*>(at.object.get());
    if (entity && entity->fwkType().isA(type_) && entity->name() == name_) return at.object;
    Ptr<const Zel::PtrInterface> found;
    forEachAttribute(at.object->fwkType(), [&](const AttributeInfo& attribute) {
      if (!found && attribute.kind == Kind::pointer) found = from(targetOf(at, attribute));
      if (!found && attribute.kind == Kind::collection) found = from(memberOf(at, attribute, name_));
    });
    return found;
  }

 private:
  const Zel::TypeNode& type_;
  const Zel::Name name_;
  std::unordered_set<const void*> seen_;
};

}  // namespace

Ptr<const Zel::PtrInterface> Objects::named(const std::string& path, const Zel::TypeNode& type,
                                            const std::string& name) const {
  const auto known = Zel::Name::existing(name);
  return known ? Search(type, *known).from(resolve(path.substr(0, path.find('/')))) : nullptr;
}

namespace {

Value operationsOf(const AttributeInfo& attribute) {
  Value::List texts;
  for (const Operation one :
       {Operation::get, Operation::set, Operation::del, Operation::iterate, Operation::invoke})
    if (Zel::allows(attribute.operations, one)) texts.emplace_back(Zel::operationText(one));
  return texts;
}

Value componentValue(std::string name, const char* kind, std::string type, Value operations) {
  return Value::Fields{{"name", std::move(name)},
                       {"kind", kind},
                       {"type", std::move(type)},
                       {"operations", std::move(operations)}};
}

void addKeys(Objects::Listing& listing, const ObjectRef& at, const AttributeInfo& attribute) {
  forEachListed(at, attribute, listing.omitted, [&](Zel::Name key) {
    listing.components.push_back(
        componentValue(Zel::escapeComponent(key.view()), "member", attribute.type(), Value::List{}));
  });
}

// The valid next components after an object or a collection.
Objects::Listing nextComponents(const ObjectRef& at) {
  Objects::Listing listing;
  if (at.key && at.attribute->kind == Kind::collection) throwNoMember(at);
  if (at.attribute) {
    if (at.attribute->keys && !at.key) addKeys(listing, at, *at.attribute);
    return listing;
  }
  const Zel::TypeNode& type = at.object->fwkType();
  if (const AttributeInfo* direct = Zel::directCollection(type)) addKeys(listing, at, *direct);
  forEachAttribute(type, [&](const AttributeInfo& attribute) {
    listing.components.push_back(componentValue(attribute.name, Zel::kindText(attribute.kind),
                                                attribute.type ? attribute.type() : std::string(),
                                                operationsOf(attribute)));
  });
  return listing;
}

}  // namespace

Objects::Listing Objects::list(const std::string& path) const {
  if (!path.empty()) return nextComponents(follow(resolve(path)));
  Listing listing;
  for (const Root& root : roots_())
    listing.components.push_back(
        componentValue(root.name, "agent", root.object->fwkType().name().stdString(), Value::List{}));
  const Ptr<Zel::Dir> entities = entityRoot_();
  addKeys(listing, {entities, false, nullptr, {}}, *Zel::directCollection(entities->fwkType()));
  return listing;
}

namespace {

class Tree {
 public:
  Value of(const ObjectRef& at, const std::string& path, std::size_t depth) {
    --left_;
    Value node = Value::Fields{{"path", path}, {"type", at.object->fwkType().name().view()}};
    if (!seen_.insert(at.object.get()).second)
      node.fieldIs("seen", true);
    else if (depth > 0)
      addMembers(node, at, path, depth - 1);
    return node;
  }

 private:
  void addMembers(Value& node, const ObjectRef& at, const std::string& path, std::size_t depth) {
    Value::List members;
    Value::Fields omitted;
    forEachAttribute(at.object->fwkType(), [&](const AttributeInfo& attribute) {
      std::size_t omits = 0;
      if (attribute.kind == Kind::pointer) omits = addTarget(members, at, attribute, path, depth);
      if (attribute.kind == Kind::collection) omits = addCollection(members, at, attribute, path, depth);
      if (omits > 0) omitted.emplace_back(attribute.name, static_cast<std::int64_t>(omits));
    });
    if (!members.empty()) node.fieldIs("members", std::move(members));
    if (!omitted.empty()) node.fieldIs("omitted", std::move(omitted));
  }

  // Both return the number of omitted objects.
  std::size_t addTarget(Value::List& members, const ObjectRef& at, const AttributeInfo& attribute,
                        const std::string& path, std::size_t depth) {
    const ObjectRef target = targetOf(at, attribute);
    if (!target.object) return 0;
    if (left_ == 0) return 1;
    members.push_back(of(target, path + '/' + attribute.name, depth));
    return 0;
  }
  std::size_t addCollection(Value::List& members, const ObjectRef& at, const AttributeInfo& attribute,
                            const std::string& path, std::size_t depth) {
    const std::string above = path + '/' + (attribute.direct ? "" : attribute.name + std::string("/"));
    const auto keys = attribute.keys(notifierOf(at));
    std::size_t done = 0;
    for (; done < std::min(keys.size(), Objects::kTreeMembers) && left_ > 0; ++done)
      members.push_back(
          of(memberOf(at, attribute, keys[done]), above + Zel::escapeComponent(keys[done].view()), depth));
    return keys.size() - done;
  }

  std::unordered_set<const void*> seen_;
  std::size_t left_ = Objects::kTreeObjects;
};

}  // namespace

Value Objects::tree(const std::string& path, std::size_t depth) const {
  const ObjectRef at = follow(resolve(path));
  if (at.key && at.attribute->kind == Kind::collection) throwNoMember(at);
  if (at.attribute) throw ValueError("'" + std::string(at.attribute->name) + "' is no object");
  return Tree().of(at, path, depth);
}

Value Objects::describe(const Value& value) {
  if (const auto* list = value.as<Value::List>()) {
    Value::List described;
    std::ranges::transform(*list, std::back_inserter(described), &Objects::describe);
    return described;
  }
  const auto* object = value.as<Value::Object>();
  if (!object) return value;
  if (!object->pointer) return {};
  Value result = Value::Fields{{"type", object->pointer->fwkType().name().view()}};
  if (const auto* entity = dynamic_cast<const Zel::Entity*>(object->pointer.get()))
    result.fieldIs("object", entity->path());
  const auto* notifier = dynamic_cast<const Zel::Notifier*>(object->pointer.get());
  if (const double wakeUp = notifier ? notifier->wakeUp() : Zel::Clock::kNever; wakeUp < Zel::Clock::kNever)
    result.fieldIs("wakesIn", wakeUp - Zel::System::currentTime());
  return result;
}

}  // namespace Host
