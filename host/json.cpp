#include "host/json.h"

#include <algorithm>
#include <cmath>

#include "platform/zel/entity.h"
#include "platform/zel/type.h"

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Row;
using Zel::Value;
using Zel::ValueError;

namespace {

Json objectJson(const Value::Object& object) {
  if (!object.pointer) return nullptr;
  const auto* entity = dynamic_cast<const Zel::Entity*>(object.pointer.get());
  return {{"object", entity ? Json(entity->path()) : Json()},
          {"type", object.pointer->fwkType().name().stdString()}};
}

struct ToJson {
  Json operator()(std::monostate) const { return nullptr; }
  Json operator()(bool value) const { return value; }
  Json operator()(std::int64_t value) const { return value; }
  Json operator()(double value) const {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    return value;
  }
  Json operator()(const std::string& value) const { return value; }
  Json operator()(const Value::List& list) const {
    Json json = Json::array();
    for (const Value& value : list) json.push_back(toJson(value));
    return json;
  }
  Json operator()(const Value::Fields& fields) const {
    Json json = Json::object();
    for (const auto& [name, value] : fields) json[name] = toJson(value);
    return json;
  }
  Json operator()(const Value::Object& object) const { return objectJson(object); }
};

}  // namespace

Json toJson(const Value& value) { return value.visit(ToJson{}); }

Value toValue(const Json& json) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return json.get<bool>();
    case Json::value_t::number_integer:
      return json.get<std::int64_t>();
    case Json::value_t::number_unsigned:
      if (json.get<std::uint64_t>() <= INT64_MAX) return json.get<std::int64_t>();
      return json.get<double>();
    case Json::value_t::number_float:
      return json.get<double>();
    case Json::value_t::string:
      return json.get<std::string>();
    case Json::value_t::array: {
      Value::List list;
      for (const Json& each : json) list.push_back(toValue(each));
      return list;
    }
    case Json::value_t::object: {
      Value::Fields fields;
      for (const auto& [name, each] : json.items()) fields.emplace_back(name, toValue(each));
      return fields;
    }
    default:
      return {};
  }
}

Json parseJson(std::string_view text) {
  const auto watchDepth = [](int depth, Json::parse_event_t, Json&) {
    if (depth <= kJsonDepth) return true;
    throw ValueError("nested deeper than " + std::to_string(kJsonDepth) + " levels");
  };
  try {
    return Json::parse(text, watchDepth);
  } catch (const Json::parse_error& error) {
    throw ValueError("not JSON at byte " + std::to_string(error.byte));
  } catch (const Json::out_of_range&) {
    throw ValueError("not JSON: a number is out of range");
  }
}

std::string jsonText(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

const char* kindText(const Json& json) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return "true or false";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float:
      return "a number";
    case Json::value_t::string:
      return "a text";
    case Json::value_t::array:
      return "a list";
    case Json::value_t::object:
      return "fields";
    default:
      return "null";
  }
}

namespace {

[[noreturn]] void throwWrongKind(const std::string& what, const Json& found, const char* wanted) {
  throw ValueError(what + "found " + kindText(found) + ", wanted " + wanted);
}

std::string inQuotes(std::string_view name) { return "'" + std::string(name) + "'"; }

// The field of that name; null where it is left out and may be.
const Json* fieldOf(const Json& json, const char* name, Needed needed) {
  const auto found = json.find(name);
  if (found != json.end()) return &*found;
  if (needed == Needed::yes) throw ValueError(inQuotes(name) + " is missing");
  return nullptr;
}

}  // namespace

void expectFields(const Json& json, std::initializer_list<std::string_view> known) {
  if (!json.is_object()) throwWrongKind("", json, "fields by name");
  for (const auto& [name, value] : json.items()) {
    if (std::ranges::find(known, std::string_view(name)) != known.end()) continue;
    std::string names;
    for (const std::string_view each : known) names += (names.empty() ? "" : ", ") + std::string(each);
    throw ValueError(inQuotes(name) + " is unknown; known: " + (names.empty() ? "none" : names));
  }
}

std::string textField(const Json& json, const char* name, Needed needed) {
  const Json* field = fieldOf(json, name, needed);
  if (!field) return {};
  if (!field->is_string()) throwWrongKind(inQuotes(name) + ": ", *field, "a text");
  return field->get<std::string>();
}

