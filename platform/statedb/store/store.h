// A store: the state database itself, or a connection to it.
//
//     MemoryStore store;
//     store.subscribe("hardware/led", subscriber);  // gets a snapshot, then the changes of each flush
//     store.write({Change::put(path, "Hardware::Led::LedConfig", "theme", "night")}, Durability::stored);
//     if (store.flush().isDone()) log("durable");
//     if (const Table* table = store.table()) print(table->read("hardware/led"));
//
// Activity thread only. Subscribers are notified from flush(), or when the host lets the store work; never
// from write().
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"
#include "platform/statedb/store/table.h"
#include "platform/zel/core/export.h"

namespace Statedb {

// The store failed and changed nothing. The message says what failed, where and why.
class ZEL_API StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~StoreError() override;
};

// The store refuses the batch; a retry would fail as well.
class ZEL_API RefusedError : public StoreError {
 public:
  using StoreError::StoreError;
  ~RefusedError() override;
};

// The stored rows of a flush could not be made durable and are undone. Its volatile rows are there, and their
// subscribers were notified.
class ZEL_API NotStoredError : public StoreError {
 public:
  using StoreError::StoreError;
  ~NotStoredError() override;
};

// The part of a subscriber that takes a large snapshot step by step, so that the loop goes on meanwhile.
// Between the calls the subscriber gets onChanges() and onRevealed() as at other times, but only removals,
// and changes of entities that were in a part.
class ZEL_API SnapshotParts {
 public:
  // A snapshot begins, also where the one before did not end.
  virtual void onBegin() = 0;
  // Some entities as they are now. An entity comes before those under it, and may come again.
  virtual void onPart(const Records& records) = 0;
  // Everything was in a part. Removes what was in none, and returns whether it is done with that; if not, it
  // is called again, maybe after more parts.
  virtual bool onEnd() = 0;

 protected:
  SnapshotParts() = default;
  ~SnapshotParts() = default;
};

// A subscriber to one path: gets a snapshot of everything under it, then every change.
class ZEL_API Subscriber {
 public:
  // Everything under the path: once after subscribing, and again when changes may have been missed (a
  // connection was lost). An entity comes before those under it. The store does not change during the call.
  virtual void onSnapshot(const Records& records) = 0;
  // Takes a large snapshot in place of onSnapshot(); null, the default: every snapshot comes in one call.
  virtual SnapshotParts* snapshotParts() { return nullptr; }
  // The changes of a batch that are visible under the path. A del above the path arrives as a del of the
  // path.
  virtual void onChanges(const Changes& changes) = 0;
  // Visible values that differ from what this subscriber's own batch wrote: a volatile value over a stored
  // one that it put, a stored one under a volatile one that it removed. Calls onChanges by default.
  virtual void onRevealed(const Changes& changes);
  // Whether this process publishes at the path. It then owns the rows there, even those written by others.
  virtual bool publishes(Path) const { return false; }
  // The rows that it is notified of. Constant while it is subscribed.
  virtual Layer layer() const { return Layer::effective; }

 protected:
  Subscriber() = default;
  virtual ~Subscriber();
};

// How far one flush has come. Copies share the outcome. Tickets of a store complete in the order of its
// flushes.
class Ticket {
 public:
  // Of a flush that is done.
  enum class Kind : std::uint8_t {
    taken,    // everything that it covers is durable
    refused,  // the store refuses what was written; a retry would fail as well
    failed,   // nothing was stored; a retry may succeed
    unknown,  // the connection was lost: it may have been stored
  };
  struct Outcome {
    bool isDone = false;
    std::string failure{};     // empty: everything that the flush covers is durable
    Kind kind = Kind::failed;  // where there is a failure
  };

  // Of a flush that was durable when it returned.
  Ticket() = default;
  // Of one that another process completes: the store fills the outcome in later, from the loop.
  explicit Ticket(std::shared_ptr<const Outcome> outcome) : outcome_(std::move(outcome)) {}

  // Of one that failed at once.
  static Ticket failed(std::string why, Kind kind = Kind::failed) {
    return Ticket(std::make_shared<const Outcome>(Outcome{true, std::move(why), kind}));
  }

