// The methods of the control socket: docs/control-socket.md. Those that write are in writemethods.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/control/object.h"
#include "host/control/transaction.h"
#include "host/control/watches.h"
#include "host/rpc/announce.h"
#include "host/rpc/json.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/store/schema.h"
#include "platform/statedb/store/store.h"
#include "platform/zel/notify/clock.h"

namespace Host {

// The parts of the host that the methods use. Owned by the host.
struct Served {
  Statedb::Store& store;
  Statedb::EntityManager& manager;
  Objects objects{};
  Announcements announcements{};
  Announcements::Process self{announcements};
  Transactions transactions{};
  std::string lastRefusal{};
  std::size_t clients = 0;
  double started = Zel::System::currentTime();
  std::function<void(const std::string&)> report = [](const std::string&) {};  // logs it
};

// The kind of rows that a request wrote, which decides when its answer may be sent.
enum class Wrote : std::uint8_t { nothing, volatileRows, storedRows };

// One client of the control socket.
struct Caller {
  // Sends the notifications of its watches with `send`. `served` must outlive the caller.
  Caller(Served& theServed, std::int64_t thePid, Watches::Send send)
      : pid(thePid),
        watches(theServed.store, std::move(send)),
        process(theServed.announcements),
        transaction(theServed.transactions),
        served(theServed) {}

  // Ends what others see of it: its announcement, the covers that it wrote, and the rows that end with it.
  void withdraw();
  // Removes the covers and the rows that end with an announcement, but for those that `next` has as well.
  void removeRows(const Announcement& ended, const Announcement& next = {});

  const std::int64_t pid;  // 0: not known
  Watches watches;
  Announcements::Process process;
  Transaction transaction;
  Served& served;
  Wrote wrote = Wrote::nothing;  // its last request
};

class Methods {
 public:
  struct Method {
    const char* name;
    bool sees;  // reads rows: everything written before must be durable
    std::initializer_list<std::string_view> parameters;
    // Returns the result as JSON.
    std::string (Methods::*run)(const Zel::Value& parameters, Caller& caller) const;
  };

  // `served` must outlive the methods.
  explicit Methods(Served& served);

  // Throws RpcError if there is no method of that name.
  static const Method& find(const std::string& name);
  // Returns the result as JSON. Throws RpcError.
  std::string run(const Method& method, const Zel::Value& parameters, Caller& caller) const;

 private:
  static std::span<const Method> table();

  std::string hello(const Zel::Value& parameters, Caller& caller) const;
  std::string read(const Zel::Value& parameters, Caller& caller) const;
  std::string write(const Zel::Value& parameters, Caller& caller) const;
  std::string begin(const Zel::Value& parameters, Caller& caller) const;
  std::string commit(const Zel::Value& parameters, Caller& caller) const;
  std::string rollback(const Zel::Value& parameters, Caller& caller) const;
  std::string watch(const Zel::Value& parameters, Caller& caller) const;
  std::string unwatch(const Zel::Value& parameters, Caller& caller) const;
  std::string announce(const Zel::Value& parameters, Caller& caller) const;
  std::string types(const Zel::Value& parameters, Caller& caller) const;
  std::string trace(const Zel::Value& parameters, Caller& caller) const;
  std::string status(const Zel::Value& parameters, Caller& caller) const;
  std::string object(const Zel::Value& parameters, Caller& caller) const;

  static std::string gather(const Zel::Value& parameters, Transaction& transaction);
  template <class List>
  std::string carryOut(const List& changes, Statedb::Durability durability, Caller& caller) const;
  // `parameters` have the layer.
  std::string entitiesAt(const std::string& path, const Zel::Value& parameters) const;
  // Throws StoreError if another process keeps the rows.
  void expectTable(const char* method) const;

  Served& served_;
  const Statedb::Table* const table_;  // the rows; null if another process keeps them
  const Statedb::TypeAt typeAt_;
};

}  // namespace Host
