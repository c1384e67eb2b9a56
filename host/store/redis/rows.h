// The rows of one space as far as they are known: those that a scan found, with the changes in the log since.
//
//     Rows rows;
//     rows.scanned(directory, field, value);  // for every field of every hash
//     rows.endScan();
//     rows.carry(changesOf(entry.delta));     // may repeat what the scan found already
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/store/redis/layout.h"
#include "host/store/redis/recordtable.h"
#include "platform/statedb/store/row.h"

namespace Host::Redis {

class Rows {
 public:
  // Throws Zel::ValueError where the value is no JSON, or a path or a name is beyond the limits.
  void scanned(const Directory& directory, std::string_view field, std::string_view text);
  // Drops what belongs to no entity: that was made during the scan, and the log brings it.
  void endScan();
  void carry(const Statedb::Changes& changes);

  // Whether there never was one.
  bool empty() const { return records_.empty(); }
  // Null where there is none.
  const Statedb::Record* find(Statedb::Path path) const { return records_.find(path); }
  // At and under a path. Valid until something changes; an entity comes before those under it.
  Statedb::Records under(Statedb::Path path) const;
  Statedb::Records all() const { return under({}); }

  // Frees some entities, at least so many. Returns whether any are left. A big table takes long to free at
  // once.
  bool discard(std::size_t least) { return records_.discard(least); }

 private:
  void scannedEntity(Statedb::Path path, std::string_view text);
  void scannedValue(Statedb::Path path, Zel::Name attribute, Zel::Value value);

  RecordTable records_;
  // While it is scanned: records whose values were found before their types, and the texts of those entities
  // whose attributes are not all there yet.
  std::size_t early_ = 0;
  std::unordered_map<Statedb::Path, std::string> order_;
};

}  // namespace Host::Redis
