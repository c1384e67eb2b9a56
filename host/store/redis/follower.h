// Follows the change log of one space of a state database on Redis: finds out which entries are missing,
// whether the log is still the same one, and when it takes a snapshot. Pure logic: no I/O, no clock, no rows.
//
//     Follower follower("b2e1…", output);
//     follower.onConnected();           // output.subscribe()
//     follower.onSubscribed();          // output.askState(): a tip that is older than the subscription
//     follower.onState(state);          // output.scan(), or output.askLog() where the mirror is of this log
//     follower.onPush(generation, {101, origin, delta});  // output.apply(entry)
//
// The log is authoritative; pushes only announce its entries. Three rules keep the mirror from losing or
// resurrecting a row:
//
// - Revisions are contiguous. An entry is applied if it is the last plus one, dropped if it is not newer, and
//   read from the log if some are missing. What the log no longer holds takes a snapshot.
// - Revisions of different histories are never compared. A history is a Timeline: the server's replication
//   id, which a restart and a failover change, and the space's generation, which a wipe changes. Pushes and
//   pages of the log carry the generation.
// - A snapshot is the rows as a scan finds them while others write, and then every entry since the tip from
//   before the scan, replayed onto that copy. For each row, either an entry is replayed and the last one
//   wins, or the row did not change during the scan. Timeline and revision become those of the copy when it
//   is complete, not before: half a snapshot leaves everything as it was.
//
// A write is pending until the log shows its entry: its origin is "UUID:SEQUENCE". Where the connection was
// lost before the answer, the log shows afterwards whether the write was carried out. For that to be final,
// askState() fences: the server must refuse what the lost connection may yet deliver.
//
// Activity thread only.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Host::Redis {

using Revision = std::uint64_t;  // of a space; 0: nothing was ever written
using Sequence = std::uint64_t;  // of a writer's writes; 0: none

struct Timeline {
  std::string server;      // the replication id
  std::string generation;  // empty: nothing was ever written into the space, or it was wiped
  bool operator==(const Timeline&) const = default;
};

// A space at one moment.
struct State {
  Timeline timeline;
  Revision tip = 0;
};

// An entry of the log. Points into the reply or the message that brought it.
struct Entry {
  Revision revision = 0;
  std::string_view origin;
  std::string_view delta;
};

// Entries after a revision, the oldest first, and the tip at the moment when they were read.
struct LogPage {
  std::string_view generation;
  Revision tip = 0;
  std::vector<Entry> entries;
};

// How a write ended whose answer may be lost.
enum class Outcome : std::uint8_t {
  applied,     // its entry is in the log, and in the mirror
  notApplied,  // it is not, and never will be
  unknown,     // the log no longer tells, or the history in which it was written is gone
};

class Follower {
 public:
  // Requests, each answered by the function of the follower that is named, and notifications. At most one
  // request is under way. It is void once onDisconnected() was called: its answer must not come any more. Of
  // the follower's functions, only writing(), resending() and onRefused() may be called from within these;
  // from within wiped(), acceptWiped() too.
  class Output {
   public:
    virtual void subscribe() = 0;  // onSubscribed()
    // onState(). Unless `fence` is 0, the server then refuses this writer's writes up to that sequence.
    virtual void askState(Sequence fence) = 0;
    virtual void askLog(Revision after) = 0;  // onLog(): the entries after it, or the first of them
    // onScanned(). Copies every row into a copy beside the mirror; one that was begun earlier is void.
    virtual void scan() = 0;
    // Carries an entry into the copy. It may be there already, whole or in part.
    virtual void replay(const Entry& entry) = 0;
    // The copy is complete: it becomes the mirror. Subscribers are notified of differences only.
    virtual void accept(const State& state) = 0;
    // Carries the next entry into the mirror, and notifies the subscribers. `own`: the sequence if the entry
    // is a write of this writer, else 0.
    virtual void apply(const Entry& entry, Sequence own) = 0;
    virtual void settle(Sequence write, Outcome outcome) = 0;
    // The space was wiped: the mirror stays as it is until somebody writes there, or acceptWiped().
    virtual void wiped() = 0;
    // No snapshot became complete in kAttempts. Calls onDisconnected() and connects again later.
    virtual void reconnect(std::string_view why) = 0;

