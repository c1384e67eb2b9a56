#include "platform/zel/dir.h"

namespace Zel {

const TypeNode& Dir::typeNode() {
  static const TypeNode type = describe("Zel::Dir", &newEntity<Dir>);
  return type;
}

Dir::~Dir() { orphanChildren<&Dir::entries_>(); }

Ptr<Entity> Dir::entryIs(Name name, String typeName) {
  if (auto found = entityRef(name)) return found;
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
