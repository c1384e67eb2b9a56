// Records by path, in chunks: neither growing nor freeing takes long at once, and no record moves.
//
//     RecordTable table;
//     table.at(path) = {path, type, {}};
//     if (const Record* record = table.find(path)) print(record->type);
//
// Activity thread only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Host::Redis {

// A record without a type stands for no entity.
inline const Statedb::Record* orNull(const Statedb::Record& record) {
  return record.type.empty() ? nullptr : &record;
}

class RecordTable {
 public:
  // Null where there is no entity. Valid until discard().
  const Statedb::Record* find(Statedb::Path path) const {
    const auto [chunk, place] = placeOf(path);
    return chunk < chunks_.size() && !chunks_[chunk].empty() ? orNull(chunks_[chunk][place]) : nullptr;
  }
  Statedb::Record* find(Statedb::Path path) {
    return const_cast<Statedb::Record*>(std::as_const(*this).find(path));
  }
  // Also one that stands for no entity.
  Statedb::Record& at(Statedb::Path path) {
    const auto [chunk, place] = placeOf(path);
    if (chunk >= chunks_.size()) chunks_.resize(chunk + 1);
    if (chunks_[chunk].empty()) chunks_[chunk].resize(kChunk);
    return chunks_[chunk][place];
  }
  void erase(Statedb::Path path) {
    if (find(path)) at(path) = {};
  }

  // Whether there never was one.
  bool empty() const { return chunks_.empty(); }
  // Calls `function` with each record, those of no entity included, in no order.
  template <class Function>
  void forEach(Function&& function) {
    for (Chunk& chunk : chunks_) std::ranges::for_each(chunk, function);
  }

  // Frees some records, at least `least` of them if there are so many. Returns whether any are left.
  bool discard(std::size_t least) {
    for (std::size_t freed = 0; freed < least && !chunks_.empty(); chunks_.pop_back())
      freed += chunks_.back().size();
    return !chunks_.empty();
  }

 private:
  static constexpr std::size_t kChunk = 64;
  using Chunk = std::vector<Statedb::Record>;  // empty, or of kChunk records

  static std::pair<std::size_t, std::size_t> placeOf(Statedb::Path path) {
    return {path.id() / kChunk, path.id() % kChunk};
  }

  std::vector<Chunk> chunks_{};  // by Path::id()
};

}  // namespace Host::Redis
