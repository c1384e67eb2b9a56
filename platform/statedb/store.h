// A store: the state database itself, or the way to it.
//
// Activity thread only. Feeds are called on it, never from within write(), from within flush() or when the
// host lets the store work.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/statedb/row.h"
#include "platform/zel/export.h"

namespace Statedb {

// A store that could not do what it was asked; nothing was changed. The text says what, where and why.
class ZEL_API StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~StoreError() override;
};

// Hears what stands under one path, and every change of it from then on.
class ZEL_API Feed {
 public:
  // Everything under the path that was subscribed to: once after subscribing, and again whenever the store
  // cannot tell what changed in between (a connection was lost). An entity comes before those under it. The
  // store does not change meanwhile.
  virtual void onSnapshot(const Records& records) = 0;
  // A batch as it was stored, less the steps that touch nothing under the path. A del of something above the
  // path arrives as it was written.
  virtual void onChanges(const Changes& changes) = 0;
  // Whether this process publishes what stands at the path: it answers for such rows, whoever made them
  // first.
  virtual bool publishes(Path) const { return false; }

 protected:
  Feed() = default;
  virtual ~Feed();
};

// How long rows are to live: as long as the store, or as long as the process that keeps them (derived values,
// which are never written to disk).
enum class Durability { stored, derived };

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
  // entity. Throws StoreError.
  virtual void write(const Changes& changes, Durability durability, Feed* origin = nullptr) = 0;
  // Makes everything that was written durable in one step, then tells the feeds. Throws StoreError where it
  // cannot be made durable: then everything since the last flush is undone, and no feed hears of it.
  virtual void flush() = 0;

  // Everything under a path, sorted as a person reads it, good until the next write. Stores that keep no rows
  // on this side throw StoreError.
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
  // Where the rows are kept as well: `persist` takes one stored batch, `commit` makes all of them durable at
  // once, `rollback` forgets them. They throw StoreError; a `persist` that does leaves nothing of its batch
  // behind.
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
