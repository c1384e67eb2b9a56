// A store that keeps its rows in memory, and the base of stores that also keep them in a file.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "platform/statedb/store/store.h"
#include "platform/zel/core/export.h"

namespace Statedb {

struct MemoryState;

class ZEL_API MemoryStore : public Store, public Table {
 public:
  MemoryStore();
  ~MemoryStore() override;

  std::string url() const override { return "memory:"; }
  const Table* table() const override { return this; }
  bool takesCovers() const override { return true; }
  void subscribe(Path path, Subscriber& subscriber) override;
  void unsubscribe(Subscriber& subscriber) override;
  void write(const Changes& changes, Durability durability, Subscriber* origin = nullptr) override;
  Ticket flush() override;

  Records read(Path path) const override;
  Records readBase(Path path) const override;
  Records readCovers(Path path) const override;
  Zel::Name typeAt(Path path) const override;
  std::size_t entities() const override;
  std::unordered_map<Zel::Name, std::size_t> entitiesByType() const override;

 protected:
  // For stores with a file: `persist` takes the stored part of a batch, `commit` makes all batches durable at
  // once, `rollback` drops them; neither is called for volatile rows alone. They throw StoreError; a
  // `persist` that throws keeps nothing of its batch.
  virtual void persist(const Changes&) {}
  virtual void commit() {}
  virtual void rollback() {}
  // Loads a durable row at start-up. Throws ValueError, and keeps the first, where there are two of an
  // attribute.
  void restore(Row row);

 private:
  void publish();
  std::size_t undoStored();
  std::size_t writeAgain(const Changes& changes, Durability durability, Subscriber* origin);
  void writeCovers(const Changes& changes);

  std::unique_ptr<MemoryState> state_;
};

}  // namespace Statedb
