// The stored writes of this process until the server has answered them.
//
//     StoredWrites writes(upstream, mirror);
//     writes.add(changes, origin);              // the table shows them
//     const Ticket ticket = writes.flush();     // sends them
//     if (auto write = writes.take(sequence))   // its entry arrived: the ticket is done
//       notify(write->changes, write->origin);
//
// Activity thread only.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/store/redis/mirror.h"
#include "host/store/redis/upstream.h"
#include "platform/statedb/store/store.h"

namespace Host::Redis {

class StoredWrites {
 public:
  using Outcome = Statedb::Ticket::Outcome;

  // More changes are refused as one step: the server carries out nothing else meanwhile.
  static constexpr std::size_t kMostChanges = kMostRows;
  // A write whose answer was lost is decided when the server is back; its ticket waits for so long.
  static constexpr std::uint64_t kDecidedWithin = 5'000;  // milliseconds

  struct Write {
    Statedb::Changes changes;
    Statedb::Subscriber* origin;
    // Whether the origin was notified of others' changes meanwhile, which this write may have overwritten.
    bool isDisturbed = false;
  };

  // Both must outlive it.
  StoredWrites(Upstream& upstream, Mirror& mirror) : upstream_(upstream), mirror_(mirror) {}

  bool empty() const { return writes_.empty(); }
  // Shows the changes in the mirror.
  void add(const Statedb::Changes& changes, Statedb::Subscriber* origin);
  // Sends what was added since the last flush. `claims`: of the mounts that this process holds; each write
  // carries those of the mounts that it changes.
  Statedb::Ticket flush(const std::vector<Claimed>& claims);

  // The entry of a write arrived, and is in the mirror next: the write is over. Nothing if there is none.
  std::optional<Write> take(Sequence sequence);
  // Others' changes are carried into the mirror while writes wait.
  void disturb();
  void onSettled(Sequence sequence, Host::Redis::Outcome outcome);
  // `text`: what the server said, and the remedy.
  void onRefused(Sequence sequence, Statedb::Ticket::Kind kind, const std::string& text);
  // Fails what waits for longer than kDecidedWithin after the connection was lost.
  void onLost(std::uint64_t now) { lostAt_ = now; }
  void check(std::uint64_t now);

 private:
  struct Waiting {
    Write write;
    std::vector<Mirror::Pending> pending{};
    std::shared_ptr<Outcome> outcome{};   // null: not flushed
    std::shared_ptr<std::size_t> left{};  // writes of the flush without an answer
    Sequence sequence = 0;
  };
  using Place = std::list<Waiting>::iterator;

  Place find(Sequence sequence);
  void end(Place place, Statedb::Ticket::Kind kind, const std::string& failure);

  Upstream& upstream_;
  Mirror& mirror_;
  std::list<Waiting> writes_;  // in the order in which they were sent
  std::optional<std::uint64_t> lostAt_;
};

}  // namespace Host::Redis
