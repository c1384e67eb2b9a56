// The layout of rows in Redis, and of the changes of a batch in the log.
//
//     const Keys keys("pinlamp", Durability::stored);
//     keys.directory("hardware/led")     "{pinlamp}:s:d:hardware/led"
//     deltaText(changes)                 the batch as it stands in an entry of the log
//
// Stored and volatile rows are two spaces of the same layout. P is "{PREFIX}:s" or "{PREFIX}:v"; the braces
// keep all keys of a database on one node of a cluster.
//
//     P:d:DIRECTORY   hash: the entities directly under a path
//                       NAME             TYPE, then the attributes in the order in which they were set,
//                                        each behind a tab
//                       NAME/ATTRIBUTE   the value as JSON
//     P:dirs          sorted set of these directories, all of score 0
//     P:log           stream with the ids 0-REVISION: o, the origin, and d, the delta
//     P:meta          hash: generation, fence:UUID, shape (the last revision that changed more than values),
//                     and, in the volatile space, claim:MOUNT
//     P:claim:MOUNT   hash: beat, who, synced
//     P:changes       the channel on which each entry is announced: "GENERATION REVISION ORIGIN\nDELTA"
//
// Slashes and control characters are escaped in the names of a path, so no name contains a separator. The
// entity at the empty path is the empty name in the empty directory.
//
// A delta is a line for each step, with tabs between its parts. A directory or a type holds until the next.
// Two kinds of lines, of the volatile space alone, go before the steps:
//
//     ^REVISION                a stored write made the entry, besides the one of that revision of the stored
//     log =MOUNT                   the writer holds the claim of this mount, and makes or removes rows there
//     @DIRECTORY
//     :TYPE
//     +NAME                    put: the entity is there
//     +NAME ATTRIBUTE JSON     put
//     -NAME ATTRIBUTE          unset
//     !PATH                    del, with all under it
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/store/redis/follower.h"
#include "platform/statedb/store/row.h"

namespace Host::Redis {

class Keys {
 public:
  Keys(std::string_view prefix, Statedb::Durability space);

  const std::string& space() const { return space_; }  // P
  std::string directory(std::string_view directory) const { return space_ + ":d:" + std::string(directory); }
  std::string directories() const { return space_ + ":dirs"; }
  std::string log() const { return space_ + ":log"; }
  std::string meta() const { return space_ + ":meta"; }
  std::string claim(std::string_view mount) const { return space_ + ":claim:" + std::string(mount); }
  std::string channel() const { return space_ + ":changes"; }

 private:
  const std::string space_;
};

// The keys of an entity.
struct Place {
  std::string directory;
  std::string name;
  bool operator==(const Place&) const = default;
};
Place placeOf(Statedb::Path path);
// Throws Zel::ValueError where it is beyond the limits of paths.
Statedb::Path pathAt(std::string_view directory, std::string_view name);

// Throws Zel::ValueError where a type or an attribute has a control character, which no declared one has.
std::string deltaText(const Statedb::Changes& changes);
// The inverse. Throws Zel::ValueError for a line of another form, for bad JSON, and for a path or a name
// beyond the limits.
Statedb::Changes changesOf(std::string_view delta);
// The same, without the steps that it would throw for; appends the errors.
Statedb::Changes changesOf(std::string_view delta, std::vector<std::string>& errors);

// The lines of a delta before its steps.
struct DeltaHead {
  Revision companionOf = 0;  // of the stored log; 0: it is no stored write's
  std::vector<Statedb::Path> mounts{};
};
// Throws Zel::ValueError for a path beyond the limits.
DeltaHead headOf(std::string_view delta);
std::string mountLine(std::string_view mount);

// The hash's value for an entity: its type and its attributes.
std::string entityText(const Statedb::Record& record);

// The rows of one space as far as they are known: those that a scan found, with the changes in the log since.
//
//     rows.scanned("hardware/led", field, value);  // for every field of every hash
//     rows.endScan();
//     rows.carry(changesOf(entry.delta));          // may repeat what the scan found already
class Rows {
 public:
  // Throws Zel::ValueError where the value is no JSON, or a path or a name is beyond the limits.
  void scanned(std::string_view directory, std::string_view field, std::string_view text);
  // Drops what belongs to no entity: that was made during the scan, and the log brings it.
  void endScan();
  void carry(const Statedb::Changes& changes);

  // Null where there is none.
  const Statedb::Record* find(Statedb::Path path) const;
  // In no order, valid until something changes.
  Statedb::Records all() const;

  // Frees up to so many entities. Returns whether any are left. A big table takes long to free at once.
  bool discard(std::size_t most);

 private:
  std::unordered_map<Statedb::Path, Statedb::Record> entities_;
  // While it is scanned: entities whose attributes were found before their types, and the values for those
  // entities whose attributes are not all there yet.
  std::unordered_map<Statedb::Path, Statedb::Record> early_;
  std::unordered_map<Statedb::Path, std::string> order_;
};

}  // namespace Host::Redis
