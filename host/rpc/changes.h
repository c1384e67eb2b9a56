// Entities and changes as JSON, on the control socket.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Host {

// Records as an array of entities: {"attributes", "path", "type"}.
std::string entitiesText(const Statedb::Records& records);
// The inverse, in the same order. Throws Zel::ValueError if an entity has another form.
std::vector<Statedb::Record> entityRecords(const Zel::Value& entities);

// Changes as an array of {"op": "put", …}, {"op": "unset", …} and {"op": "del", …}; consecutive puts to one
// entity become one.
std::string changesText(const Statedb::Changes& changes);
// The inverse. Every put must say its type. Throws Zel::ValueError.
Statedb::Changes changesFrom(const Zel::Value& changes);

// One change as a client asks for it, not yet checked. Points into the value that was read, so that names are
// interned only when the change is accepted.
struct RequestedChange {
  Statedb::Change::Kind kind = Statedb::Change::Kind::put;
  std::string_view path{};
  std::string_view type{};       // empty where it was left out
  std::string_view attribute{};  // of an unset
  bool existing = false;
  const Zel::Value::Fields* attributes = nullptr;  // of the value that was read; null: none
};
// Throws Zel::ValueError, which names the field that is missing, unknown or of the wrong type.
RequestedChange requestedChange(const Zel::Value& change);
// Appends the rows of a put of that type, or the one change of another kind. Throws Zel::ValueError if the
// path or a name exceeds its limit.
void appendChanges(const RequestedChange& change, Zel::Name type, Statedb::Changes& changes);

}  // namespace Host