bool flagField(const Json& json, const char* name, bool otherwise) {
  const Json* field = fieldOf(json, name, Needed::no);
  if (!field) return otherwise;
  if (!field->is_boolean()) throwWrongKind(inQuotes(name) + ": ", *field, "true or false");
  return field->get<bool>();
}

const Json& listField(const Json& json, const char* name) {
  const Json& field = *fieldOf(json, name, Needed::yes);
  if (!field.is_array()) throwWrongKind(inQuotes(name) + ": ", field, "a list");
  return field;
}

namespace {

std::vector<Value::Field> attributesField(const Json& json) {
  std::vector<Value::Field> attributes;
  const Json* field = fieldOf(json, "attributes", Needed::no);
  if (!field) return attributes;
  if (!field->is_object()) throwWrongKind("'attributes': ", *field, "fields by name");
  for (const auto& [name, value] : field->items()) {
    if (name.empty()) throw ValueError("'attributes': the name of an attribute is empty");
    attributes.emplace_back(name, toValue(value));
  }
  return attributes;
}

Json entityJson(const Row& row) {
  return {{"path", row.path}, {"type", row.type}, {"attributes", Json::object()}};
}

// Whether the row goes on with the entity that the last item of the list is about.
bool goesOn(const Json& list, const Row& row) {
  return !list.empty() && list.back().contains("type") && list.back()["path"] == row.path &&
         list.back()["type"] == row.type;
}

void addAttribute(Json& entity, const Row& row) {
  if (!row.attribute.empty()) entity["attributes"][row.attribute] = toJson(row.value);
}

}  // namespace

Json entitiesJson(const std::vector<Row>& rows) {
  Json entities = Json::array();
  for (const Row& row : rows) {
    if (!goesOn(entities, row)) entities.push_back(entityJson(row));
    addAttribute(entities.back(), row);
  }
  return entities;
}

std::vector<Row> entityRows(const Json& entities) {
  Changes changes;
  for (const Json& entity : entities) {
    expectFields(entity, {"path", "type", "attributes"});
    appendChanges({.path = textField(entity, "path", Needed::yes), .attributes = attributesField(entity)},
                  textField(entity, "type", Needed::yes), changes);
  }
  std::vector<Row> rows;
  for (Change& change : changes) rows.push_back(std::move(change.row));
  return rows;
}

Json changesJson(const Changes& changes) {
  Json list = Json::array();
  for (const Change& change : changes) {
    if (change.kind == Change::Kind::del) {
      list.push_back({{"op", "del"}, {"path", change.row.path}});
      continue;
    }
    if (!goesOn(list, change.row)) {
      list.push_back(entityJson(change.row));
      list.back()["op"] = "put";
    }
    addAttribute(list.back(), change.row);
  }
  return list;
}

Changes changesFromJson(const Json& list) {
  Changes changes;
  for (const Json& each : list) {
    const RequestedChange change = requestedChange(each);
    if (change.kind == Change::Kind::put && change.type.empty()) throw ValueError("'type' is missing");
    appendChanges(change, change.type, changes);
  }
  return changes;
}

RequestedChange requestedChange(const Json& json) {
  expectFields(json, {"op", "path", "type", "attributes", "existing"});
  const std::string op = textField(json, "op", Needed::yes);
  if (op == "del") {
    expectFields(json, {"op", "path"});
    return {.kind = Change::Kind::del, .path = textField(json, "path", Needed::yes)};
  }
  if (op != "put") throw ValueError("'op': found \"" + op + "\", wanted \"put\" or \"del\"");
  return {.path = textField(json, "path", Needed::yes),
          .type = textField(json, "type"),
          .existing = flagField(json, "existing", false),
          .attributes = attributesField(json)};
}

void appendChanges(const RequestedChange& change, const std::string& type, Changes& changes) {
  if (change.kind == Change::Kind::del) return changes.push_back(Change::del(change.path));
  changes.push_back(Change::put(change.path, type, "", {}));
  for (const auto& [name, value] : change.attributes)
    changes.push_back(Change::put(change.path, type, name, value));
}

}  // namespace Host
