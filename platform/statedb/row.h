// The rows of a state database.
#pragma once

#include <vector>

#include "platform/statedb/path.h"
#include "platform/zel/name.h"
#include "platform/zel/value.h"

namespace Statedb {

// One attribute of one entity. The row whose attribute is empty says that the entity is there (its value is
// null); every entity has one.
struct Row {
  Path path;
  Zel::Name type;
  Zel::Name attribute;
  Zel::Value value;
  bool operator==(const Row&) const = default;
};

struct Attribute {
  Zel::Name name;
  Zel::Value value;
  bool operator==(const Attribute&) const = default;
};

// All rows of one entity.
struct Record {
  Path path;
  Zel::Name type;
  std::vector<Attribute> attributes;  // in the order in which they were first set

  // Null where the attribute was never set.
  const Zel::Value* find(Zel::Name attribute) const {
    for (const Attribute& each : attributes)
      if (each.name == attribute) return &each.value;
    return nullptr;
  }
  bool operator==(const Record&) const = default;
};
// Records where they are kept: good until what keeps them changes.
using Records = std::vector<const Record*>;

// One step of a batch.
struct Change {
  enum class Kind { put, del };
  Kind kind = Kind::put;
  // put: the row to store. del: `path` alone counts; the entity and everything under it goes.
  Row row;
  bool operator==(const Change&) const = default;

  static Change put(Path path, Zel::Name type, Zel::Name attribute, Zel::Value value) {
    return {Kind::put, {path, type, attribute, std::move(value)}};
  }
  static Change del(Path path) { return {Kind::del, {path, {}, {}, {}}}; }
};
using Changes = std::vector<Change>;

// Empties a list that is filled again and again. It keeps room for what one pass usually brings, not for a
// whole start.
template <class List>
void clearKeeping(List& list) {
  constexpr std::size_t kUsual = 1024;
  if (list.capacity() > kUsual)
    list = List();
  else
    list.clear();
}

// Whether a change touches anything at or under `path`.
inline bool concerns(const Change& change, Path path) {
  return change.row.path.isUnder(path) || (change.kind == Change::Kind::del && path.isUnder(change.row.path));
}

}  // namespace Statedb
