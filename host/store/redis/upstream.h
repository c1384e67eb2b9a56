// The Redis server as this process follows it: keeps the rows of the three spaces the same as the server's,
// and sends writes.
//
//     Upstream upstream(loop, url, owner);   // connects from the loop, and reconnects for ever
//     upstream.write(Durability::stored, changes, claims);
//     upstream.flush();                     // sends what was written since the last flush
//
// Two connections, one for commands and one that is subscribed to the spaces' channels, and a Follower for
// each space. A connection is good when both lead to the same master, it evicts nothing, and all spaces are
// followed. Once a second the followers check; a server that does not answer within the URL's timeout
// counts as lost. A loss of one connection ends both.
//
// A row or a step that can't be read is left out with a warning, because one bad row must not cut off every
// reader.
//
// Activity thread only.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/io/loop.h"
#include "host/store/redis/connection.h"
#include "host/store/redis/follower.h"
#include "host/store/redis/layout.h"
#include "host/store/redis/rows.h"
#include "host/store/redis/scripts.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

// A write that the server has not answered yet, or whose entry did not come yet. Counted in each space.
struct WriteId {
  Statedb::Durability space = Statedb::Durability::stored;
  Sequence sequence = 0;
  bool operator==(const WriteId&) const = default;
};

class Upstream {
 public:
  // Notified from the loop. May call any function of the upstream, but not destroy it.
  class Owner {
   public:
    // The connection is good: rows(), and what was notified of until now, are the server's.
    virtual void onReached() = 0;
    // There is none any more, or an attempt failed; `loss` says why and what would help. The rows stay.
    virtual void onLost(const Loss& loss) = 0;

    // rows(space) were replaced by a whole snapshot. It comes before onReached(), and later where the log
    // was cut off.
    virtual void onRows(Statedb::Durability space) = 0;
    // rows(space) have the next entry of the log. `own`: the sequence of a write of this process, else 0.
    // `head`: of its delta. The entry of the stored write that made it may have come already.
    struct Entry {
      Statedb::Durability space;
      const Statedb::Changes& changes;
      Sequence own = 0;
      DeltaHead head{};
    };
    virtual void onEntry(const Entry& entry) = 0;
    // The space was wiped: its rows stay until somebody writes there, or acceptWiped(). A wiped space counts
    // as reached.
    virtual void onWiped(Statedb::Durability space) = 0;

    // A write is over: its entry was notified of, or never will be, or nobody can tell.
    virtual void onSettled(const WriteId& write, Outcome outcome) = 0;
    // The server refused it and changed nothing. `error` is an error reply. A stored write that met a
    // generation or a type which this process did not know yet is sent again by the upstream, unless a later
    // one was sent meanwhile; another one that met another generation is settled as not applied.
    virtual void onRefused(const WriteId& write, const Reply& error) = 0;

    // For the log: something is wrong, but the upstream goes on. Each text comes once.
    virtual void onWarning(const std::string& text) = 0;

   protected:
    ~Owner() = default;
  };

  // `loop` and `owner` must outlive it.
  Upstream(Loop& loop, const Url& url, Owner& owner);
  ~Upstream();
  Upstream(const Upstream&) = delete;
  Upstream& operator=(const Upstream&) = delete;

  bool isReached() const;
  // As the server has them; empty before the first snapshot.
  const Rows& rows(Statedb::Durability space) const;
  // Of that snapshot and the entries since; its timeline is empty before the first.
  State state(Statedb::Durability space) const;
  // The run id of the server: another one after each of its starts. Empty unless isReached().
  const std::string& server() const;
  // Random, of this process; the start of the origins of its writes, and the owner of its claims.
  const std::string& uuid() const;

  // Sends a part, see partsOf(). Every claim whose mount it writes under must be among `claims`. A write into
  // a space that was wiped accepts that, and goes into the empty one. REQUIRES: isReached().
  WriteId write(Statedb::Durability space, const Statedb::Changes& changes, std::vector<Claimed> claims);
  // Writes that are not settled.
  std::size_t underWay() const;
  void acceptWiped(Statedb::Durability space);
  // For claims: scripts on the connection for commands, in order with the writes. Does nothing unless
  // isReached().
  void call(Call call, Connection::OnReply then);
  // Loads the script of a call, so that the call itself goes out at once.
  void prepare(const Call& call);
  void flush();

 private:
  struct State_;
  const std::unique_ptr<State_> state_;
};

}  // namespace Host::Redis