  bool isDone() const { return !outcome_ || outcome_->isDone; }
  // Why the flush stored nothing; empty if it succeeded or is not done.
  std::string failure() const { return outcome_ ? outcome_->failure : std::string(); }
  // REQUIRES: isDone().
  Kind kind() const { return outcome_ && !outcome_->failure.empty() ? outcome_->kind : Kind::taken; }

 private:
  std::shared_ptr<const Outcome> outcome_;
};

// Whether a store can be reached; one in this process always can.
struct StoreState {
  bool canBeLost = false;  // another process keeps it
  bool isReached = true;
  std::string reason{};  // while it is not reached, after a failed attempt: why, and what the store does

  // A mount that one process at a time may publish, or cover. Only of stores that several hosts share.
  struct Claim {
    std::string mount;
    std::string who{};      // the holder, for people; empty: nobody
    bool isOwn = false;     // this process is the holder
    bool isOrphan = false;  // the holder is gone; its rows stay for a while
    bool isOfCovers = false;
  };
  std::vector<Claim> claims{};
};

// Introduces a process to those that share its state.
struct Announcement {
  struct Agent {
    std::string name;
    std::string library;
  };
  std::int64_t pid = 0;
  std::string socket{};  // of its own clients
  std::vector<Agent> agents{};
  // Paths, as strings, so that none is interned.
  std::vector<std::string> publishes{};  // of its "wi" and "we" mounts
  std::vector<std::string> ends{};       // of its "we" mounts: what is published there ends with the process
  std::vector<std::string> covers{};     // of its "c" mounts
};

// The state database keeps a stored and a volatile value of each attribute. The volatile value, if any, is
// the visible one: it hides the stored value until it is removed.
//
//   step    stored                                      volatile
//   put     sets the stored value; a volatile one       sets the volatile value, which hides a stored one
//           stays visible
//   unset   removes both values                         removes the volatile value
//   del     removes the entity and all under it,        removes volatile values, and entities without stored
//           volatile values included                    ones, at the path and under it
//
// An entity with any stored value is stored itself.
//
// Covers are a layer of their own, over both. Only covers change covers:
//
//   step    cover
//   put     covers the attribute of an entity of that type; without an attribute, does nothing
//   unset   removes the cover of the attribute
//   del     removes the covers at the path and under it
//
// A cover never makes an entity. It shows while an entity of its type is at its path, and is kept while there
// is none, or one of another type; a put of another type than the covers' at the path replaces those. Stored
// and volatile values are written under covers as if there were none, and show once the cover is removed.
// Covers end with the process that wrote them.
class ZEL_API Store {
 public:
  virtual ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // The URL as on the command line ("sqlite:/var/lib/pinlamp/state.db").
  virtual std::string url() const = 0;
  // Always reached by default.
  virtual StoreState state() const;
  // The same as state().isReached, which is asked for in every turn.
  virtual bool isReached() const;
  // The rows, if this process keeps or mirrors them; null by default.
  virtual const Table* table() const;
  // Whether a batch of covers can be written. False by default.
  virtual bool takesCovers() const;

  // `subscriber` gets a snapshot, at once or as soon as the store is reached, then the changes until it
  // unsubscribes. A subscriber can be subscribed under one path only.
  virtual void subscribe(Path path, Subscriber& subscriber) = 0;
  virtual void unsubscribe(Subscriber& subscriber) = 0;

  // Takes a batch, all of it or nothing. The table shows it at once; the next flush() makes it durable and
  // notifies the subscribers other than `origin`. A put with another type replaces the entity at its path.
  // `origin` is notified of a batch of covers like the others. Throws RefusedError if a volatile put would
  // replace anything stored, if there would be too many covers, or if the store takes none; and StoreError.
  // REQUIRES: the durability is not stored, or there is a table().
  virtual void write(const Changes& changes, Durability durability, Subscriber* origin = nullptr) = 0;
  // Makes everything written so far durable in one step, then notifies the subscribers. If that fails, the
  // stored batches since the last flush are undone and no subscriber is notified of them. Throws
  // NotStoredError if it fails at once, or StoreError if volatile rows were undone as well because they could
  // not stay without the stored ones; fails the ticket if it fails later.
  virtual Ticket flush() = 0;

  // Introduces this process to those that share its state: now, and on every reconnect. Replaces the last
  // announcement. Does nothing by default.
  virtual void announce(const Announcement& announcement);

 protected:
  Store() = default;
};

}  // namespace Statedb
