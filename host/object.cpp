#include "host/object.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "platform/zel/entity.h"

namespace Host {

using Zel::AttributeInfo;
using Zel::Kind;
using Zel::Operation;
using Zel::Ptr;
using Zel::Value;
using Zel::ValueError;

namespace {

std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> components;
  std::stringstream stream(path);
  for (std::string component; std::getline(stream, component, '/');) {
    if (component.empty()) throw ValueError("'" + path + "' has an empty component");
    components.push_back(component);
  }
  return components;
}

// Calls `function` for every published row of a type, its bases' first, less those of a base that the type
// replaces.
template <class Function>
void forEachRow(const Zel::TypeNode& type, Function&& function) {
  for (Zel::AttributeIndex index = 0; index < type.endIndex(); ++index)
    if (const auto& row = type.attribute(index);
        row.kind != Kind::reserved && type.indexOf(row.name) == index)
      function(row);
}

// Whether a reference of an object leads to the entity that it stands under.
bool leadsUp(const Zel::Notifier& object, const Zel::Notifier* target) {
  const auto* entity = dynamic_cast<const Zel::Entity*>(&object);
  return entity && entity->parent() && entity->parent() == target;
}

const AttributeInfo* directRow(const Zel::TypeNode& type) {
  const AttributeInfo* direct = nullptr;
  forEachRow(type, [&](const AttributeInfo& row) {
    if (row.direct) direct = &row;
  });
  return direct;
}

ObjectRef objectOf(const Value& value) {
  const auto* object = value.as<Value::Object>();
  if (!object) return {};
  return {Zel::dynamicPtrCast<const Zel::Notifier>(object->pointer), object->isConst, nullptr, {}};
}

ObjectRef memberOf(const ObjectRef& at, const AttributeInfo& row, Zel::Name key) {
  const Value name = key.view();
  ObjectRef member = objectOf(row.get(*at.object, {&name, 1}));
  member.isConst |= at.isConst;
  return member;
}

std::string textsOf(const Value& list) {
  std::string texts;
  for (const Value& each : *list.as<Value::List>())
    texts += (texts.empty() ? "" : ", ") + *each.field("name")->as<std::string>();
  return texts.empty() ? "nothing" : texts;
}

Value operationsOf(const AttributeInfo& row) {
  Value::List texts;
  for (const Operation one :
       {Operation::get, Operation::set, Operation::del, Operation::iterate, Operation::invoke})
    if (Zel::allows(row.operations, one)) texts.emplace_back(Zel::operationText(one));
  return texts;
}

Value rowValue(const AttributeInfo& row) {
  return Value::Fields{{"name", row.name},
                       {"kind", Zel::kindText(row.kind)},
                       {"type", row.type ? row.type() : std::string()},
                       {"operations", operationsOf(row)}};
}

Value keyValue(Zel::Name key, const AttributeInfo& row) {
  return Value::Fields{{"name", Zel::escapeComponent(key.view())},
                       {"kind", "member"},
                       {"type", row.type()},
                       {"operations", Value::List{}}};
}

// What may follow an object or a collection in a path.
Value nextComponents(const ObjectRef& at) {
  Value::List list;
  if (at.attribute) {
    if (at.attribute->keys && !at.key)
      for (const Zel::Name key : at.attribute->keys(*at.object)) list.push_back(keyValue(key, *at.attribute));
    return list;
  }
  if (const AttributeInfo* direct = directRow(at.object->fwkType()))
    for (const Zel::Name key : direct->keys(*at.object)) list.push_back(keyValue(key, *direct));
  forEachRow(at.object->fwkType(), [&](const AttributeInfo& row) { list.push_back(rowValue(row)); });
  return list;
}

ValueError noMember(const ObjectRef& at) {
  return ValueError("'" + at.key->stdString() + "' is no member of '" + at.attribute->name + "'; there is " +
                    textsOf(nextComponents({at.object, at.isConst, at.attribute, {}})));
}

// One component further. Throws ValueError where it leads nowhere.
ObjectRef step(const ObjectRef& at, const std::string& component) {
  if (at.attribute && at.attribute->kind == Kind::collection && !at.key) {
    const Zel::Name key(Zel::unescapeComponent(component));
    const ObjectRef member = memberOf(at, *at.attribute, key);
    return member.object ? member : ObjectRef{at.object, at.isConst, at.attribute, key};
  }
  if (!at.attribute) {
    const Zel::TypeNode& type = at.object->fwkType();
    if (const AttributeInfo* direct = directRow(type)) {
      const ObjectRef entry = memberOf(at, *direct, Zel::Name(Zel::unescapeComponent(component)));
      if (entry.object) return entry;
    }
    if (const AttributeInfo* row = type.find(std::string_view(component)))
      return {at.object, at.isConst, row, {}};
  }
  if (at.key) throw noMember(at);
  throw ValueError("'" + component + "' leads nowhere; there is " + textsOf(nextComponents(at)));
}

// A pointer that a path goes on behind is followed.
ObjectRef follow(const ObjectRef& at) {
  if (!at.attribute || at.attribute->kind != Kind::pointer) return at;
  ObjectRef object = objectOf(at.attribute->get(*at.object, {}));
  if (!object.object) throw ValueError("'" + std::string(at.attribute->name) + "' is null");
  object.isConst |= at.isConst;
  return object;
}

}  // namespace

