#include "host/methods.h"

#include <unistd.h>

#include <algorithm>

#include "host/batch.h"
#include "host/rpc.h"
#include "platform/zel/activity.h"
#include "platform/zel/dir.h"
#include "platform/zel/trace.h"

namespace Host {

namespace {

constexpr int kProtocol = 1;

// A parameter that is a path, or empty for everything.
std::string pathField(const Json& parameters) {
  const std::string path = textField(parameters, "path");
  for (Statedb::PathReader reader(path); !reader.done();) reader.next(Zel::Dir::typeNode());
  return path;
}

Statedb::Durability durabilityField(const Json& parameters) {
  const std::string text = textField(parameters, "durability");
  if (text.empty() || text == "stored") return Statedb::Durability::stored;
  if (text == "derived") return Statedb::Durability::derived;
  throw Zel::ValueError("'durability': found \"" + text + "\", wanted \"stored\" or \"derived\"");
}

}  // namespace

std::span<const Methods::Method> Methods::table() {
  static const Method methods[] = {
      {"hello", Does::nothing, {}, &Methods::hello},
      {"read", Does::sees, {"path"}, &Methods::read},
      {"write", Does::writes, {"changes", "durability"}, &Methods::write},
      {"watch", Does::sees, {"path", "own"}, &Methods::watch},
      {"unwatch", Does::nothing, {"watch"}, &Methods::unwatch},
      {"types", Does::nothing, {}, &Methods::types},
      {"trace", Does::nothing, {"levels"}, &Methods::trace},
      {"status", Does::sees, {}, &Methods::status},
      {"object", Does::sees, {"operation", "path", "arguments", "depth"}, &Methods::object},
  };
  return methods;
}

const Methods::Method& Methods::find(const std::string& name) {
  std::string names;
  for (const Method& method : table()) {
    if (method.name == name) return method;
    names += (names.empty() ? "" : ", ") + std::string(method.name);
  }
  throw RpcError(RpcCode::noSuchMethod, "there is no method '" + name + "'; there are " + names);
}

Json Methods::run(const Method& method, const Json& parameters, Watches& watches) const {
  try {
    expectFields(parameters, method.parameters);
    return (this->*method.run)(parameters, watches);
  } catch (const Zel::ValueError& error) {
    throw RpcError(RpcCode::badParameter, std::string(method.name) + ": " + error.what());
  } catch (const Statedb::StoreError& error) {
    throw RpcError(RpcCode::store, error.what());
  }
}

Json Methods::hello(const Json&, Watches&) const {
  return {{"name", "pinlampd"},
          {"version", PINLAMP_VERSION},
          {"protocol", kProtocol},
          {"store", served_.store.url()}};
}

Json Methods::read(const Json& parameters, Watches&) const {
  return {{"entities", entitiesJson(served_.store.read(pathField(parameters)))}};
}

std::string Methods::typeAt(const std::string& path) const {
  if (const auto* memory = dynamic_cast<const Statedb::MemoryStore*>(&served_.store))
    return memory->typeAt(path);
  return {};  // the rows are kept elsewhere, and so are the checks
}

Json Methods::write(const Json& parameters, Watches& watches) const {
  const Json& changes = listField(parameters, "changes");
  const auto durability = durabilityField(parameters);
  const bool derived = durability == Statedb::Durability::derived;
  const Batch batch = readBatch(
      changes, [this](const std::string& path) { return typeAt(path); }, served_.manager.mounts(), derived);
  if (!batch.errors.empty()) throw refusedFor(batch.errors);
  // What is mounted is no derived value, whoever was the first to write under it.
  if (derived && !batch.mounts.empty())
    served_.store.write(batch.mounts, Statedb::Durability::stored, watches.origin());
  served_.store.write(batch.changes, durability, watches.origin());
  return {{"written", changes.size()}};
}

Json Methods::watch(const Json& parameters, Watches& watches) const {
  const std::string path = pathField(parameters);
  Json entities = entitiesJson(served_.store.read(path));
  return {{"watch", watches.add(path, flagField(parameters, "own", true))},
          {"entities", std::move(entities)}};
}

Json Methods::unwatch(const Json& parameters, Watches& watches) const {
  if (!parameters.contains("watch")) throw Zel::ValueError("'watch' is missing");
  const Json& id = parameters["watch"];
  if (!id.is_number_unsigned() || !watches.del(id.get<std::uint64_t>()))
    throw Zel::ValueError("'watch': this connection has no watch " + jsonText(id));
  return Json::object();
}

namespace {

Json operationsJson(Zel::Operations operations) {
  Json texts = Json::array();
  using enum Zel::Operation;
  for (const auto operation : {get, set, del, iterate, invoke})
    if (Zel::allows(operations, operation)) texts.push_back(Zel::operationText(operation));
  return texts;
}

std::string typeText(Zel::TypeText type) { return type ? type() : std::string(); }

Json attributeJson(const Zel::AttributeInfo& row, Zel::AttributeIndex index) {
  Json parameters = Json::array();
  for (const auto& parameter : row.parameters)
    parameters.push_back({{"name", parameter.name}, {"type", typeText(parameter.type)}});
  return {{"name", row.name},
          {"index", index},
          {"kind", Zel::kindText(row.kind)},
          {"type", typeText(row.type)},
          {"operations", operationsJson(row.operations)},
          {"stored", row.stored},
          {"parameters", std::move(parameters)},
          {"member", row.memberType ? Json(row.memberType().name().stdString()) : Json()}};
}

Json typeJson(const Zel::TypeNode& type) {
  Json attributes = Json::array();
  for (auto index = type.firstIndex(); index < type.endIndex(); ++index)
    if (type.attribute(index).kind != Zel::Kind::reserved)
      attributes.push_back(attributeJson(type.attribute(index), index));
  return {{"name", type.name().stdString()},
          {"base", type.base() ? Json(type.base()->name().stdString()) : Json()},
          {"attributes", std::move(attributes)}};
}

Json mountJson(const Statedb::EntityManager::MountInfo& mount) {
  return {{"path", mount.path}, {"type", mount.type}, {"mode", mount.mode}, {"complete", mount.complete}};
}

std::size_t objectsOf(const char* name) {
  const auto known = Zel::Name::existing(name);
  const Zel::TypeNode* type = known ? Zel::typeNode(*known) : nullptr;
  return type ? type->allocations().objects() : 0;
}

Json allocationsJson() {
  Json types = Json::object();
  for (const Zel::TypeNode* type : Zel::typeNodes())
    if (const auto& allocations = type->allocations(); allocations.total() > 0)
      types[type->name().stdString()] = {{"objects", allocations.objects()}, {"bytes", allocations.bytes()}};
  return types;
}

std::size_t entitiesOf(const Statedb::Store& store) {
  if (const auto* memory = dynamic_cast<const Statedb::MemoryStore*>(&store)) return memory->entities();
  return 0;  // they are kept elsewhere
}

// What the counters of a type stand for, under which name of the status.
constexpr std::pair<const char*, const char*> kCounted[] = {
    {"leds", "Hardware::Led::LedConfig"},
    {"mappings", "Hardware::Gpio::GpioLedConfig"},
    {"machines", "Pinlamp::GpioLedStateMachine"},
    {"pins", "Hardware::Gpio::CorvelPinConfig"},
};

Json activityJson() {
  const auto& activity = Zel::activityManager();
  return {{"passes", activity.passes()},
          {"deliveries", activity.deliveries()},
          {"expiries", activity.clock()->expiries()},
          {"worstLateness", activity.clock()->worstLateness()},
          {"now", Zel::System::currentTime()}};
}

Json servedJson(const Served& served) {
  Json agents = Json::array();
  for (const auto& agent : served.agents)
    agents.push_back({{"name", agent.name}, {"library", agent.library}});
  Json mounts = Json::array();
  for (const auto& mount : served.manager.mounts()) mounts.push_back(mountJson(mount));
  return {{"store", served.store.url()},
          {"agents", std::move(agents)},
          {"mounts", std::move(mounts)},
          {"entities", entitiesOf(served.store)},
          {"published", served.manager.published()},
          {"refusals", served.manager.refusals()},
          {"lastRefusal", served.lastRefusal},
          {"clients", served.clients},
          {"uptime", Zel::System::currentTime() - served.started}};
}

}  // namespace

Json Methods::types(const Json&, Watches&) const {
  Json types = Json::array();
  for (const Zel::TypeNode* type : Zel::typeNodes()) types.push_back(typeJson(*type));
  return {{"types", std::move(types)}};
}

Json Methods::trace(const Json& parameters, Watches&) const {
  if (parameters.contains("levels")) {
    try {
      Zel::traceLevelsIs(textField(parameters, "levels"));
    } catch (const Zel::ValueError& error) {
      throw refusedFor({std::string("trace: ") + error.what()});
    }
  }
  Json facilities = Json::object();
  for (const Zel::TraceFacility* facility : Zel::TraceFacility::all())
    facilities[facility->name()] = Zel::traceLevelsText(facility->mask());
  return {{"facilities", std::move(facilities)}};
}

Json Methods::status(const Json&, Watches&) const {
  Json status = {{"version", PINLAMP_VERSION},
                 {"pid", ::getpid()},
                 {"names", Zel::Name::count()},
                 {"types", allocationsJson()}};
  for (const auto& [name, type] : kCounted) status[name] = objectsOf(type);
  status.update(activityJson());
  status.update(servedJson(served_));
  return status;
}

namespace {

Zel::Value::List argumentsField(const Json& parameters) {
  Zel::Value::List arguments;
  if (parameters.contains("arguments"))
    for (const Json& argument : listField(parameters, "arguments")) arguments.push_back(toValue(argument));
  return arguments;
}

std::size_t depthField(const Json& parameters) {
  constexpr std::size_t kDepth = 16;
  if (!parameters.contains("depth")) return kDepth;
  if (!parameters["depth"].is_number_unsigned()) throw Zel::ValueError("'depth': wanted a whole number");
  return std::min(parameters["depth"].get<std::size_t>(), kDepth);
}

// What the generic interface does for each operation's name.
struct ObjectOperation {
  const char* name;
  Zel::Value (*run)(const Objects& objects, const std::string& path, const Zel::Value::List& arguments,
                    std::size_t depth);
};
constexpr ObjectOperation kObjectOperations[] = {
    {"tree", [](auto& objects, auto& path, auto&, auto depth) { return objects.tree(path, depth); }},
    {"list", [](auto& objects, auto& path, auto&, auto) { return objects.list(path); }},
    {"get", [](auto& objects, auto& path, auto&, auto) { return objects.get(path); }},
    {"set", [](auto& objects, auto& path, auto& arguments, auto) { return objects.set(path, arguments); }},
    {"delete", [](auto& objects, auto& path, auto&, auto) { return objects.del(path); }},
    {"iterate", [](auto& objects, auto& path, auto&, auto) { return objects.iterate(path); }},
    {"invoke",
     [](auto& objects, auto& path, auto& arguments, auto) { return objects.call(path, arguments); }},
};

}  // namespace

Json Methods::object(const Json& parameters, Watches&) const {
  const std::string name = textField(parameters, "operation");
  const auto operation = std::ranges::find(kObjectOperations, name, &ObjectOperation::name);
  if (operation == std::end(kObjectOperations))
    throw Zel::ValueError("'operation': found \"" + name +
                          "\", wanted tree, list, get, set, delete, iterate or invoke");
  const std::string path = textField(parameters, "path");
  const auto arguments = argumentsField(parameters);
  const std::size_t depth = depthField(parameters);
  try {
    return {{"value", toJson(Objects::describe(operation->run(served_.objects, path, arguments, depth)))}};
  } catch (const Zel::ValueError& error) {
    throw refusedFor({path + ": " + error.what()});
  } catch (const Zel::Exception& error) {
    throw refusedFor({path + ": " + error.what()});
  }
}

}  // namespace Host
