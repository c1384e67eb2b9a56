#include "host/control/methods.h"

#include <unistd.h>

#include <algorithm>

#include "host/control/brought.h"
#include "host/io/reconnects.h"
#include "host/rpc/changes.h"
#include "host/rpc/rpc.h"
#include "platform/zel/core/trace.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/entity/pathwalker.h"
#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/lateness.h"

namespace Host {

namespace {

constexpr int kProtocol = 1;

// Entities that clients alone read.
const Zel::TypeRegistration typesOfClients{&Board::Brought::typeNode};

// How to reach the host that keeps the state: the rest of "unix:SOCKET".
std::string keeperHint(const std::string& url) {
  constexpr std::string_view kSocket = "unix:";
  return url.starts_with(kSocket) ? ", with pinlampctl --socket " + url.substr(kSocket.size()) : "";
}

// The path parameter; empty for everything.
const std::string& pathField(const Zel::Value& parameters) {
  const std::string& path = textField(parameters, "path");
  Zel::PathWalker::checkComponents(path);
  return path;
}

}  // namespace

Methods::Methods(Served& served)
    : served_(served),
      table_(served.store.table()),
      // The process that keeps the rows checks types.
      typeAt_([this](std::string_view path) {
        const auto known = table_ ? Statedb::Path::existing(path) : std::nullopt;
        return known ? table_->typeAt(*known) : Zel::Name();
      }) {}

std::span<const Methods::Method> Methods::table() {
  static const Method methods[] = {
      {"hello", false, {}, &Methods::hello},
      {"read", true, {"path", "layer"}, &Methods::read},
      {"write", false, {"changes", "durability"}, &Methods::write},
      {"begin", false, {"durability"}, &Methods::begin},
      {"commit", false, {}, &Methods::commit},
      {"rollback", false, {}, &Methods::rollback},
      {"watch", true, {"path", "own", "layer"}, &Methods::watch},
      {"unwatch", false, {"watch"}, &Methods::unwatch},
      {"announce", false, {"pid", "socket", "agents", "publishes", "ends", "covers"}, &Methods::announce},
      {"types", false, {}, &Methods::types},
      {"trace", false, {"levels"}, &Methods::trace},
      {"status", true, {}, &Methods::status},
      {"object", true, {"operation", "path", "arguments", "depth"}, &Methods::object},
  };
  return methods;
}

const Methods::Method& Methods::find(const std::string& name) {
  std::string names;
  for (const Method& method : table()) {
    if (method.name == name) return method;
    names += (names.empty() ? "" : ", ") + std::string(method.name);
  }
  throw RpcError(RpcCode::noSuchMethod,
                 "there is no method '" + Zel::excerpt(name) + "'; there are " + names);
}

std::string Methods::run(const Method& method, const Zel::Value& parameters, Caller& caller) const {
  try {
    expectFields(parameters, method.parameters);
    return (this->*method.run)(parameters, caller);
  } catch (const Zel::ValueError& error) {
    throw RpcError(RpcCode::badParameter, std::string(method.name) + ": " + error.what());
  } catch (const Statedb::RefusedError& error) {
    throw refusedFor({error.what()});
  } catch (const Statedb::StoreError& error) {
    throw RpcError(RpcCode::store, error.what());
  }
}

std::string Methods::hello(const Zel::Value&, Caller&) const {
  return jsonText(Json{{"name", "pinlampd"},
                       {"version", PINLAMP_VERSION},
                       {"protocol", kProtocol},
                       {"store", served_.store.url()}});
}

namespace {

enum class Rows : std::uint8_t { effective, base, covers };

// The layer that a request asks for.
Rows layerField(const Zel::Value& parameters) {
  const std::string& name = textField(parameters, "layer");
  if (name.empty() || name == "effective") return Rows::effective;
  if (name == "base") return Rows::base;
  if (name == "covers") return Rows::covers;
  throw Zel::ValueError("'layer': found \"" + Zel::excerpt(name) +
                        "\", expected \"effective\", \"base\" or \"covers\"");
}

Statedb::Records rowsAt(const Statedb::Table& table, Statedb::Path path, Rows rows) {
  return rows == Rows::effective ? table.read(path)
         : rows == Rows::base    ? table.readBase(path)
                                 : table.readCovers(path);
}

}  // namespace

// Everything under a path. The path is not interned.
std::string Methods::entitiesAt(const std::string& text, const Zel::Value& parameters) const {
  const Rows rows = layerField(parameters);
  expectTable("read");
  const auto path = Statedb::Path::existing(text);
  return path ? entitiesText(rowsAt(*table_, *path, rows)) : "[]";
}

void Methods::expectTable(const char* method) const {
  if (!table_)
    throw Statedb::StoreError(std::string(method) + ": the state is kept at " + served_.store.url() +
                              "; ask there" + keeperHint(served_.store.url()));
}

std::string Methods::read(const Zel::Value& parameters, Caller&) const {
  return "{\"entities\":" + entitiesAt(pathField(parameters), parameters) + '}';
}

std::string Methods::watch(const Zel::Value& parameters, Caller& caller) const {
  const std::string& path = pathField(parameters);
  const Rows rows = layerField(parameters);
  if (rows == Rows::covers)
    throw Zel::ValueError("'layer': covers can't be watched; read them, or watch \"effective\" or \"base\"");
  const std::string entities = entitiesAt(path, parameters);
  const bool own = flagField(parameters, "own", true);
  const auto id = caller.watches.add(path, rows == Rows::base ? Watches::Of::base
                                           : own              ? Watches::Of::all
                                                              : Watches::Of::others);
  if (!id)
    throw refusedFor({"watch: this connection has " + std::to_string(Watches::kMost) +
                      " watches, the most that one may have; unwatch some first"});
  return "{\"entities\":" + entities + ",\"watch\":" + std::to_string(*id) + '}';
}

std::string Methods::unwatch(const Zel::Value& parameters, Caller& caller) const {
  const Zel::Value* given = parameters.field("watch");
  if (!given) throw Zel::ValueError("'watch' is missing");
  const auto* id = given->as<std::int64_t>();
  if (!id || !caller.watches.del(static_cast<std::uint64_t>(*id)))
    throw Zel::ValueError("'watch': this connection has no watch " + Zel::excerpt(jsonText(*given)));
  return "{}";
}

std::string Methods::announce(const Zel::Value& parameters, Caller& caller) const {
  expectTable("announce");
  Announcement announcement = announcementFrom(parameters);
  if (!announcement.covers.empty() && !served_.store.takesCovers())
    throw refusedFor({"announce: this store has no covers: " + served_.store.url()});
  if (caller.pid != 0) announcement.pid = caller.pid;  // from the socket's credentials: can't be faked
  const Announcement before = caller.process.announcement();
  try {
    caller.process.announce(std::move(announcement));
    caller.removeRows(before, caller.process.announcement());
  } catch (const Zel::ValueError& error) {
    throw refusedFor({std::string("announce: ") + error.what()});
  }
  return "{}";
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

Json attributeJson(const Zel::AttributeInfo& attribute, Zel::AttributeIndex index) {
  Json parameters = Json::array();
  for (const auto& parameter : attribute.parameters)
    parameters.push_back({{"name", parameter.name}, {"type", typeText(parameter.type)}});
  return {{"name", attribute.name},
          {"index", index},
          {"kind", Zel::kindText(attribute.kind)},
          {"type", typeText(attribute.type)},
          {"operations", operationsJson(attribute.operations)},
          {"stored", attribute.stored},
          {"parameters", std::move(parameters)},
          {"member", attribute.memberType ? Json(attribute.memberType().name().stdString()) : Json()}};
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
  return {{"path", mount.path.text()},
          {"type", mount.type.stdString()},
          {"mode", mount.mode},
          {"complete", mount.complete}};
}

// The objects of each type in this process, and, if this process keeps the state database, its entities.
Json countsJson(const Statedb::Table* table) {
  auto entities = table ? table->entitiesByType() : std::unordered_map<Zel::Name, std::size_t>();
  Json types = Json::object();
  for (const Zel::TypeNode* type : Zel::typeNodes()) {
    const auto& allocations = type->allocations();
    if (allocations.total() == 0 && !entities.contains(type->name())) continue;
    Json& counts = types[type->name().stdString()];
    counts = {{"objects", allocations.objects()}, {"bytes", allocations.bytes()}};
    if (table && type->isA(Zel::Entity::typeNode())) counts["entities"] = entities[type->name()];
  }
  return types;
}

Json latenessJson() {
  const Zel::Lateness& lateness = Zel::Lateness::ofProcess();
  return {{"bounds", Zel::Lateness::kBounds}, {"counts", lateness.counts()}, {"sum", lateness.sum()}};
}

Json activityJson() {
  const auto& activity = Zel::activityManager();
  return {{"passes", activity.passes()},
          {"deliveries", activity.deliveries()},
          {"expiries", activity.clock()->expiries()},
          {"worstLateness", activity.clock()->worstLateness()},
          {"lateness", latenessJson()},
          {"now", Zel::System::currentTime()}};
}

Json stateJson(const Statedb::StoreState& state) {
  Json claims = Json::array();
  for (const auto& claim : state.claims)
    claims.push_back({{"mount", claim.mount},
                      {"who", claim.who},
                      {"own", claim.isOwn},
                      {"orphan", claim.isOrphan},
                      {"covers", claim.isOfCovers}});
  return {{"reached", state.isReached}, {"reason", state.reason}, {"claims", std::move(claims)}};
}

Json servedJson(const Served& served, std::size_t entities) {
  Json processes = Json::array();
  for (const auto* process : served.announcements.processes())
    if (process != &served.self) processes.push_back(announcementJson(process->announcement()));
  Json mounts = Json::array();
  for (const auto& mount : served.manager.mounts()) mounts.push_back(mountJson(mount));
  return {{"store", served.store.url()},
          {"agents", announcementJson(served.self.announcement())["agents"]},
          {"processes", std::move(processes)},
          {"mounts", std::move(mounts)},
          {"entities", entities},
          {"published", served.manager.published()},
          {"refusals", served.manager.refusals()},
          {"lastRefusal", served.lastRefusal},
          {"storeState", stateJson(served.store.state())},
          {"reconnects", Reconnects::count()},
          {"clients", served.clients},
          {"uptime", Zel::System::currentTime() - served.started}};
}

}  // namespace

std::string Methods::types(const Zel::Value&, Caller&) const {
  Json types = Json::array();
  for (const Zel::TypeNode* type : Zel::typeNodes()) types.push_back(typeJson(*type));
  return jsonText(Json{{"types", std::move(types)}});
}

namespace {

// Sets the levels of existing facilities; a client can't create one.
void setTraceLevels(const std::string& text) {
  const std::string facility = text.substr(0, text.find('/'));
  std::string names;
  for (const Zel::TraceFacility* each : Zel::TraceFacility::all())
    names += (names.empty() ? "" : ", ") + each->name();
  if (facility != text && !facility.empty() && !Zel::TraceFacility::existing(facility))
    throw Zel::ValueError("there is no facility '" + facility + "'; there is " +
                          (names.empty() ? "none" : names));
  Zel::traceLevelsIs(text);
}

}  // namespace

std::string Methods::trace(const Zel::Value& parameters, Caller&) const {
  if (parameters.field("levels")) {
    constexpr std::size_t kLongest = 255;
    const std::string& levels = boundedText(parameters, "levels", kLongest);
    try {
      setTraceLevels(levels);
    } catch (const Zel::ValueError& error) {
      throw refusedFor({std::string("trace: ") + error.what()});
    }
  }
  Json facilities = Json::object();
  for (const Zel::TraceFacility* facility : Zel::TraceFacility::all())
    facilities[facility->name()] = Zel::traceLevelsText(facility->mask());
  return jsonText(Json{{"facilities", std::move(facilities)}});
}

std::string Methods::status(const Zel::Value&, Caller&) const {
  Json status = {{"version", PINLAMP_VERSION},
                 {"pid", ::getpid()},
                 {"names", Zel::Name::count()},
                 {"types", countsJson(table_)}};
  status.update(activityJson());
  status.update(servedJson(served_, table_ ? table_->entities() : 0));
  return jsonText(status);
}

namespace {

Zel::Value::List argumentsField(const Zel::Value& parameters) {
  return parameters.field("arguments") ? listField(parameters, "arguments") : Zel::Value::List();
}

std::size_t depthField(const Zel::Value& parameters) {
  constexpr std::size_t kDepth = 16;
  const Zel::Value* given = parameters.field("depth");
  if (!given) return kDepth;
  const auto* depth = given->as<std::int64_t>();
  if (!depth || *depth < 0) throw Zel::ValueError("'depth': expected a whole number");
  return std::min(static_cast<std::size_t>(*depth), kDepth);
}

Zel::Value::Fields resultOf(const Zel::Value& value) { return {{"value", Objects::describe(value)}}; }

Zel::Value::Fields resultOf(Objects::Answer&& answer) {
  auto result = resultOf(answer.value);
  if (!answer.omitted.empty()) result.emplace_back("omitted", std::move(answer.omitted));
  return result;
}

Zel::Value::Fields resultOf(Objects::Listing&& listing) {
  return resultOf(Objects::Answer{std::move(listing.components), std::move(listing.omitted)});
}

// The operations of the generic interface, by name.
struct ObjectOperation {
  const char* name;
  Zel::Value::Fields (*run)(const Objects& objects, const std::string& path,
                            const Zel::Value::List& arguments, std::size_t depth);
};
constexpr ObjectOperation kObjectOperations[] = {
    {"tree", [](auto& on, auto& path, auto&, auto depth) { return resultOf(on.tree(path, depth)); }},
    {"list", [](auto& on, auto& path, auto&, auto) { return resultOf(on.list(path)); }},
    {"get", [](auto& on, auto& path, auto&, auto) { return resultOf(on.get(path)); }},
    {"set", [](auto& on, auto& path, auto& arguments, auto) { return resultOf(on.set(path, arguments)); }},
    {"delete", [](auto& on, auto& path, auto&, auto) { return resultOf(on.del(path)); }},
    {"iterate", [](auto& on, auto& path, auto&, auto) { return resultOf(on.iterate(path)); }},
    {"invoke", [](auto& on, auto& path, auto& given, auto) { return resultOf(on.call(path, given)); }},
};

}  // namespace

std::string Methods::object(const Zel::Value& parameters, Caller&) const {
  const std::string& name = textField(parameters, "operation");
  const auto operation = std::ranges::find(kObjectOperations, name, &ObjectOperation::name);
  if (operation == std::end(kObjectOperations))
    throw Zel::ValueError("'operation': found \"" + Zel::excerpt(name) +
                          "\", expected tree, list, get, set, delete, iterate or invoke");
  const std::string& path = textField(parameters, "path");
  Zel::PathWalker::checkComponents(path);
  const auto arguments = argumentsField(parameters);
  const std::size_t depth = depthField(parameters);
  try {
    return jsonText(Zel::Value(operation->run(served_.objects, path, arguments, depth)));
  } catch (const Zel::ValueError& error) {
    throw refusedFor({path + ": " + error.what()});
  } catch (const Zel::Exception& error) {
    throw refusedFor({path + ": " + error.what()});
  }
}

}  // namespace Host
