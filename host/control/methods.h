// The methods of the control socket: docs/control-socket.md.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/control/object.h"
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
  std::string lastRefusal{};
  std::size_t clients = 0;
  double started = Zel::System::currentTime();
  std::function<void(const std::string&)> report = [](const std::string&) {};  // logs it
};

// One client of the control socket.
struct Caller {
  // Sends the notifications of its watches with `send`. `served` must outlive the caller.
  Caller(Served& served, std::int64_t thePid, Watches::Send send)
      : pid(thePid), watches(served.store, std::move(send)), process(served.announcements) {}

  const std::int64_t pid;  // 0: not known
  Watches watches;
  Announcements::Process process;
  bool wroteStored = false;  // its last write
};

class Methods {
 public:
  // A method's effect on rows, which decides when its result may be sent.
  enum class Does {
    nothing,
    sees,    // reads rows: everything written before must be durable
    writes,  // its own writes must be durable
  };
  struct Method {
    const char* name;
    Does does;
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
  std::string watch(const Zel::Value& parameters, Caller& caller) const;
  std::string unwatch(const Zel::Value& parameters, Caller& caller) const;
  std::string announce(const Zel::Value& parameters, Caller& caller) const;
  std::string types(const Zel::Value& parameters, Caller& caller) const;
  std::string trace(const Zel::Value& parameters, Caller& caller) const;
  std::string status(const Zel::Value& parameters, Caller& caller) const;
  std::string object(const Zel::Value& parameters, Caller& caller) const;

  std::string entitiesAt(const std::string& path) const;
  // Throws StoreError if another process keeps the rows.
  void expectTable(const char* method) const;

  Served& served_;
  const Statedb::Table* const table_;  // the rows; null if another process keeps them
  const Statedb::TypeAt typeAt_;
};

}  // namespace Host
