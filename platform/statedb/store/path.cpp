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

// The tree of all paths. A path's number is its node's position. Internally a node is a number, which counts
// nothing.
struct PathTable {
  using Id = std::uint32_t;
  struct Node {
    Zel::Name component;
    Id parent = 0;
    Id lastChild = 0;
    Id next = 0;  // siblings: a ring, doubly linked. Of a free node: the next free one, 0 for none
    Id previous = 0;
    std::uint32_t depth = 0;
    std::uint32_t users = 0;  // copies of the path, and children
  };

  std::vector<Node> nodes = std::vector<Node>(1);
  Id firstFree = 0;
  std::size_t count = 1;
  std::uint64_t added = 1;
  // An open-addressing hash table of children, by linear probing; 0: a free place. Comparing the stored hash
  // first avoids reading the node.
  struct Place {
    Id id = 0;
    std::uint32_t hash = 0;
  };
  std::vector<Place> places = std::vector<Place>(1024);
  // By the string before the last '/': the next path mostly has the same parent.
  Zel::LastSeen<std::string, Path> lastParent;

  static PathTable& instance() {
    static PathTable& table = *new PathTable;  // never destroyed, as names
    return table;
  }

  const Node& operator[](const Path& path) const { return nodes[path.id_]; }
  // Counts a copy.
  Path pathOf(Id id) {
    Path path;
    path.id_ = id;
    if (id != 0) ++nodes[id].users;
    return path;
  }

  // Keeps the low bits of the component's id: siblings whose names were interned one after another share
  // cache lines.
  static std::uint32_t hashOf(Id parent, const Zel::Name& component) {
    const std::uint64_t key = std::uint64_t{parent} << 32 | component.id() >> 4;
    return static_cast<std::uint32_t>(key * 0x9E3779B97F4A7C15U >> 32 & ~std::uint64_t{15}) |
           (component.id() & 15U);
  }

  std::size_t wrapped(std::size_t at) const { return at & (places.size() - 1); }

  // The place of a child, or the free one for it.
  Place& place(Id parent, const Zel::Name& component, std::uint32_t hash) {
    std::size_t at = wrapped(hash);
    const auto isChild = [&](const Place& place) {
      if (place.hash != hash) return false;
      const Node& node = nodes[place.id];
      return node.parent == parent && node.component == component;
    };
    while (places[at].id != 0 && !isChild(places[at])) at = wrapped(at + 1);
    return places[at];
  }

  // Empty if there is none.
  Path find(const Path& parent, const Zel::Name& component) {
    return pathOf(place(parent.id_, component, hashOf(parent.id_, component)).id);
  }

  Path make(const Path& parent, const Zel::Name& component) {
    if (count >= places.size() / 4 * 3) grow();
    const std::uint32_t hash = hashOf(parent.id_, component);
    Place& place = this->place(parent.id_, component, hash);
    if (place.id == 0) place = {append(parent.id_, component), hash};
    return pathOf(place.id);
  }

  Id append(Id parent, const Zel::Name& component) {
    if (firstFree == 0) nodes.emplace_back();
    const Id made = firstFree == 0 ? static_cast<Id>(nodes.size() - 1) : firstFree;
    Node& node = nodes[made];
    if (firstFree != 0) firstFree = node.next;
    node = {component, parent, 0, made, made, nodes[parent].depth + 1, 0};
    ++nodes[parent].users;
    ++count;
    ++added;
    link(made);
    return made;
  }

  // As the last child of its parent.
  void link(Id made) {
    const Id last = std::exchange(nodes[nodes[made].parent].lastChild, made);
    if (last == 0) return;
    const Id first = std::exchange(nodes[last].next, made);
    nodes[first].previous = made;
    nodes[made].next = first;
    nodes[made].previous = last;
  }
  void unlink(Id id) {
    const Node& node = nodes[id];
    nodes[node.previous].next = node.next;
    nodes[node.next].previous = node.previous;
    Id& last = nodes[node.parent].lastChild;
    if (last == id) last = node.previous == id ? 0 : node.previous;
  }

  // Removes a node without users, and its ancestors that then have none.
  void drop(Id id) {
    while (id != 0 && --nodes[id].users == 0) {
      Node& node = nodes[id];
      takePlace(place(node.parent, node.component, hashOf(node.parent, node.component)));
      unlink(id);
      node.component = {};
      node.next = std::exchange(firstFree, id);
      --count;
      id = node.parent;
    }
  }

  // Moves back what follows, so that no probe ends early.
  void takePlace(const Place& taken) {
    auto gap = static_cast<std::size_t>(&taken - places.data());
    for (std::size_t at = wrapped(gap + 1); places[at].id != 0; at = wrapped(at + 1))
      if (wrapped(at - places[at].hash) >= wrapped(at - gap)) places[std::exchange(gap, at)] = places[at];
    places[gap] = {};
  }

