// The methods of the control socket: docs/control-socket.md.
#pragma once

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/json.h"
#include "host/object.h"
#include "host/watches.h"
#include "platform/statedb/entitymanager.h"
#include "platform/statedb/store.h"
#include "platform/zel/clock.h"

namespace Host {

// What the methods are about. Owned by the host.
struct Served {
  struct Agent {
    std::string name;
    std::string library;
  };

  Statedb::Store& store;
  Statedb::EntityManager& manager;
  Objects objects{};
  std::vector<Agent> agents{};
  std::string lastRefusal{};
  std::size_t clients = 0;
  double started = Zel::System::currentTime();
};

class Methods {
 public:
  // What a method does besides returning its result.
  enum class Does {
    nothing,
    sees,    // looks at rows: everything that was written before must be durable
    writes,  // its result counts once what it wrote is durable
  };
  struct Method {
    const char* name;
    Does does;
    std::initializer_list<std::string_view> parameters;
    Json (Methods::*run)(const Json& parameters, Watches& watches) const;
  };

  // `served` must outlive the methods.
  explicit Methods(Served& served) : served_(served) {}

  // Throws RpcError where there is no method of that name.
  static const Method& find(const std::string& name);
  // `watches` are the caller's. Throws RpcError.
  Json run(const Method& method, const Json& parameters, Watches& watches) const;

 private:
  static std::span<const Method> table();

  Json hello(const Json& parameters, Watches& watches) const;
  Json read(const Json& parameters, Watches& watches) const;
  Json write(const Json& parameters, Watches& watches) const;
  Json watch(const Json& parameters, Watches& watches) const;
  Json unwatch(const Json& parameters, Watches& watches) const;
  Json types(const Json& parameters, Watches& watches) const;
  Json trace(const Json& parameters, Watches& watches) const;
  Json status(const Json& parameters, Watches& watches) const;
  Json object(const Json& parameters, Watches& watches) const;

  std::string typeAt(const std::string& path) const;

  Served& served_;
};

}  // namespace Host
