// A store: the state database itself, or the way to it.
//
// Activity thread only. Feeds are called on it, never from within write(), from within flush() or when the
// host lets the store work.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/statedb/store/row.h"
#include "platform/zel/core/export.h"

namespace Statedb {

// A store that could not do what it was asked; nothing was changed. The text says what, where and why.
class ZEL_API StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~StoreError() override;
};

// A batch that the store can't take now or later, as it is.
class ZEL_API RefusedError : public StoreError {
 public:
  using StoreError::StoreError;
  ~RefusedError() override;
};

// Hears what stands under one path, and every change of it from then on.
class ZEL_API Feed {
 public:
  // Everything under the path that was subscribed to: once after subscribing, and again whenever the store
  // cannot tell what changed in between (a connection was lost). An entity comes before those under it. The
  // store does not change meanwhile.
  virtual void onSnapshot(const Records& records) = 0;
  // The part of a batch that changed what is seen under the path. A del of something above the path arrives
  // as one of the path itself.
  virtual void onChanges(const Changes& changes) = 0;
  // What is seen where it is not what a batch that this feed is the origin of wrote: a derived value over a
  // stored one that it put, a stored one where it took the derived one away. Is a batch of changes unless
  // overridden.
  virtual void onRevealed(const Changes& changes);
  // Whether this process publishes what stands at the path: it answers for such rows, whoever made them
  // first.
  virtual bool publishes(Path) const { return false; }

 protected:
  Feed() = default;
  virtual ~Feed();
};

// The state database keeps stored and derived values of one entity side by side, attribute by attribute. The
// derived value is seen where there is one, by read() and by the feeds; the stored one is kept under it, and
// seen again when the derived one goes.
//
//   step    stored                                       derived
//   put     the value is kept; unseen under a derived    is seen in place of a stored value
//   unset   the attribute loses both values              the derived value goes
//   del     the entity goes, and all under it, with      derived values and entities of which nothing is
//           the derived values                           stored go, at the path and under it
//
// An entity of which anything was put as stored is stored itself.
class ZEL_API Store {
 public:
  virtual ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Where the store is, as the command line says it ("sqlite:/var/lib/pinlamp/state.db").
  virtual std::string url() const = 0;

  // `feed` hears of everything under `path` until it is unsubscribed; a snapshot comes first, either at once
  // or as soon as the store is reached. A feed may be subscribed under one path only.
  virtual void subscribe(Path path, Feed& feed) = 0;
  virtual void unsubscribe(Feed& feed) = 0;

  // Takes a batch: all of it or nothing. It can be read back at once; it is durable, and told to the feeds
  // other than `origin`, by the next flush(). A put for a path whose entity has another type replaces the
  // entity, but RefusedError is thrown where a derived put would replace anything stored. Throws StoreError.
  virtual void write(const Changes& changes, Durability durability, Feed* origin = nullptr) = 0;
  // Makes everything that was written durable in one step, then tells the feeds. Throws StoreError where it
  // cannot be made durable: then everything since the last flush is undone, and no feed hears of it.
  virtual void flush() = 0;

  // Everything under a path as it is seen, sorted as a person reads it, good until the next write. Stores
  // that keep no rows on this side throw StoreError.
  virtual Records read(Path path) const = 0;

 protected:
  Store() = default;
};

// Keeps its rows in memory. The ground of the stores that keep them elsewhere as well.
class ZEL_API MemoryStore : public Store {
 public:
  MemoryStore();
  ~MemoryStore() override;

  std::string url() const override { return "memory:"; }
  void subscribe(Path path, Feed& feed) override;
  void unsubscribe(Feed& feed) override;
  void write(const Changes& changes, Durability durability, Feed* origin = nullptr) override;
  void flush() override;
  Records read(Path path) const override;

  // The type of the entity at a path; empty where there is none.
  Zel::Name typeAt(Path path) const;
  std::size_t entities() const;
  // How many of them are of a type. Looks at every one.
  std::size_t entities(Zel::Name type) const;

 protected:
  // Where the rows are kept as well: `persist` takes the stored part of a batch, `commit` makes all of them
  // durable at once, `rollback` forgets them. They throw StoreError; a `persist` that does leaves nothing of
  // its batch behind.
  virtual void persist(const Changes&) {}
  virtual void commit() {}
  virtual void rollback() {}
  // For the start: takes a row that is durable already. REQUIRES: no row of that path and attribute is there.
  void restore(Row row);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Statedb
