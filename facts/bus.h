// A connection to the system's D-Bus bus on the activity thread, by sd-bus.
#pragma once

#include <systemd/sd-bus.h>

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "facts/sink.h"
#include "facts/timer.h"
#include "platform/zel/notify/fdwatch.h"

namespace Facts {

// Throws SourceError with `doing` where an sd-bus call returned an error; else returns its result.
int checkBus(int result, const std::string& doing);

class Bus {
 public:
  // Connects to DBUS_SYSTEM_BUS_ADDRESS, or to where the bus usually is. `ready` is called when run() has
  // something to do. Throws SourceError where there is no bus.
  explicit Bus(std::function<void()> ready);

  sd_bus* get() const { return bus_.get(); }
  // Sends and receives; call it after calls from outside a handler, too. Throws SourceError where the
  // connection is lost, and what a handler threw.
  void run();
  // For handlers: C must not be crossed by exceptions.
  void threw(std::exception_ptr exception) { thrown_ = std::move(exception); }

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };

  void arm();

  std::unique_ptr<sd_bus, Close> bus_;
  std::exception_ptr thrown_;
  const Zel::Ptr<Timer> timer_;
  std::optional<Zel::FdWatch> watch_;
};

// A handler of sd-bus that is a member function of `Object`, which has the connection as bus().
template <class Object, void (Object::*handler)(sd_bus_message&)>
int onBus(sd_bus_message* message, void* object, sd_bus_error*) {
  auto& self = *static_cast<Object*>(object);
  try {
    (self.*handler)(*message);
  } catch (...) {
    self.bus().threw(std::current_exception());
  }
  return 0;
}

}  // namespace Facts
