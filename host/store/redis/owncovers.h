// The covers that this process has put, and the steps that bring them into a space of rows.
//
//     OwnCovers covers;
//     space.write(covers.stepsOf({Change::unset(path, "lightSetting")}));  // a del, where it was the last
//     one
//
// A space of rows knows entities, so a put of another type would take along what is under the path, and an
// entity would stay when its last cover is removed. These steps come to the same in a space of rows as the
// batch among covers.
//
// Activity thread only.
#pragma once

#include "platform/statedb/store/covertable.h"
#include "platform/statedb/store/row.h"

namespace Host::Redis {

class OwnCovers {
 public:
  // Takes a batch of covers. What changes nothing is left out. Throws RefusedError, and takes nothing of it,
  // where there would be more than Statedb::CoverTable::kMost.
  Statedb::Changes stepsOf(const Statedb::Changes& changes);

 private:
  void put(const Statedb::Change& change, Statedb::Changes& steps);
  void unset(const Statedb::Change& change, Statedb::Changes& steps);
  void del(const Statedb::Change& change, Statedb::Changes& steps);
  void removeAt(Statedb::Path path, Statedb::Changes& steps);

  Statedb::CoverTable table_;
};

}  // namespace Host::Redis
