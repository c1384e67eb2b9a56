#include "platform/zel/entity/dir.h"

#include "platform/zel/notify/activity.h"

namespace Zel {

const TypeNode& Dir::typeNode() {
  static const TypeNode type = describe("Zel::Dir", &newEntity<Dir>);
  return type;
}

Dir::~Dir() { orphanChildren<&Dir::entries_>(); }

namespace {

void suspectType(const Entity& entity, const String& wanted) {
  activityManager().suspectIs("'" + entity.path() + "' exists as a " + entity.fwkType().name().stdString() +
                              ", expected a " + wanted.stdString() +
                              "; delete that entity, from a host without this agent if this one can't start");
}

}  // namespace

Ptr<Entity> Dir::entryIs(const Name& name, String typeName) {
  if (auto found = entityRef(name)) {
    if (found->fwkType().name().view() != typeName.view()) suspectType(*found, typeName);
    return found;
  }
  const auto known = Name::existing(typeName.view());
  const TypeNode* type = known ? Zel::typeNode(*known) : nullptr;
  if (!type || !type->newEntityForDir())
    throwRangeException(("'" + typeName.stdString() + "' is no type that a directory can hold").c_str());
  const Ptr<Entity> entity = type->newEntityForDir()(name, this);
  if (!entity) throwRangeException("null ValidPtr");
  childIs<&Dir::entries_>(entity);
  return entity;
}

}  // namespace Zel
