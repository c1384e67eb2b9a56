// Entities and changes as JSON, on the control socket.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Host {

// Records as an array of entities: {"attributes", "path", "type"}.
std::string entitiesText(const Statedb::Records& records);
// The inverse, in the same order. Throws Zel::ValueError if an entity has another form or an empty type.
std::vector<Statedb::Record> entityRecords(const Zel::Value& entities);

// Changes as an array of {"op": "put", …}, {"op": "unset", …} and {"op": "del", …}; consecutive puts to one
// entity become one.
std::string changesText(const Statedb::Changes& changes);
// The inverse. Throws Zel::ValueError if a change has another form or a put lacks its type.
Statedb::Changes changesFrom(const Zel::Value& changes);

// One requested change, not yet checked. Points into the parsed value, so that names are interned only when
// the change is accepted.
struct RequestedChange {
  Statedb::Change::Kind kind = Statedb::Change::Kind::put;
  std::string_view path{};
  std::string_view type{};       // empty if omitted
  std::string_view attribute{};  // of an unset
  bool existing = false;
  const Zel::Value::Fields* attributes = nullptr;  // in the parsed value; null: none
};
// Throws Zel::ValueError, which names the missing, unknown or mistyped field.
RequestedChange requestedChange(const Zel::Value& change);
// Appends the rows of a put of that type, or the one change of another kind. Throws Zel::ValueError if the
// path or a name exceeds its limit.
void appendChanges(const RequestedChange& change, Zel::Name type, Statedb::Changes& changes);

}  // namespace Host
