// Sends what this process publishes to the volatile space of the server, or to that of covers, one batch of
// each mount at a time.
//
//     VolatileWrites writes(Durability::volatile_, upstream, publications, tokenOf, report);
//     writes.send();          // whatever is unsent and may be sent
//
// The parts of a large batch go out a few at a time, the next when one is answered, so that no round of the
// loop is long.
//
// A batch that is refused is halved until the row at fault stands alone; that row is reported and dropped. A
// server that can't take anything now (no memory, a full disk, a replica) is tried again once a second.
//
// Activity thread only.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>

#include "host/store/redis/publications.h"
#include "host/store/redis/upstream.h"

namespace Host::Redis {

class VolatileWrites {
 public:
  // The token of a mount that this process holds; empty: it does not.
  using TokenOf = std::function<Token(Statedb::Path mount)>;
  using Report = std::function<void(const std::string& text)>;

  // All must outlive it.
  VolatileWrites(Statedb::Durability space, Upstream& upstream, Publications& publications, TokenOf tokenOf,
                 Report report);

  void send();
  // Of writes of the space.
  void onSettled(Sequence sequence, Outcome outcome);
  void onRefused(Sequence sequence, const Reply& error);
  // The server forgot the rows of this process under a mount: drops what waits, and the answers.
  void forget(Statedb::Path mount);
  // The connection is lost: nothing is under way any more.
  void onLost();
  // Once a second: tries what was postponed again.
  void check();
  // Whether nothing of a mount is under way.
  bool isIdle(Statedb::Path mount) const { return !sending_.contains(mount); }

 private:
  std::string what() const { return space_ == Statedb::Durability::cover ? "covered" : "published"; }

  // The batch of a mount: parts that wait, and how many are under way.
  struct Sending {
    bool isOfMount = false;
    Token token{};  // that it was begun with
    std::deque<Statedb::Changes> waiting{};
    std::size_t underWay = 0;
    bool isPostponed = false;
  };
  struct Part {
    Statedb::Path mount;
    Statedb::Changes changes;
  };

  void sendParts(Statedb::Path mount, Sending& sending);
  void postpone(Sending& sending);
  void goOn(Statedb::Path mount);
  void halve(const Part& part, const std::string& why);
  void ended(Statedb::Path mount);

  const Statedb::Durability space_;
  Upstream& upstream_;
  Publications& publications_;
  const TokenOf tokenOf_;
  const Report report_;
  std::map<Statedb::Path, Sending> sending_;
  std::map<Sequence, Part> parts_;
  bool isPostponed_ = false;
  bool wasReported_ = false;
};

}  // namespace Host::Redis
