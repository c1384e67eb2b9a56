// The covers of a store in memory, or those of one process, with an undo log. Internal to stores.
//
//     CoverTable covers;
//     covers.put({path, "Hardware::Led::LedConfig", "theme", "night"});
//     covers.over(record).find("theme");  // "night", whatever the record has
#pragma once

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"
#include "platform/zel/core/export.h"

namespace Statedb {

// Logs every change for undoTo() until settle().
class ZEL_API CoverTable {
 public:
  // Covered attributes of all entities.
  static constexpr std::size_t kMost = 1 << 18;

  bool empty() const { return covers_.empty(); }
  // The covers of an entity of that type at a path; null if there are none. Valid until the next change.
  const Record* find(const Path& path, const Zel::Name& type) const;
  bool covers(const Path& path, const Zel::Name& type, const Zel::Name& attribute) const {
    const Record* cover = find(path, type);
    return cover && cover->find(attribute);
  }
  // The same of any type.
  const Record* at(const Path& path) const;
  // At and under a path, in no order.
  Records under(Path path) const;

  // The record with its covers over it: itself if it has none. Valid until it or its covers change.
  const Record& over(const Record& base) const;

  // Covers an attribute. Throws RefusedError if there would be more than kMost. REQUIRES: an attribute.
  void put(const Row& row);
  void remove(Path path, Zel::Name attribute);
  void removeAt(Path path);

  std::size_t mark() const { return undo_.size(); }
  void undoTo(std::size_t mark);
  void settle() {
    if (!undo_.empty()) clearKeeping(undo_);
  }

 private:
  using Covers = std::unordered_map<Path, Record>;

  void note(Path path);
  void replace(Path path, std::optional<Record> cover);

  Covers covers_;
  mutable Covers merged_;                                     // what over() made
  std::size_t count_ = 0;                                     // covered attributes
  std::vector<std::pair<Path, std::optional<Record>>> undo_;  // what stood there before
};

}  // namespace Statedb
