#include "platform/statedb/store/path.h"

#include <algorithm>
#include <ostream>
#include <utility>
#include <vector>

#include "platform/zel/core/assert.h"
#include "platform/zel/core/lastseen.h"
#include "platform/zel/entity/entity.h"
#include "platform/zel/entity/pathwalker.h"
#include "platform/zel/notify/lookahead.h"
#include "platform/zel/object/value.h"

namespace Statedb {

// The tree of all paths. A path's number is its node's position.
struct PathTable {
  struct Node {
    Zel::Name component;
    Path parent;
    Path lastChild;
    Path next;  // the next sibling; a ring: the last points to the first
    std::uint32_t depth = 0;
  };

  std::vector<Node> nodes = std::vector<Node>(1);
  // An open-addressing hash table of children, by linear probing; a free place has the empty path. Comparing
  // the stored hash first avoids reading the node.
  struct Place {
    Path path;
    std::uint32_t hash = 0;
  };
  std::vector<Place> places = std::vector<Place>(1024);
  // By the string before the last '/': the next path mostly has the same parent.
  Zel::LastSeen<std::string, Path> lastParent;

  static PathTable& instance() {
    static PathTable& table = *new PathTable;  // never destroyed, as names
    return table;
  }

  const Node& operator[](Path path) const { return nodes[path.id_]; }

  // Keeps the low bits of the component's id: siblings whose names were interned one after another share
  // cache lines.
  static std::uint32_t hashOf(Path parent, Zel::Name component) {
    const std::uint64_t key = std::uint64_t{parent.id_} << 32 | component.id() >> 4;
    return static_cast<std::uint32_t>(key * 0x9E3779B97F4A7C15U >> 32 & ~std::uint64_t{15}) |
           (component.id() & 15U);
  }

  // The place of a child, or the free one for it.
  Place& place(Path parent, Zel::Name component, std::uint32_t hash) {
    std::size_t at = hash & (places.size() - 1);
    const auto isChild = [&](const Place& place) {
      if (place.hash != hash) return false;
      const Node& node = (*this)[place.path];
      return node.parent == parent && node.component == component;
    };
    while (!places[at].path.empty() && !isChild(places[at])) at = (at + 1) & (places.size() - 1);
    return places[at];
  }

  // Empty if there is none.
  Path find(Path parent, Zel::Name component) {
    return place(parent, component, hashOf(parent, component)).path;
  }

  Path make(Path parent, Zel::Name component) {
    if (nodes.size() >= places.size() / 4 * 3) grow();
    const std::uint32_t hash = hashOf(parent, component);
    Place& place = this->place(parent, component, hash);
    if (!place.path.empty()) return place.path;
    Path made;
    made.id_ = static_cast<std::uint32_t>(nodes.size());
    place = {made, hash};
    nodes.push_back({component, parent, {}, made, nodes[parent.id_].depth + 1});
    Path& last = nodes[parent.id_].lastChild;
    if (!last.empty()) nodes[made.id_].next = std::exchange(nodes[last.id_].next, made);
    last = made;
    return made;
  }

  void grow() {
    const auto old = std::exchange(places, std::vector<Place>(places.size() * 2));
    for (const Place& place : old) {
      if (place.path.empty()) continue;
      std::size_t at = place.hash & (places.size() - 1);
      while (!places[at].path.empty()) at = (at + 1) & (places.size() - 1);
      places[at] = place;
    }
  }

  // Resolves a path string component by component with `step`, which returns the empty path to stop.
  template <class Step>
  Path follow(std::string_view text, Step step) {
    if (text.empty()) return {};
    const std::size_t slash = text.rfind('/');
    if (slash == std::string_view::npos) return step(Path(), text);
    const std::string_view above = text.substr(0, slash);
    const Path* parent = lastParent.find(above);
    if (!parent) {
      const Path found = followAll(above, step);
      if (found.empty()) return {};
      parent = &lastParent.keep(above, found);
    }
    return step(*parent, text.substr(slash + 1));
  }

