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
  // Looks among the agents of `host`, which keeps the state and must outlive this, and then in the processes
  // that announced themselves in its `status`.
  LedAgent(Client& host, const Json& status);

  // Whether it runs; not known where a process that may have it can't be asked.
  std::optional<bool> runs() const;
  // Why that is not known; one line.
  const std::string& error() const { return error_; }
  // Its path among the objects of its process, and that process's socket; empty for the host's.
  const std::string& path() const { return path_; }
  const std::string& socket() const { return socket_; }

  // The pins that it drives for an LED, by colour: those of its mapping when that became ready. Nothing where
  // it has made none. These throw Refusal where it can't be asked. REQUIRES: runs() is true.
  std::optional<PerColour<std::vector<std::string>>> pinsOf(const std::string& led) const;

  // Whether one of these pins is no longer what the state database has under its name: another LED's mapping
  // took it along when it went.
  bool isDetached(const std::string& led, std::size_t colour, const std::string& pin) const;

  // The state machine of one LED.
  struct Machine {
    std::string path;
    bool initialized = false;
    bool lit = false;              // the phase of flashing that its last tick showed
    std::optional<double> tickIn;  // seconds; nothing: no tick is due
  };
  std::optional<Machine> machineOf(const std::string& led) const;

 private:
  bool findIn(Client& client);
  Json ask(const std::string& operation, const std::string& path) const;
  std::string pinsPath(const std::string& led, std::size_t colour) const;
  bool hasMember(const std::string& collection, const std::string& name) const;

  Client* client_ = nullptr;  // of the process that has it; null: none was found
  std::unique_ptr<Client> own_;
  std::string path_;
  std::string socket_;
  std::string error_;
};

}  // namespace Ctl