  void grow() {
    const auto old = std::exchange(places, std::vector<Place>(places.size() * 2));
    for (const Place& place : old) {
      if (place.id == 0) continue;
      std::size_t at = wrapped(place.hash);
      while (places[at].id != 0) at = wrapped(at + 1);
      places[at] = place;
    }
  }

  Id firstChild(Id id) const { return nodes[id].lastChild == 0 ? 0 : nodes[nodes[id].lastChild].next; }
  // The next in a preorder walk; 0 at its end.
  Id nextUnder(Id id, Id above) const {
    if (const Id child = firstChild(id)) return child;
    for (; id != above; id = nodes[id].parent)
      if (nodes[nodes[id].parent].lastChild != id) return nodes[id].next;
    return 0;
  }

  // The one before it; before the root comes the last of all.
  Id previous(Id id) const {
    if (id != 0 && firstChild(nodes[id].parent) == id) return nodes[id].parent;
    Id last = id == 0 ? 0 : nodes[id].previous;
    while (nodes[last].lastChild != 0) last = nodes[last].lastChild;
    return last;
  }

  Id ancestor(Id id, std::uint32_t depth) const {
    while (nodes[id].depth > depth) id = nodes[id].parent;
    return id;
  }
  // REQUIRES: they differ.
  bool readsBefore(Id a, Id b) const {
    const std::uint32_t depth = std::min(nodes[a].depth, nodes[b].depth);
    const bool isAbove = nodes[a].depth < nodes[b].depth;
    a = ancestor(a, depth);
    b = ancestor(b, depth);
    if (a == b) return isAbove;
    while (nodes[a].parent != nodes[b].parent) {
      a = nodes[a].parent;
      b = nodes[b].parent;
    }
    return nodes[a].component < nodes[b].component;
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
      Path found = followAll(above, step);
      if (found.empty()) return {};
      parent = &lastParent.keep(above, std::move(found));
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
  const auto step = [](const Path& parent, std::string_view component) {
    return table().make(parent, Zel::Name::escaped(component));
  };
  *this = table().follow(text, step);
}

std::optional<Path> Path::existing(std::string_view text) {
  if (text.empty()) return Path();
  if (text.size() > Zel::PathWalker::kLongest) return std::nullopt;
  const auto step = [](const Path& parent, std::string_view component) {
    const auto known = Zel::Name::existing(component);
    return known ? table().find(parent, *known) : Path();
  };
  Path found = table().follow(text, step);
  if (found.empty()) return std::nullopt;
  return found;
}

void Path::addUser(std::uint32_t id) noexcept { ++table().nodes[id].users; }

void Path::dropUser(std::uint32_t id) noexcept { table().drop(id); }

std::size_t Path::count() { return table().count; }

std::uint64_t Path::added() { return table().added; }

std::size_t Path::endOfIds() { return table().nodes.size(); }

Path Path::parent() const {
  ZEL_REQUIRE(!empty(), id_);
  return table().pathOf(table()[*this].parent);
}

Zel::Name Path::component() const {
  ZEL_REQUIRE(!empty(), id_);
  return table()[*this].component;
}

Path Path::child(const Zel::Name& component) const { return table().make(*this, component); }

Path Path::childNamed(const Zel::Name& name) const {
  const std::string_view text = name.view();
  if (Zel::isComponent(text)) return child(name);
  return child(Zel::Name::escaped(Zel::escapeComponent(text)));
}

unsigned Path::depth() const { return table()[*this].depth; }

bool Path::isUnder(const Path& above) const {
  return above.empty() || table().ancestor(id_, table()[above].depth) == above.id_;
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
  for (std::uint32_t each = id_; each != 0; each = all.nodes[each].parent)
    length += all.nodes[each].component.view().size() + 1;
  std::size_t at = text.size() + length;
  text.resize(at, '/');
  for (std::uint32_t each = id_; each != 0; each = all.nodes[each].parent) {
    const std::string_view component = all.nodes[each].component.view();
    at -= component.size() + 1;
    component.copy(text.data() + at, component.size());
  }
  text.pop_back();
}

Path Path::firstChild() const { return table().pathOf(table().firstChild(id_)); }

Path Path::nextUnder(const Path& above) const { return table().pathOf(table().nextUnder(id_, above.id_)); }

Path Path::next() const { return table().pathOf(table().nextUnder(id_, 0)); }
Path Path::previous() const { return table().pathOf(table().previous(id_)); }

bool readsBefore(const Path& a, const Path& b) { return a != b && table().readsBefore(a.id(), b.id()); }

std::ostream& operator<<(std::ostream& out, const Path& path) { return out << path.text(); }

}  // namespace Statedb
