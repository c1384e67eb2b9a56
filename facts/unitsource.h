// The failed units of the service manager, from its signals on the system bus. Activity thread only.
#pragma once

#include <set>
#include <string>

#include "facts/bus.h"
#include "facts/sink.h"

namespace Facts {

class UnitSource {
 public:
  static constexpr std::size_t kMaxUnits = 1024;  // further ones are left out, and errorIs reports that

  // Connects, lists the failed units, and follows them; the sink's failed() is called where the bus or the
  // manager is not there. Throws SourceError if there is no bus, or it has already answered that the manager
  // is not there.
  explicit UnitSource(Sink<UnitFact>& sink);

  Bus& bus() { return bus_; }

 private:
  void follow(const std::string& rule, sd_bus_message_handler_t handler);
  void call(const char* member, sd_bus_message_handler_t handler, const char* state = nullptr);
  void list();
  void onSubscribed(sd_bus_message& answer);
  void onList(sd_bus_message& answer);
  void onProperties(sd_bus_message& signal);
  void onRemoved(sd_bus_message& signal);
  void onReloading(sd_bus_message& signal);
  void onOwner(sd_bus_message& signal);
  void unitIs(const std::string& name, const UnitFact& unit);
  void unitDel(const std::string& name);
  void report();

  Sink<UnitFact>& sink_;
  std::set<std::string> units_;
  bool omitted_ = false;
  Bus bus_;
};

}  // namespace Facts
