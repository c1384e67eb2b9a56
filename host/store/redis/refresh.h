// Replaces the rows of a mirror in portions, between which the loop goes on.
//
//     Refresh refresh(loop, mirror, notify, onDone);
//     refresh.start(Durability::stored, wanted);   // the first portion; mostly that is all
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>

#include "host/io/loop.h"
#include "host/store/redis/mirror.h"

namespace Host::Redis {

class Refresh {
 public:
  // A portion of a round: until so much time has passed, and at least so many paths.
  static constexpr std::uint64_t kNanoseconds = 1'000'000;
  static constexpr std::size_t kPaths = 256;

  // `notify` gets what subscribers are to be notified of, and `onDone` is called when no space is under way
  // any more. Both may call start(). `loop` and `mirror` must outlive it.
  Refresh(Loop& loop, Mirror& mirror, std::function<void(LayeredChanges changes)> notify,
          std::function<void()> onDone);

  // Replaces the rows of a space: from the start where that is under way.
  void start(Statedb::Durability space, Mirror::Wanted wanted);
  bool isDone() const { return spaces_.empty(); }

 private:
  void proceed();
  Statedb::Durability next() const;
  LayeredChanges portion();

  Mirror& mirror_;
  const std::function<void(LayeredChanges)> notify_;
  const std::function<void()> onDone_;
  std::set<Statedb::Durability> spaces_;  // under way
  UvHandle<uv_idle_t> idle_;
};

}  // namespace Host::Redis