  template <class Step>
  static Path followAll(std::string_view text, Step step) {
    Path path;
    for (std::size_t at = 0; at <= text.size();) {
      const std::size_t end = std::min(text.find('/', at), text.size());
      path = step(path, text.substr(at, end - at));
      if (path.empty()) return {};
      at = end + 1;
    }
    return path;
  }
};

namespace {
PathTable& table() { return PathTable::instance(); }
}  // namespace

Path::Path(std::string_view text) {
  Zel::PathWalker::check(text);
  const auto step = [](Path parent, std::string_view component) {
    return table().make(parent, Zel::Name::escaped(component));
  };
  *this = table().follow(text, step);
}

std::optional<Path> Path::existing(std::string_view text) {
  if (text.empty()) return Path();
  if (text.size() > Zel::PathWalker::kLongest) return std::nullopt;
  const auto step = [](Path parent, std::string_view component) {
    const auto known = Zel::Name::existing(component);
    return known ? table().find(parent, *known) : Path();
  };
  const Path found = table().follow(text, step);
  if (found.empty()) return std::nullopt;
  return found;
}

std::size_t Path::count() { return table().nodes.size(); }

Path Path::parent() const {
  ZEL_REQUIRE(!empty(), id_);
  return table()[*this].parent;
}

Zel::Name Path::component() const {
  ZEL_REQUIRE(!empty(), id_);
  return table()[*this].component;
}

Path Path::child(Zel::Name component) const { return table().make(*this, component); }

Path Path::childNamed(Zel::Name name) const {
  const std::string_view text = name.view();
  if (Zel::isComponent(text)) return child(name);
  return child(Zel::Name(Zel::escapeComponent(text)));
}

unsigned Path::depth() const { return table()[*this].depth; }

bool Path::isUnder(Path above) const {
  if (above.empty()) return true;
  const PathTable& all = table();
  const std::uint32_t depth = all[above].depth;
  Path path = *this;
  while (all[path].depth > depth) path = all[path].parent;
  return path == above;
}

void Path::prefetch() const { Zel::prefetch(&table()[*this]); }

std::string Path::text() const {
  std::string text;
  text.reserve(64);
  appendTo(text);
  return text;
}

void Path::appendTo(std::string& text) const {
  if (empty()) return;
  const PathTable& all = table();
  std::size_t length = 0;
  for (Path each = *this; !each.empty(); each = all[each].parent)
    length += all[each].component.view().size() + 1;
  std::size_t at = text.size() + length;
  text.resize(at, '/');
  for (Path each = *this; !each.empty(); each = all[each].parent) {
    const std::string_view component = all[each].component.view();
    at -= component.size() + 1;
    component.copy(text.data() + at, component.size());
  }
  text.pop_back();
}

Path Path::firstChild() const {
  const Path last = table()[*this].lastChild;
  return last.empty() ? last : table()[last].next;
}

Path Path::nextSibling() const {
  const auto& node = table()[*this];
  return table()[node.parent].lastChild == *this ? Path() : node.next;
}

Path Path::nextUnder(Path above) const {
  Path next = firstChild();
  for (Path each = *this; next.empty() && each != above; each = each.parent()) next = each.nextSibling();
  return next;
}

bool readsBefore(Path a, Path b) {
  if (a == b) return false;
  const unsigned depth = std::min(a.depth(), b.depth());
  const bool above = a.depth() < b.depth();
  while (a.depth() > depth) a = a.parent();
  while (b.depth() > depth) b = b.parent();
  if (a == b) return above;
  while (a.parent() != b.parent()) {
    a = a.parent();
    b = b.parent();
  }
  return a.component() < b.component();
}

std::ostream& operator<<(std::ostream& out, Path path) { return out << path.text(); }

}  // namespace Statedb
