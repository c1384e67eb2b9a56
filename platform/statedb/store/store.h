// A store: the state database itself, or a connection to it.
//
//     MemoryStore store;
//     store.subscribe("hardware/led", subscriber);  // gets a snapshot, then the changes of each flush
//     store.write({Change::put(path, "Hardware::Led::LedConfig", "theme", "night")}, Durability::stored);
//     store.flush();
//     for (const Record* record : store.read("hardware/led")) print(record->path);
//
// Activity thread only. Feeds are called from flush(), or when the host lets the store work; never from
// write().
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/statedb/store/row.h"
#include "platform/zel/core/export.h"

namespace Statedb {

// The store failed and changed nothing. The text says what, where and why.
class ZEL_API StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~StoreError() override;
};

// The store refuses this batch, and would again.
class ZEL_API RefusedError : public StoreError {
 public:
  using StoreError::StoreError;
  ~RefusedError() override;
};

// A subscriber to one path: gets what stands under it, and every change from then on.
class ZEL_API Subscriber {
 public:
  // Everything under the path: once after subscribing, and again when changes may have been missed (a
  // connection was lost). An entity comes before those under it. The store does not change during the call.
  virtual void onSnapshot(const Records& records) = 0;
  // The changes of a batch that are visible under the path. A del above the path arrives as a del of the
  // path.
  virtual void onChanges(const Changes& changes) = 0;
  // The visible values where they differ from what a batch of this subscriber's own wrote: a volatile value
  // over a stored one that it put, a stored one under a volatile one that it removed. Calls onChanges by
  // default.
  virtual void onRevealed(const Changes& changes);
  // Whether this process publishes at the path. It then owns the rows there, whoever wrote them first.
  virtual bool publishes(Path) const { return false; }

 protected:
  Subscriber() = default;
  virtual ~Subscriber();
};

// The state database keeps a stored and a volatile value of each attribute of an entity. read() and the
// subscribers see the volatile value where there is one; the stored one is kept under it and shows again when
// the volatile one goes.
//
//   step    stored                                       volatile
//   put     the value is kept; unseen under a volatile    is seen in place of a stored value
//   unset   the attribute loses both values              the volatile value goes
//   del     the entity goes, and all under it, with      volatile values and entities of which nothing is
//           the volatile values                           stored go, at the path and under it
//
// An entity with any stored value is stored itself.
class ZEL_API Store {
 public:
  virtual ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // The URL as on the command line ("sqlite:/var/lib/pinlamp/state.db").
  virtual std::string url() const = 0;

  // `subscriber` gets a snapshot, at once or as soon as the store is reached, then the changes until it
  // unsubscribes. A subscriber can be subscribed under one path only.
  virtual void subscribe(Path path, Subscriber& subscriber) = 0;
  virtual void unsubscribe(Subscriber& subscriber) = 0;

  // Takes a batch, all of it or nothing. read() sees it at once; the next flush() makes it durable and
  // notifies the subscribers other than `origin`. A put with another type replaces the entity at its path.
  // Throws RefusedError if a volatile put would replace anything stored, and StoreError.
  virtual void write(const Changes& changes, Durability durability, Subscriber* origin = nullptr) = 0;
  // Makes everything written so far durable in one step, then notifies the subscribers. Throws StoreError if
  // that fails: everything since the last flush is undone, and no subscriber is notified.
  virtual void flush() = 0;

  // Everything visible under a path, sorted as a person reads it, valid until the next write. A store without
  // rows on this side throws StoreError.
  virtual Records read(Path path) const = 0;

 protected:
  Store() = default;
};

// Keeps its rows in memory. The base of stores that keep them elsewhere as well.
class ZEL_API MemoryStore : public Store {
 public:
  MemoryStore();
  ~MemoryStore() override;

  std::string url() const override { return "memory:"; }
  void subscribe(Path path, Subscriber& subscriber) override;
  void unsubscribe(Subscriber& subscriber) override;
  void write(const Changes& changes, Durability durability, Subscriber* origin = nullptr) override;
  void flush() override;
  Records read(Path path) const override;

  // The type of the entity at a path; empty where there is none.
  Zel::Name typeAt(Path path) const;
  std::size_t entities() const;
  // How many of each type there are. Linear.
  std::unordered_map<Zel::Name, std::size_t> entitiesByType() const;

 protected:
  // For stores that keep rows elsewhere: `persist` takes the stored part of a batch, `commit` makes all of
  // them durable at once, `rollback` drops them. They throw StoreError; a `persist` that throws keeps nothing
  // of its batch.
  virtual void persist(const Changes&) {}
  virtual void commit() {}
  virtual void rollback() {}
  // For the start: takes a row that is durable already. REQUIRES: there is no row of that path and attribute.
  void restore(Row row);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Statedb
