// Changes that a client gathers in several messages, and carries out as one batch: docs/control-socket.md.
//
//     Transactions all;               // of all clients
//     Transaction transaction(all);   // of one client
//     transaction.begin(Durability::stored, now);
//     transaction.gather(changes);    // parsed values
//     const auto gathered = transaction.end();
//     const Batch batch = readBatch(gathered.changes, context);
//
// A transaction ends with its client. One that exceeds a limit, or of whose client a request is refused, has
// failed: its changes are dropped, and every later use but rollback() throws the reason.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "host/rpc/changes.h"
#include "platform/statedb/store/store.h"
#include "platform/zel/object/type.h"

namespace Host {

// A change whose form was checked. Keeps its strings, none of which is interned.
struct GatheredChange {
  explicit GatheredChange(const RequestedChange& change);
  RequestedChange requested() const;
  // Bytes of memory that it holds.
  std::size_t held() const;

  Statedb::Change::Kind kind;
  bool existing;
  const Zel::TypeNode* type;  // null: omitted or unknown
  std::string path;
  std::string name;       // the attribute of an unset; the type of a put that is unknown
  Zel::Value attributes;  // null if omitted
};
using GatheredChanges = std::deque<GatheredChange>;

class Transaction;

// The transactions of all clients. Must outlive them.
class Transactions {
 public:
  static constexpr std::size_t kMostChanges = 1'000'000;            // of one
  static constexpr std::size_t kMostHeld = std::size_t{256} << 20;  // bytes of all that are open
  static constexpr double kLongest = 60;                            // seconds from begin to commit

  // Fails those that are open for longer than kLongest at `now`.
  void failLate(double now);
  // When the next one is late; infinity if none is open.
  double nextLate() const;

 private:
  friend class Transaction;

  std::deque<Transaction*> open_;  // in the order of their begin
  std::size_t held_ = 0;
};

class Transaction {
 public:
  explicit Transaction(Transactions& all) : all_(all) {}
  ~Transaction() { rollback(); }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  bool isOpen() const { return open_.has_value(); }
  // Throws RpcError if it is open.
  void begin(Statedb::Durability durability, double now);
  // Adds changes, and returns how many there are. Throws RpcError if one is wrong, if there would be too
  // many, or if the transaction has failed. REQUIRES: isOpen().
  std::size_t gather(const Zel::Value::List& changes);
  struct Gathered {
    Statedb::Durability durability;
    GatheredChanges changes;
  };
  // Ends it, and returns what it gathered. Throws RpcError if none is open, or if it has failed.
  Gathered end();
  void rollback();
  // Does nothing unless it is open and has not failed before.
  void fail(const std::string& why);

 private:
  friend class Transactions;
  struct Open {
    Statedb::Durability durability;
    double began;
    GatheredChanges changes{};
    std::size_t held = 0;
    std::string failure{};
  };

  void expectSound() const;
  void add(const Zel::Value& change);
  void drop();

  Transactions& all_;
  std::optional<Open> open_;
};

}  // namespace Host