   protected:
    ~Output() = default;
  };

  static constexpr int kAttempts = 5;

  // `uuid` names this writer in origins; `output` must outlive the follower.
  Follower(std::string uuid, Output& output);

  // The connection stands: one to a master, whose timeline cannot change under it unnoticed.
  void onConnected();
  void onDisconnected();
  void onSubscribed();
  void onState(const State& state);
  void onPush(std::string_view generation, const Entry& entry);
  void onLog(const LogPage& page);
  void onScanned();
  // Once a second: asks for the state, which shows wipes, lost pushes and a log that went backwards.
  void check();
  // Accepts that the space was wiped: the mirror becomes empty.
  void acceptWiped();

  // A write is about to be sent: the sequence for its origin. REQUIRES: there is a mirror, and a connection.
  Sequence writing();
  // It was refused, and is sent again with the same sequence.
  void resending(Sequence write);
  // It was answered. Not called where the connection was lost first.
  void onWritten(Sequence write, Revision revision);
  void onRefused(Sequence write);

  // Of the mirror; nothing before the first snapshot.
  const std::optional<State>& mirrored() const { return mirrored_; }
  // Whether entries are applied as they come.
  bool isFollowing() const { return phase_ == Phase::following; }
  bool isWiped() const { return phase_ == Phase::wiped; }
  // Whether the mirror has every entry known so far, and no request is under way.
  bool isIdle() const { return phase_ == Phase::following && asked_ == Asked::nothing && pushed_ == 0; }
  std::string originOf(Sequence write) const { return uuid_ + ":" + std::to_string(write); }

 private:
  enum class Phase : std::uint8_t {
    offline,
    subscribing,
    deciding,   // whether the mirror is of this log
    following,  // entries are applied as they come
    scanning,   // a copy is made
    replaying,  // the log since before the scan is carried into the copy
    wiped,
  };
  enum class Asked : std::uint8_t { nothing, state, log, rows };
  struct Write {
    Revision before = 0;  // the mirror's revision when it was sent; its entry is a later one
    std::optional<Revision> answer{};
    bool isOrphan = false;  // the connection was lost before the answer
    bool isFound = false;   // its entry is in the log that the copy is replayed from
  };

  void askState();
  void askLog(Revision after);
  void decide(const State& state);
  void follow();
  void takePage(const LogPage& page);
  void applyOne(const Entry& entry);
  void takeSnapshot(const State& state);
  Revision searchFrom() const;
  void replayPage(const LogPage& page);
  bool replayOne(const Entry& entry);
  void completeCopy();
  Sequence ownSequence(std::string_view origin) const;
  Sequence lastOrphan() const;
  void settleOrphans(Outcome outcome);
  void settleWiped();
  void settleAtCopy(bool isSameTimeline);

  const std::string uuid_;
  Output& output_;

  Phase phase_ = Phase::offline;
  Asked asked_ = Asked::nothing;
  Revision askedAt_ = 0;  // the mirror's revision then
  // The newest push since then that was not applied. An answer covers those from before the question.
  Revision pushed_ = 0;
  std::string pushedGeneration_{};

  std::optional<State> mirrored_{};
  bool acceptsWiped_ = false;

  State copy_{};            // `tip`: the revision that it was replayed up to
  Revision searched_ = 0;   // the log was read up to here, for replaying and for this writer's origins
  bool isCovered_ = false;  // the search saw every entry that a pending write can have
  int attempts_ = 0;        // copies that were begun since the last complete one

  Sequence lastWrite_ = 0;
  std::map<Sequence, Write> writes_{};  // those that are pending
};

}  // namespace Host::Redis
