// Paths of entities, interned: the keys of a state database.
//
// A Path is an index into one table a process: four bytes, copied, compared and hashed as an integer. The
// table is a tree, so finding a parent, or whether one path is under another, reads no string. A path stays
// in the table for the life of the process; look up strings from outside with Path::existing, which adds
// nothing.
//
// Activity thread only.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"

namespace Statedb {

// Components joined by '/'. Any string within the limits is a path; schema.h checks whether its components
// are escaped correctly and lead anywhere.
class ZEL_API Path {
 public:
  constexpr Path() = default;  // the empty path: the root
  // Throw ValueError, and add nothing to the table, if a string exceeds the limits of PathWalker.
  Path(const char* text) : Path(std::string_view(text)) {}
  Path(const std::string& text) : Path(std::string_view(text)) {}
  explicit Path(std::string_view text);

  // The path of a string; nullopt if it is not in the table.
  static std::optional<Path> existing(std::string_view text);
  // Paths in the table.
  static std::size_t count();

  bool empty() const { return id_ == 0; }
  // The path without its last component. REQUIRES: !empty().
  Path parent() const;
  // The last component, still escaped. REQUIRES: !empty().
  Zel::Name component() const;
  // The path one component longer; the second takes a name and escapes it. Without limits, for agents' own
  // entities.
  Path child(Zel::Name component) const;
  Path childNamed(Zel::Name name) const;
  // Number of components.
  unsigned depth() const;
  // Whether it is `above` or under it.
  bool isUnder(Path above) const;

  // Prefetches what the functions above read.
  void prefetch() const;

  std::string text() const;
  void appendTo(std::string& text) const;

  // Dense: from 0 to count() - 1. A path's descendants have greater ids than the path.
  std::uint32_t id() const { return id_; }
  // REQUIRES: id < count().
  static constexpr Path ofId(std::uint32_t id) {
    Path path;
    path.id_ = id;
    return path;
  }

  // Calls `function` with this path and every path in the table under it, in preorder; siblings in order of
  // creation.
  template <class Function>
  void forEachUnder(Function&& function) const {
    function(*this);
    for (Path each = firstChild(); !each.empty(); each = each.nextUnder(*this)) function(each);
  }

  friend constexpr bool operator==(Path a, Path b) { return a.id_ == b.id_; }
  // By order of creation: a path's ancestors come first.
  friend constexpr std::strong_ordering operator<=>(Path a, Path b) { return a.id_ <=> b.id_; }

 private:
  friend struct PathTable;

  Path firstChild() const;
  Path nextSibling() const;          // empty: there is none
  Path nextUnder(Path above) const;  // the next in a preorder walk under `above`; empty: this is the last

  std::uint32_t id_ = 0;
};

// Alphabetical order by component; a parent comes before its children.
ZEL_API bool readsBefore(Path a, Path b);

ZEL_API std::ostream& operator<<(std::ostream& out, Path path);

}  // namespace Statedb

template <>
struct std::hash<Statedb::Path> {
  std::size_t operator()(Statedb::Path path) const { return path.id() * std::size_t{0x9E3779B97F4A7C15}; }
};
