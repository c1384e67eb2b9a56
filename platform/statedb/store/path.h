// Paths of entities, interned: the keys of a state database.
//
// A Path is a number into one table a process: four bytes, copied, compared and hashed as an integer. The
// table is a tree, so what stands above a path, and whether one path stands under another, is found without
// touching a text. A path that was made once stays in the table for the life of the process; code that looks
// up a text from outside uses Path::existing, which adds nothing.
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

// Components joined by '/'. Any text within the limits is a path; whether its components are escaped as they
// should be, and lead anywhere, is checked where rows are checked.
class ZEL_API Path {
 public:
  constexpr Path() = default;  // the empty path, which everything stands under
  // Throw ValueError if a text exceeds the limits of PathWalker; nothing is added to the table then.
  Path(const char* text) : Path(std::string_view(text)) {}
  Path(const std::string& text) : Path(std::string_view(text)) {}
  explicit Path(std::string_view text);

  // The path of a text that is in the table; nothing where it was never made.
  static std::optional<Path> existing(std::string_view text);
  // How many paths there are or have been.
  static std::size_t count();

  bool empty() const { return id_ == 0; }
  // The path without its last component. REQUIRES: !empty().
  Path parent() const;
  // The last component as it is written, escaped. REQUIRES: !empty().
  Zel::Name component() const;
  // The path one component longer; the second takes a name and escapes it. Not limited: agents make as many
  // entities as they want.
  Path child(Zel::Name component) const;
  Path childNamed(Zel::Name name) const;
  // How many components it has.
  unsigned depth() const;
  // Whether it is `above` or stands under it.
  bool isUnder(Path above) const;

  // Prefetches what the functions above read.
  void prefetch() const;

  std::string text() const;
  void appendTo(std::string& text) const;

  // The smallest numbers that do: those of `count()` paths are below it. What stands under a path has a
  // greater number than the path.
  std::uint32_t id() const { return id_; }

  // Calls `function` with this path and with every path that was ever made under it, each before those under
  // itself, those beside each other in the order of making.
  template <class Function>
  void forEachUnder(Function&& function) const {
    function(*this);
    for (Path each = firstChild(); !each.empty(); each = each.nextUnder(*this)) function(each);
  }

  friend constexpr bool operator==(Path a, Path b) { return a.id_ == b.id_; }
  // In the order of making, so what stands above comes first.
  friend constexpr std::strong_ordering operator<=>(Path a, Path b) { return a.id_ <=> b.id_; }

 private:
  friend struct PathTable;

  Path firstChild() const;
  Path nextSibling() const;          // empty: there is none
  Path nextUnder(Path above) const;  // in a walk of what stands under `above`; empty: this is the last

  std::uint32_t id_ = 0;
};

// As a person reads a list: what stands above first, then by the texts of the components.
ZEL_API bool readsBefore(Path a, Path b);

ZEL_API std::ostream& operator<<(std::ostream& out, Path path);

}  // namespace Statedb

template <>
struct std::hash<Statedb::Path> {
  std::size_t operator()(Statedb::Path path) const { return path.id() * std::size_t{0x9E3779B97F4A7C15}; }
};
