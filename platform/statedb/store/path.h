// Paths of entities, interned: the keys of a state database.
//
// A Path is an index into one table a process: four bytes, compared and hashed as an integer. The table is a
// tree, so finding a parent, or whether one path is under another, reads no string. It counts the copies of a
// path and drops the path with the last of them and of those under it, so paths that come and go from outside
// cost nothing once they are gone.
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
#include <utility>

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
  Path(const Path& other) noexcept : id_(other.id_) { addUser(); }
  Path(Path&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  Path& operator=(const Path& other) noexcept {
    other.addUser();
    dropUser();
    id_ = other.id_;
    return *this;
  }
  Path& operator=(Path&& other) noexcept {
    std::swap(id_, other.id_);
    return *this;
  }
  constexpr ~Path() { dropUser(); }

  // The path of a string; nullopt if it is not in the table.
  static std::optional<Path> existing(std::string_view text);
  // Paths in the table.
  static std::size_t count();
  // Paths that were ever added to it.
  static std::uint64_t added();
  // One more than the greatest id() of any path so far.
  static std::size_t endOfIds();

  bool empty() const { return id_ == 0; }
  // The path without its last component. REQUIRES: !empty().
  Path parent() const;
  // The last component, still escaped. REQUIRES: !empty().
  Zel::Name component() const;
  // The path one component longer; the second takes a name and escapes it. Without limits, for agents' own
  // entities.
  Path child(const Zel::Name& component) const;
  Path childNamed(const Zel::Name& name) const;
  // Number of components.
  unsigned depth() const;
  // Whether it is `above` or under it.
  bool isUnder(const Path& above) const;

  // Prefetches what the functions above read.
  void prefetch() const;

  std::string text() const;
  void appendTo(std::string& text) const;

  // Dense: the id of a path that is gone is used again.
  std::uint32_t id() const { return id_; }

  // Steps of a walk over the whole table, from the root and back to it: next() has a path before those under
  // it, previous() after them. Whatever is added and dropped between two steps, a walk meets each path that
  // is in the table from its start to its end exactly once, because siblings stay in the order of their
  // creation and the copy that a walk holds keeps its place. Each takes constant time, averaged over a walk.
  Path next() const;
  Path previous() const;
  // The same as next() for a walk over what is at and under `above`, where it begins; empty at its end.
  Path nextUnder(const Path& above) const;

  // Calls `function` with this path and every path in the table under it, in preorder; siblings in order of
  // creation. `function` may destroy any copy of a path.
  template <class Function>
  void forEachUnder(Function&& function) const {
    const Path above = *this;
    function(above);
    for (Path each = above.firstChild(); !each.empty(); each = each.nextUnder(above)) function(each);
  }

  friend constexpr bool operator==(const Path& a, const Path& b) { return a.id_ == b.id_; }
  // By depth, then by id: a path's ancestors come first.
  friend std::strong_ordering operator<=>(const Path& a, const Path& b) {
    const auto byDepth = a.depth() <=> b.depth();
    return byDepth == 0 ? a.id_ <=> b.id_ : byDepth;
  }

 private:
  friend struct PathTable;

  constexpr void addUser() const noexcept {
    if (id_ != 0) addUser(id_);
  }
  constexpr void dropUser() const noexcept {
    if (id_ != 0) dropUser(id_);
  }
  static void addUser(std::uint32_t id) noexcept;
  static void dropUser(std::uint32_t id) noexcept;
  Path firstChild() const;

  std::uint32_t id_ = 0;
};

// Alphabetical order by component; a parent comes before its children.
ZEL_API bool readsBefore(const Path& a, const Path& b);

ZEL_API std::ostream& operator<<(std::ostream& out, const Path& path);

}  // namespace Statedb

template <>
struct std::hash<Statedb::Path> {
  std::size_t operator()(const Statedb::Path& path) const {
    return path.id() * std::size_t{0x9E3779B97F4A7C15};
  }
};
