// The rows of a state database.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/statedb/store/path.h"
#include "platform/zel/core/name.h"
#include "platform/zel/object/value.h"

namespace Statedb {

// One attribute of one entity. Every entity also has a row with an empty attribute and a null value, for its
// existence.
struct Row {
  Path path;
  Zel::Name type;
  Zel::Name attribute;
  Zel::Value value;
  bool operator==(const Row&) const = default;
};

// A value's lifetime: that of the store, or that of the publishing process (volatile values and covers, which
// are never written to disk).
enum class Durability : std::uint8_t { stored, volatile_, cover };

// The layer of the rows that a reader sees.
enum class Layer : std::uint8_t {
  effective,  // covers over the base
  base,       // stored and volatile values, as if there were no covers
};

struct Attribute {
  Attribute(const Zel::Name& theName, Zel::Value theValue, Durability theDurability = Durability::stored)
      : name(theName), durability(theDurability), value(std::move(theValue)) {}

  Zel::Name name;
  Durability durability;
  Zel::Value value;
  bool operator==(const Attribute&) const = default;
};

// All rows of one entity.
struct Record {
  Path path;
  Zel::Name type;
  std::vector<Attribute> attributes;  // in the order in which they were first set

  // Null if the attribute is not set.
  const Zel::Value* find(const Zel::Name& attribute) const {
    for (const Attribute& each : attributes)
      if (each.name == attribute) return &each.value;
    return nullptr;
  }
  bool operator==(const Record&) const = default;
};
// Not owned: valid until their store changes.
using Records = std::vector<const Record*>;

// One step of a batch.
struct Change {
  enum class Kind : std::uint8_t { put, del, unset };
  Kind kind = Kind::put;
  // put: the row to store. del: only `path` is used; removes the entity and everything under it. unset: only
  // `path` and `attribute` are used; removes the attribute's value.
  Row row;
  bool operator==(const Change&) const = default;

  static Change put(Path path, Zel::Name type, Zel::Name attribute, Zel::Value value) {
    return {Kind::put, {std::move(path), std::move(type), std::move(attribute), std::move(value)}};
  }
  static Change del(Path path) { return {Kind::del, {std::move(path), {}, {}, {}}}; }
  static Change unset(Path path, Zel::Name attribute) {
    return {Kind::unset, {std::move(path), {}, std::move(attribute), {}}};
  }
};
using Changes = std::vector<Change>;

// Clears a vector that is refilled every pass. Keeps capacity for a usual pass, not for a whole start-up.
template <class List>
void clearKeeping(List& list) {
  constexpr std::size_t kUsual = 1024;
  if (list.capacity() > kUsual)
    list = List();
  else
    list.clear();
}

// Whether a change touches anything at or under `path`.
inline bool concerns(const Change& change, const Path& path) {
  return change.row.path.isUnder(path) || (change.kind == Change::Kind::del && path.isUnder(change.row.path));
}

// Calls `take` with the part of a batch that concerns `path`, if any. A del above the path becomes a del of
// the path, so that the subscriber removes nothing outside it.
template <class Take>
void takePart(const Changes& changes, const Path& path, Take&& take) {
  Path last;  // a memo, because the rows of an entity are mostly together
  bool isLastWithin = path.empty();
  const auto isWithin = [&](const Change& change) {
    if (change.row.path != last) isLastWithin = (last = change.row.path).isUnder(path);
    return isLastWithin;
  };
  const auto within = static_cast<std::size_t>(std::count_if(changes.begin(), changes.end(), isWithin));
  if (within == changes.size() && within > 0) return take(changes);
  Changes part;
  part.reserve(within);
  for (const Change& change : changes)
    if (isWithin(change))
      part.push_back(change);
    else if (concerns(change, path))
      part.push_back(Change::del(path));
  if (!part.empty()) take(std::as_const(part));
}

// Splits a batch of at least two changes in two, to be applied in order.
inline std::pair<Changes, Changes> halves(const Changes& changes) {
  const auto middle = changes.begin() + static_cast<std::ptrdiff_t>(changes.size() / 2);
  return {{changes.begin(), middle}, {middle, changes.end()}};
}

}  // namespace Statedb