ObjectRef Objects::resolve(const std::string& path) const {
  const auto components = componentsOf(path);
  if (components.empty())
    throw ValueError("the path is empty; it starts at an agent (agent) or a mounted entity (hardware)");
  const auto roots = roots_();
  auto root = std::ranges::find(roots, components[0], &Root::name);
  if (root == roots.end() && components[0] == "agent") root = roots.begin();
  ObjectRef at;
  if (root != roots.end())
    at.object = root->object;
  else
    at = step({entityRoot_(), false, nullptr, {}}, components[0]);
  for (std::size_t i = 1; i < components.size(); ++i) at = step(follow(at), components[i]);
  return at;
}

Value Objects::perform(const std::string& path, Operation operation, const Value::List& arguments) const {
  const ObjectRef at = resolve(path);
  if (!at.attribute)
    throw ValueError("'" + path +
                     "' is an object; name one of its attributes: " + textsOf(nextComponents(at)));
  const bool reads = operation == Operation::get || operation == Operation::iterate;
  if (at.isConst && !reads) throw ValueError("'" + path + "' may be read only");
  const Zel::TypeNode& type = at.object->fwkType();
  Value::List all = arguments;
  if (at.key && operation == Operation::del) all.insert(all.begin(), Value(at.key->view()));
  return Zel::GenericIf::perform(const_cast<Zel::Notifier&>(*at.object), operation,
                                 type.indexOf(at.attribute->name), all);
}

Value Objects::get(const std::string& path) const {
  const ObjectRef at = resolve(path);
  if (!at.attribute) return Value::Object{at.object, at.isConst};
  if (at.key) throw noMember(at);
  return perform(path, Operation::get, {});
}

Value Objects::set(const std::string& path, const Value::List& arguments) const {
  const ObjectRef at = resolve(path);
  if (!at.attribute) return perform(path, Operation::set, arguments);
  Value::List given = arguments;
  if (at.key) given.insert(given.begin(), Value(at.key->view()));
  const Zel::Parameter plain{at.attribute->name, at.attribute->type};
  for (std::size_t i = at.key ? 1 : 0; i < given.size(); ++i)
    given[i] =
        coerce(path, i < at.attribute->parameters.size() ? at.attribute->parameters[i] : plain, given[i]);
  return perform(path, Operation::set, given);
}

Value Objects::del(const std::string& path) const {
  // A member that is there is found as an object: its collection and key are the last two components.
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos) {
    const ObjectRef above = follow(resolve(path.substr(0, slash)));
    const Value key = Zel::unescapeComponent(path.substr(slash + 1));
    if (above.attribute && above.attribute->kind == Kind::collection)
      return perform(path.substr(0, slash), Operation::del, {key});
    if (const AttributeInfo* direct = above.attribute ? nullptr : directRow(above.object->fwkType());
        direct && memberOf(above, *direct, Zel::Name(*key.as<std::string>())).object)
      return perform(path.substr(0, slash) + '/' + direct->name, Operation::del, {key});
  }
  return perform(path, Operation::del, {});
}

Value Objects::call(const std::string& path, const Value::List& arguments) const {
  const ObjectRef at = resolve(path);
  Value::List given = arguments;
  if (at.attribute)
    for (std::size_t i = 0; i < std::min(given.size(), at.attribute->parameters.size()); ++i)
      given[i] = coerce(path, at.attribute->parameters[i], given[i]);
  return perform(path, Operation::invoke, given);
}

