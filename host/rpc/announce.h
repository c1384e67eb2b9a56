// Which process publishes which part of the state database.
//
// Only one agent writes under a "wi" mount. A process announces those paths to the host that keeps the state,
// which refuses writes there from anyone else:
//
//     Announcements announcements;
//     Announcements::Process led(announcements);
//     led.announce({.pid = 7, .socket = "/run/pinlamp/led.sock", .publishes =
//     {"hardware/corvel/gpio/config"}}); announcements.refusal(client, "hardware/corvel/gpio/config/gpio17",
//     false);  // names process 7 led.withdraw();  // as at the end of its connection
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/rpc/json.h"
#include "platform/statedb/store/store.h"

namespace Host {

using Statedb::Announcement;

// Reads {"pid", "socket", "agents": [{"name", "library"}], "publishes"}: at most 64 agents and 64 paths, and
// 4096 bytes for the path of a library or a socket. Throws Zel::ValueError if one is missing, exceeds its
// limit, or is no path to an entity.
Announcement announcementFrom(const Zel::Value& parameters);
Json announcementJson(const Announcement& announcement);

// All announcements in force. Outlives the processes in it.
class Announcements {
 public:
  // One that may announce: the host itself, or a client as long as it is connected.
  class Process {
   public:
    explicit Process(Announcements& all) : all_(all) {}
    ~Process() { withdraw(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // In the place of what it announced before. Throws Zel::ValueError, and changes nothing, where another
    // process fills one of the paths, something above it or something under it.
    void announce(Announcement announcement);
    void withdraw();
    const Announcement& announcement() const { return announcement_; }

   private:
    Announcements& all_;
    Announcement announcement_;
  };

  // Why `writer` may not change what stands at a path (and under it, where it is `removed`); empty where it
  // may.
  std::string refusal(const Process& writer, std::string_view path, bool removed) const;
  // Whether something is filled that stands under `path`, by whomever.
  bool leadsToFilled(std::string_view path) const;

  // In the order of announcing.
  const std::vector<const Process*>& processes() const { return processes_; }

 private:
  using Paths = std::map<std::string, const Process*, std::less<>>;

  // What another process than `writer` fills at or above a path, or under it; end() where none does.
  Paths::const_iterator filledAbove(const Process& writer, std::string_view path) const;
  Paths::const_iterator filledUnder(const Process& writer, std::string_view path) const;

  Paths paths_;
  std::vector<const Process*> processes_;
};

}  // namespace Host
