// The visible rows of a store that keeps or mirrors them in this process.
//
//     for (const Record* record : table.read("hardware/led")) print(record->path);
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "platform/statedb/store/row.h"
#include "platform/zel/core/export.h"

namespace Statedb {

class ZEL_API Table {
 public:
  // Everything visible at and under a path, sorted by readsBefore(); valid until the next write.
  virtual Records read(Path path) const = 0;
  // The same without covers, which is all of it by default; and the covers alone, also those that do not
  // show.
  virtual Records readBase(Path path) const { return read(path); }
  virtual Records readCovers(Path) const { return {}; }
  // The type of the entity at a path; empty if there is none.
  virtual Zel::Name typeAt(Path path) const = 0;

  virtual std::size_t entities() const = 0;
  // The number of entities by type. Takes linear time.
  virtual std::unordered_map<Zel::Name, std::size_t> entitiesByType() const = 0;

 protected:
  Table() = default;
  ~Table() = default;
};

}  // namespace Statedb