Value Objects::coerce(const std::string& path, const Zel::Parameter& parameter, const Value& given) const {
  const auto* text = given.as<std::string>();
  const auto known = parameter.type ? Zel::Name::existing(parameter.type()) : std::nullopt;
  const Zel::TypeNode* type = known ? Zel::typeNode(*known) : nullptr;
  if (!text || !type) return given;
  if (const auto found = named(path, *type, *text)) return Value::Object{found, false};
  const ObjectRef at = follow(resolve(*text));
  if (at.attribute) throw ValueError("'" + *text + "' is no object; wanted a " + parameter.type());
  return Value::Object{at.object, at.isConst};
}

namespace {

// Visits every object that can be reached from `at`, nearest first, each once, parents left out; `visit` says
// whether to go on.
template <class Visit>
bool walk(const ObjectRef& at, std::set<const void*>& seen, Visit&& visit) {
  if (!at.object || !seen.insert(at.object.get()).second) return true;
  if (!visit(at)) return false;
  bool goOn = true;
  forEachRow(at.object->fwkType(), [&](const AttributeInfo& row) {
    if (!goOn) return;
    if (row.kind == Kind::pointer) goOn = walk(objectOf(row.get(*at.object, {})), seen, visit);
    if (row.kind != Kind::collection) return;
    for (const Zel::Name key : row.keys(*at.object)) goOn = goOn && walk(memberOf(at, row, key), seen, visit);
  });
  return goOn;
}

}  // namespace

Ptr<const Zel::PtrInterface> Objects::named(const std::string& path, const Zel::TypeNode& type,
                                            const std::string& name) const {
  Ptr<const Zel::PtrInterface> found;
  std::set<const void*> seen;
  walk(resolve(path.substr(0, path.find('/'))), seen, [&](const ObjectRef& at) {
    const auto* entity = dynamic_cast<const Zel::Entity*>(at.object.get());
    if (entity && entity->fwkType().isA(type) && entity->name().view() == name) found = at.object;
    return !found;
  });
  return found;
}

Value Objects::list(const std::string& path) const {
  if (!path.empty()) return nextComponents(follow(resolve(path)));
  Value::List list;
  for (const Root& root : roots_())
    list.push_back(Value::Fields{{"name", root.name},
                                 {"kind", "agent"},
                                 {"type", root.object->fwkType().name().view()},
                                 {"operations", Value::List{}}});
  const Value entries = nextComponents({entityRoot_(), false, nullptr, {}});
  for (const Value& entry : *entries.as<Value::List>())
    if (*entry.field("kind") == Value("member")) list.push_back(entry);
  return list;
}

namespace {

Value treeOf(const ObjectRef& at, const std::string& path, std::size_t depth, std::set<const void*>& seen) {
  Value node = Value::Fields{{"path", path}, {"type", at.object->fwkType().name().view()}};
  if (!seen.insert(at.object.get()).second) {
    node.fieldIs("seen", true);  // listed where it was first met
    return node;
  }
  Value::List members;
  const auto add = [&](const ObjectRef& member, const std::string& component) {
    if (member.object) members.push_back(treeOf(member, path + '/' + component, depth - 1, seen));
  };
  forEachRow(at.object->fwkType(), [&](const AttributeInfo& row) {
    if (depth == 0) return;
    if (row.kind == Kind::pointer) {
      const ObjectRef target = objectOf(row.get(*at.object, {}));
      if (!leadsUp(*at.object, target.object.get())) add(target, row.name);
    }
    if (row.kind != Kind::collection) return;
    for (const Zel::Name key : row.keys(*at.object))
      add(memberOf(at, row, key),
          (row.direct ? "" : row.name + std::string("/")) + Zel::escapeComponent(key.view()));
  });
  if (!members.empty()) node.fieldIs("members", std::move(members));
  return node;
}

}  // namespace

Value Objects::tree(const std::string& path, std::size_t depth) const {
  const ObjectRef at = follow(resolve(path));
  if (at.attribute) throw ValueError("'" + path + "' is no object");
  std::set<const void*> seen;
  return treeOf(at, path, depth, seen);
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
  return result;
}

}  // namespace Host
