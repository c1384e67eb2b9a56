// The layout of rows in Redis, and of the changes of a batch in the log.
//
//     const Keys keys("pinlamp", Durability::stored);
//     keys.directory("hardware/led")     "{pinlamp}:s:d:hardware/led"
//     deltaText(changes)                 the batch as it stands in an entry of the log
//
// Stored rows, volatile rows and covers are three spaces of the same layout. P is "{PREFIX}:s", "{PREFIX}:v"
// or "{PREFIX}:c"; the braces keep all keys of a database on one node of a cluster.
//
//     P:d:DIRECTORY   hash: the entities directly under a path
//                       NAME             TYPE, then the attributes in the order in which they were set,
//                                        each behind a tab
//                       NAME/ATTRIBUTE   the value as JSON
//     P:dirs          sorted set of these directories, all of score 0
//     P:log           stream with the ids 0-REVISION: o, the origin, and d, the delta
//     P:meta          hash: generation, fence:UUID, shape (the last revision that changed more than values),
//                     and, but in the stored space, claim:MOUNT
//     P:claim:MOUNT   hash: beat, who, synced
//     P:changes       the channel on which each entry is announced: "GENERATION REVISION ORIGIN\nDELTA"
//
// Slashes and control characters are escaped in the names of a path, so no name contains a separator. The
// entity at the empty path is the empty name in the empty directory.
//
// A delta is a line for each step, with tabs between its parts. A directory or a type holds until the next.
// Two kinds of lines go before the steps, the first in the volatile space alone, the other where claims are:
//
//     ^REVISION                a stored write made the entry, besides the one of that revision of the stored
//                              log
//     =MOUNT                   the writer holds the claim of this mount, and makes or removes rows there
//     @DIRECTORY
//     :TYPE
//     +NAME                    put: the entity is there
//     +NAME ATTRIBUTE JSON     put
//     -NAME ATTRIBUTE          unset
//     !PATH                    del, with all under it
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/redis/follower.h"
#include "platform/statedb/store/row.h"

namespace Host::Redis {

// 's', 'v' or 'c'.
char letterOf(Statedb::Durability space);

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
// Makes the paths of the entities of one directory; looks the directory's own path up once.
class Directory {
 public:
  // `text` must outlive it. Checks nothing.
  explicit Directory(std::string_view text) : text_(text) {}

  std::string_view text() const { return text_; }
  // Throws Zel::ValueError where it is beyond the limits of paths, or the name has a slash.
  Statedb::Path at(std::string_view name) const;

 private:
  std::string_view text_;
  mutable std::optional<Statedb::Path> path_{};
};

// Writes a delta step by step. Throws Zel::ValueError where a type or an attribute has a control character,
// which no declared one has.
class DeltaWriter {
 public:
  // A part of the text.
  struct Part {
    std::size_t start = 0, size = 0;
    std::string_view in(std::string_view text) const { return text.substr(start, size); }
  };

  // `steps`: so many are expected.
  explicit DeltaWriter(std::size_t steps = 0) { text_.reserve(steps * 32); }

  // Returns the JSON of a put's value; an empty part where there is none.
  Part step(const Statedb::Change& change);
  std::string& text() { return text_; }

 private:
  Part put(std::string_view name, const Statedb::Row& row);
  void unset(std::string_view name, const Statedb::Row& row);
  void checkAttribute(Zel::Name attribute);

  std::string text_{};
  std::optional<Statedb::Path> directory_{};
  Zel::Name type_{};       // the last one
  Zel::Name attribute_{};  // that was checked
};
std::string deltaText(const Statedb::Changes& changes);
// The inverse. Throws Zel::ValueError for a line of another form, for bad JSON, and for a path or a name
// beyond the limits.
Statedb::Changes changesOf(std::string_view delta);
// The same, without the steps that it would throw for; appends the errors.
Statedb::Changes changesOf(std::string_view delta, std::vector<std::string>& errors);

// The value that a text of JSON stands for. Throws Zel::ValueError where it is none. Texts that repeat are
// parsed once, and their values share memory.
Zel::Value valueOf(std::string_view json);

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

}  // namespace Host::Redis
