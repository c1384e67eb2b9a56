// The LED agent's live objects, in whichever process it runs.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ctl/appliance.h"

namespace Ctl {

class LedAgent {
 public:
  // Searches the agents of `host`, which keeps the state and must outlive this, then the processes announced
  // in its `status`. Asks none of them if a process elsewhere publishes the pins: theirs is a standby.
  LedAgent(Client& host, const Json& status);

  // nullopt if a process that may run it does not answer.
  std::optional<bool> runs() const;
  // Why runs() is unknown; one line.
  const std::string& error() const { return error_; }
  // Its object path in its process, and that process's control socket; empty: the host's own.
  const std::string& path() const { return path_; }
  const std::string& socket() const { return socket_; }

  // The following throw Refusal if the agent does not answer. REQUIRES: runs() is true.

  // The pins that it drives for an LED, by colour: those of the mapping when it became ready. nullopt if it
  // has created none.
  std::optional<PerColour<std::vector<std::string>>> pinsOf(const std::string& led) const;

  // Whether one of these pins is gone from the state database: it was removed with another LED's mapping.
  bool isDetached(const std::string& led, std::size_t colour, const std::string& pin) const;

  // The state machine of one LED.
  struct Machine {
    std::string path;
    bool initialized = false;
    bool lit = false;              // the flash phase of its last tick
    std::optional<double> tickIn;  // seconds; nullopt: no tick is pending
  };
  std::optional<Machine> machineOf(const std::string& led) const;

 private:
  bool findIn(Client& client);
  Json ask(const std::string& operation, const std::string& path) const;
  std::string pinsPath(const std::string& led, std::size_t colour) const;
  bool hasMember(const std::string& collection, const std::string& name) const;

  Client* client_ = nullptr;  // of its process; null: not found
  std::unique_ptr<Client> own_;
  std::string path_;
  std::string socket_;
  std::string error_;
};

}  // namespace Ctl
