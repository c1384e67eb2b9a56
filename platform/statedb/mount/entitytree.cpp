#include "platform/statedb/mount/entitytree.h"

#include <string>
#include <vector>

#include "platform/zel/entity/pathwalker.h"

namespace Statedb {

namespace {

// Unescapes a component. Throws ValueError if it is wrongly escaped.
Zel::Name nameOf(Zel::Name component) {
  if (Zel::isComponent(component.view())) return component;
  return Zel::Name(Zel::unescapeComponent(component.view()));
}

// The path's ancestors, the outermost first, and the path itself.
std::vector<Path> downTo(Path path) {
  std::vector<Path> paths(path.depth());
  for (auto each = paths.rbegin(); each != paths.rend(); ++each, path = path.parent()) *each = path;
  return paths;
}

}  // namespace

Zel::Ptr<Zel::Entity> newMember(const Found& found, Zel::Name type) {
  checkRow(type, {}, {});
  if (found.collection->direct)
    return static_cast<Zel::Dir&>(*found.parent).entryIs(found.key, Zel::String(type.view()));
  const Zel::Name wanted = found.collection->memberType().name();
  if (wanted != type)
    throw Zel::ValueError("found type " + type.stdString() + ", expected " + wanted.stdString());
  const Zel::Value key = found.key.view();
  found.collection->set(*found.parent, {&key, 1});
  return Zel::Ptr<Zel::Entity>(found.collection->member(*found.parent, found.key));
}

void removeMember(const Found& found) {
  const Zel::Value key = found.key.view();
  found.collection->del(*found.parent, {&key, 1});
}

Found EntityTree::find(Path path) {
  Found found;
  if (path.empty()) {
    found.entity = root_;
    return found;
  }
  found.path = path;
  const Collection* known = path.component().empty() ? nullptr : lastCollection_.find(path.parent());
  if (known && isThere(*known->parent)) {
    found.parent = known->parent;
    found.collection = known->info;
    found.key = nameOf(path.component());
    found.entity = Zel::Ptr<Zel::Entity>(found.collection->member(*found.parent, found.key));
    return found;
  }
  follow(path, found, {});
  if (found.whole && found.parent) lastCollection_.keep(path.parent(), {found.parent, found.collection});
  return found;
}

Found EntityTree::findOrMake(Path path, const Make& make) {
  Found found = find(path);
  if (found.entity) return found;
  if (found.whole)
    found.entity = make(found);
  else
    follow(path, found, make);
  return found;
}

// Starts at the root.
void EntityTree::follow(Path path, Found& found, const Make& make) const {
  const std::vector<Path> paths = downTo(path);
  const std::string text = path.text();
  std::size_t depth = 0;
  found.entity = root_;
  for (Zel::PathWalker walker(text); found.entity && !walker.done();) {
    found.parent = found.entity;
    const auto step = walker.next(found.parent->fwkType());
    depth += step.collection->direct ? 1 : 2;
    found.collection = step.collection;
    found.key = Zel::Name(step.key);
    found.entity = Zel::Ptr<Zel::Entity>(found.collection->member(*found.parent, found.key));
    found.whole = walker.done();
    found.path = paths[depth - 1];
    if (!found.entity && make) found.entity = make(found);
  }
}

// Whether an entity is still under the root.
bool EntityTree::isThere(const Zel::Entity& entity) const {
  const Zel::Entity* each = &entity;
  while (each && each != root_.get() && !each->zelIsGone()) each = each->parent();
  return each == root_.get();
}

Zel::Ptr<Zel::Entity> EntityTree::entityAt(Path path) {
  try {
    return find(path).entity;
  } catch (const Zel::ValueError&) {
    return nullptr;
  }
}

}  // namespace Statedb
