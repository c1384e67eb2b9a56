// Covers: values that an agent shows over those of others, at and under its "c" mounts.
//
//     Statedb::Covers& covers = manager->covers();
//     covers.put(path, "Hardware::Led::LedConfig", "lightSetting", value);  // shows from the next pass on
//     if (const Zel::Value* base = covers.base(path, "lightSetting")) print(*base);
//     covers.remove(path, "lightSetting");  // shows what others have written meanwhile
//
// An entity shows its covers like all other values, in this process as well. Its base is what it would show
// without them. Setting an attribute of a mounted entity publishes no cover: it does nothing where the value
// is equal, and a cover holds when the base changes.
//
// Covers are state: the store gets the last value of a pass, and all of them again when it was lost. A cover
// that it refuses is logged and dropped. They end with the process. Activity thread only.
#pragma once

#include <functional>
#include <memory>

#include "platform/statedb/store/path.h"
#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/object/value.h"

namespace Statedb {

class MountTable;
class Refusals;
class Store;

// Of all agents of this process: one attribute has one cover, the one that was put last. Owned by the entity
// manager.
class ZEL_API Covers {
 public:
  ~Covers();
  Covers(const Covers&) = delete;
  Covers& operator=(const Covers&) = delete;

  // Covers an attribute from the end of this pass on. It shows while there is an entity of that type. Throws
  // RangeException if no agent mounted the path or one above it with "c", and ValueError if the type has no
  // such attribute or it does not take the value.
  void put(Path path, Zel::Name type, Zel::Name attribute, const Zel::Value& value);
  // Does nothing if this process does not cover it.
  void remove(Path path, Zel::Name attribute);
  void removeUnder(Path path);

  // This process's cover of an attribute; null if nothing does. Valid until the next change.
  const Zel::Value* find(Path path, Zel::Name attribute) const;
  // The value of an attribute without covers; null if it was never set, there is no entity, or the path is
  // not under a "c" mount. Valid until the next pass.
  const Zel::Value* base(Path path, Zel::Name attribute) const;
  // Calls `changed` when what base() returns may have changed, while the result lives: with the entity's
  // path, or with one above all that may have. base() has the new value then; covers of that pass follow it.
  std::shared_ptr<void> baseReactorIs(std::function<void(Path)> changed);

 private:
  friend class Mounts;
  struct State;

  // The arguments must outlive it.
  Covers(Store& store, const MountTable& mounts, Refusals& refusals);
  // Follows the base at and under a path.
  void follow(Path path, std::function<void()> onSnapshot);
  bool hasArrived(Path path) const;
  // Writes what has changed since the last call to the store.
  void write();

  const std::unique_ptr<State> state_;
};

}  // namespace Statedb
