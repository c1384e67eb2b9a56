// The volatile rows, or the covers, of others that are shown although the server, restarted or wiped, may
// lack them: until their publishers have published everything again.
//
//     KeptRows kept(Durability::volatile_);
//     kept.keep(mount, mirror);   // what is shown there
//     kept.carry(changes);        // what is published meanwhile shows at once
//     const Record* shown = kept.over(path, theirs);
//     kept.release(mount);
//
// Activity thread only.
#pragma once

#include <map>

#include "host/store/redis/mirror.h"
#include "host/store/redis/rows.h"

namespace Host::Redis {

class KeptRows {
 public:
  explicit KeptRows(Statedb::Durability space) : space_(space) {}

  // Keeps the space's values that are shown at and under the mount, unless some are kept there already.
  void keep(Statedb::Path mount, const Mirror& mirror);
  // Returns whether rows were kept there.
  bool release(Statedb::Path mount) { return mounts_.erase(mount) > 0; }
  // Carries changes of the space into the rows that are kept.
  void carry(const Statedb::Changes& changes);

  // The rows of a mount. Valid until something changes.
  Statedb::Records at(Statedb::Path mount) const;
  // The entity at a path: the one that is kept where rows are kept, else the server's; null for none.
  const Statedb::Record* over(Statedb::Path path, const Statedb::Record* theirs) const;

 private:
  const Statedb::Durability space_;
  std::map<Statedb::Path, Rows> mounts_;
};

}  // namespace Host::Redis
