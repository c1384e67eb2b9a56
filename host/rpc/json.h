// Values, entities and changes as JSON: what the control socket speaks and what a store file keeps.
//
// What is read becomes the neutral value; what every event causes is written as text at once. The library's
// own tree of JSON serves for what is asked for now and then.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Host {

using Json = nlohmann::json;

// Reads one JSON text. Throws Zel::ValueError, which says what is wrong and at which byte, where the text is
// not JSON, is nested deeper than kJsonDepth, or has one name twice among the same fields. A whole number
// that is too large for one becomes a number.
inline constexpr int kJsonDepth = 64;
Zel::Value parseJson(std::string_view text);

// Appends a value. Numbers that JSON cannot hold become the texts "inf", "-inf" and "nan"; a reference to an
// object becomes {"object": PATH, "type": TYPE}, the path being null for what is no entity. Bytes that are
// not UTF-8 are replaced.
void appendJson(std::string& text, const Zel::Value& value);
std::string jsonText(const Zel::Value& value);
// On one line.
std::string jsonText(const Json& json);

// Reading fields by name. All throw Zel::ValueError, which names the field and says what would be right.
//
// Refuses anything but fields of these names.
void expectFields(const Zel::Value& value, std::initializer_list<std::string_view> known);
// Whether the text must be there; where it need not, the empty text stands for it.
enum class Needed { yes, no };
const std::string& textField(const Zel::Value& value, const char* name, Needed needed = Needed::no);
// A text of at most `longest` bytes.
const std::string& boundedText(const Zel::Value& value, const char* name, std::size_t longest,
                               Needed needed = Needed::no);
bool flagField(const Zel::Value& value, const char* name, bool otherwise);
const Zel::Value::List& listField(const Zel::Value& value, const char* name);

// Records as a list of entities: {"attributes", "path", "type"}.
std::string entitiesText(const Statedb::Records& records);
// The inverse, in the order of the list. Throws Zel::ValueError where an entity is not of that form.
std::vector<Statedb::Record> entityRecords(const Zel::Value& entities);

// Changes as a list of {"op": "put", …}, {"op": "unset", …} and {"op": "del", …}; puts that follow each other
// on one entity stand together.
std::string changesText(const Statedb::Changes& changes);
// The inverse. Every put must say its type. Throws Zel::ValueError.
Statedb::Changes changesFrom(const Zel::Value& changes);

// One step that a client asks for, read but not yet checked against anything. Points into the value that was
// read: nothing is interned before it is taken.
struct RequestedChange {
  Statedb::Change::Kind kind = Statedb::Change::Kind::put;
  std::string_view path{};
  std::string_view type{};       // empty where it was left out
  std::string_view attribute{};  // of an unset
  bool existing = false;
  const Zel::Value::Fields* attributes = nullptr;  // of the value that was read; null: none
};
// Throws Zel::ValueError, which names the field that is missing, unknown or of the wrong kind.
RequestedChange requestedChange(const Zel::Value& change);
// Appends the rows of a put of that type, or the one step that it is. Throws Zel::ValueError where the path
// or a name is beyond its limit.
void appendChanges(const RequestedChange& change, Zel::Name type, Statedb::Changes& changes);

}  // namespace Host
