// Values, entities and changes as JSON: what the control socket speaks and what a store file keeps.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "platform/statedb/row.h"

namespace Host {

using Json = nlohmann::json;

// Numbers that JSON cannot hold become the texts "inf", "-inf" and "nan"; a reference to an object becomes
// {"object": PATH, "type": TYPE}, the path being null for what is no entity.
Json toJson(const Zel::Value& value);
// The inverse for everything but these: a text stays a text.
Zel::Value toValue(const Json& json);

// Reads one JSON text. Throws Zel::ValueError, which says what is wrong and at which byte, where the text is
// not JSON or is nested deeper than kJsonDepth.
inline constexpr int kJsonDepth = 64;
Json parseJson(std::string_view text);
// On one line; bytes that are not UTF-8 are replaced.
std::string jsonText(const Json& json);

// What a JSON value is, as a person says it.
const char* kindText(const Json& json);

// Reading fields by name. All throw Zel::ValueError, which names the field and says what would be right.
//
// Refuses anything but fields of these names.
void expectFields(const Json& json, std::initializer_list<std::string_view> known);
// Whether the text must be there; where it need not, the empty text stands for it.
enum class Needed { yes, no };
std::string textField(const Json& json, const char* name, Needed needed = Needed::no);
bool flagField(const Json& json, const char* name, bool otherwise);
const Json& listField(const Json& json, const char* name);

// Rows, sorted by path, as a list of entities: {"path", "type", "attributes"}.
Json entitiesJson(const std::vector<Statedb::Row>& rows);
// The inverse, in the order of the list. Throws Zel::ValueError where an entity is not of that form.
std::vector<Statedb::Row> entityRows(const Json& entities);

// Changes as a list of {"op": "put", …} and {"op": "del", …}; puts that follow each other on one entity stand
// together.
Json changesJson(const Statedb::Changes& changes);
// The inverse. Every put must say its type. Throws Zel::ValueError.
Statedb::Changes changesFromJson(const Json& changes);

// One step that a client asks for, read but not yet checked against anything.
struct RequestedChange {
  Statedb::Change::Kind kind = Statedb::Change::Kind::put;
  std::string path{};
  std::string type{};  // empty where it was left out
  bool existing = false;
  std::vector<Zel::Value::Field> attributes{};
};
// Throws Zel::ValueError, which names the field that is missing, unknown or of the wrong kind.
RequestedChange requestedChange(const Json& change);
// Appends the rows of a put of that type, or the del.
void appendChanges(const RequestedChange& change, const std::string& type, Statedb::Changes& changes);

}  // namespace Host
