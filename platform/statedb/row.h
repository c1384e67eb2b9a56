// The rows of a state database.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/zel/value.h"

namespace Statedb {

// One attribute of one entity. The row whose attribute is empty says that the entity is there (its value is
// null); every entity has one. Paths are escaped components joined by '/', without a slash at either end.
struct Row {
  std::string path;
  std::string type;
  std::string attribute;
  Zel::Value value;
  bool operator==(const Row&) const = default;
};

// One step of a batch.
struct Change {
  enum class Kind { put, del };
  Kind kind = Kind::put;
  // put: the row to store. del: `path` alone counts; the entity and everything under it goes.
  Row row;
  bool operator==(const Change&) const = default;

  static Change put(std::string path, std::string type, std::string attribute, Zel::Value value) {
    return {Kind::put, {std::move(path), std::move(type), std::move(attribute), std::move(value)}};
  }
  static Change del(std::string path) { return {Kind::del, {std::move(path), {}, {}, {}}}; }
};
using Changes = std::vector<Change>;

// Whether `path` is `above` or stands under it. Everything stands under the empty path.
inline bool isUnder(std::string_view path, std::string_view above) {
  return above.empty() ||
         (path.starts_with(above) && (path.size() == above.size() || path[above.size()] == '/'));
}

// Whether a change touches anything at or under `path`.
inline bool concerns(const Change& change, std::string_view path) {
  return isUnder(change.row.path, path) ||
         (change.kind == Change::Kind::del && isUnder(path, change.row.path));
}

}  // namespace Statedb
