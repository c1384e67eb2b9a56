// A set of paths that grows to many: a bit for each id, so that growing never takes long at once.
//
//     PathSet seen;
//     if (seen.insert(path)) print(seen.size());
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/statedb/store/path.h"

namespace Statedb {

// Keeps every path that was ever inserted in the table of paths: its id names no other one meanwhile.
class PathSet {
 public:
  bool contains(const Path& path) const { return path.id() < bits_.size() && bits_[path.id()]; }
  std::size_t size() const { return size_; }

  // Returns whether it was not there.
  bool insert(const Path& path) {
    if (contains(path)) return false;
    if (path.id() >= bits_.size()) bits_.resize(path.id() + 1);
    bits_[path.id()] = true;
    kept_.push_back(path);
    ++size_;
    return true;
  }
  void erase(const Path& path) {
    if (!contains(path)) return;
    bits_[path.id()] = false;
    --size_;
  }

 private:
  std::vector<bool> bits_{};  // by Path::id()
  std::vector<Path> kept_{};
  std::size_t size_ = 0;
};

}  // namespace Statedb
