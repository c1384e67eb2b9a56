#include <algorithm>

#include "host/control/batch.h"
#include "host/control/methods.h"
#include "host/rpc/rpc.h"
#include "platform/zel/notify/clock.h"

namespace Host {

namespace {

Statedb::Durability durabilityField(const Zel::Value& parameters) {
  const std::string& text = textField(parameters, "durability");
  if (text.empty() || text == "stored") return Statedb::Durability::stored;
  if (text == "volatile") return Statedb::Durability::volatile_;
  if (text == "cover") return Statedb::Durability::cover;
  throw Zel::ValueError("'durability': found \"" + Zel::excerpt(text) +
                        "\", expected \"stored\", \"volatile\" or \"cover\"");
}

// Removes what has that durability at and under the paths, but for those that are among `kept`.
void remove(Statedb::Store& store, Statedb::Durability durability, const std::vector<std::string>& paths,
            const std::vector<std::string>& kept) {
  Statedb::Changes changes;
  for (const std::string& path : paths) {
    const auto known = Statedb::Path::existing(path);  // nothing is under one that is not interned
    if (known && std::ranges::find(kept, path) == kept.end()) changes.push_back(Statedb::Change::del(*known));
  }
  if (!changes.empty()) store.write(changes, durability);
}

}  // namespace

void Caller::removeRows(const Announcement& ended, const Announcement& next) {
  try {
    remove(served.store, Statedb::Durability::cover, ended.covers, next.covers);
    remove(served.store, Statedb::Durability::volatile_, ended.ends, next.ends);
  } catch (const Statedb::StoreError& error) {
    served.report("what process " + std::to_string(ended.pid) + " published stays: " + error.what());
  }
}

void Caller::withdraw() {
  removeRows(process.announcement());
  process.withdraw();
}

template <class List>
std::string Methods::carryOut(const List& changes, Statedb::Durability durability, Caller& caller) const {
  const bool isVolatile = durability != Statedb::Durability::stored;
  const auto batch = readBatch(changes, {.typeAt = typeAt_,
                                         .mounts = served_.manager.mounts(),
                                         .announcements = served_.announcements,
                                         .writer = caller.process,
                                         .durability = durability});
  if (!batch.errors.empty()) throw refusedFor(batch.errors);
  // A mount is stored, even if the first write under it is volatile.
  caller.wrote = isVolatile && batch.mounts.empty() ? Wrote::volatileRows : Wrote::storedRows;
  if (isVolatile && !batch.mounts.empty()) {
    expectTable("write");
    served_.store.write(batch.mounts, Statedb::Durability::stored, caller.watches.origin());
  }
  served_.store.write(batch.changes, durability, caller.watches.origin());
  return "{\"written\":" + std::to_string(changes.size()) + '}';
}

std::string Methods::write(const Zel::Value& parameters, Caller& caller) const {
  if (caller.transaction.isOpen()) return gather(parameters, caller.transaction);
  const auto durability = durabilityField(parameters);
  if (durability == Statedb::Durability::stored) expectTable("write");
  return carryOut(listField(parameters, "changes"), durability, caller);
}

std::string Methods::gather(const Zel::Value& parameters, Transaction& transaction) {
  if (parameters.field("durability"))
    throw Zel::ValueError("'durability' is the transaction's; give it to begin");
  return "{\"gathered\":" + std::to_string(transaction.gather(listField(parameters, "changes"))) + '}';
}

std::string Methods::begin(const Zel::Value& parameters, Caller& caller) const {
  const auto durability = durabilityField(parameters);
  if (durability == Statedb::Durability::stored) expectTable("begin");
  caller.transaction.begin(durability, Zel::System::currentTime());
  return "{}";
}

std::string Methods::commit(const Zel::Value&, Caller& caller) const {
  const auto gathered = caller.transaction.end();
  return carryOut(gathered.changes, gathered.durability, caller);
}

std::string Methods::rollback(const Zel::Value&, Caller& caller) const {
  caller.transaction.rollback();
  return "{}";
}

}  // namespace Host
