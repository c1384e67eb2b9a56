// The paths that each process publishes or covers.
//
// Only one agent writes where it publishes, and only one process covers what is under a "c" mount. A process
// announces those paths to the host that keeps the state, which refuses other processes' writes there:
//
//     Announcements announcements;
//     Announcements::Process led(announcements);
//     led.announce({.pid = 7, .socket = "/run/led.sock", .publishes = {"hardware/corvel/gpio/config"}});
//     announcements.refusal(client, "hardware/corvel/gpio/config/gpio17", false);  // names process 7
//     led.withdraw();  // so does the end of its connection
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

// Reads {"pid", "socket", "agents": [{"name", "library"}], "publishes", "ends", "covers"}: at most 64 agents
// and 64 paths each, and 4096 bytes for the path of a library or a socket. Throws Zel::ValueError if one but
// "ends" and "covers" is missing, exceeds its limit, or is no path to an entity.
Announcement announcementFrom(const Zel::Value& parameters);
Json announcementJson(const Announcement& announcement);

// All current announcements. Must outlive its processes.
class Announcements {
 public:
  // An announcing process: the host itself, or a connected client.
  class Process {
   public:
    explicit Process(Announcements& all) : all_(all) {}
    ~Process() { withdraw(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Replaces the last announcement. Throws Zel::ValueError, and changes nothing, if another process
    // publishes or covers one of the paths, or a path above or under it.
    void announce(Announcement announcement);
    void withdraw();
    const Announcement& announcement() const { return announcement_; }

   private:
    Announcements& all_;
    Announcement announcement_;
  };

  // Why `writer` may not change the entity at a path, or if `removed` all under it; empty if it may.
  std::string refusal(const Process& writer, std::string_view path, bool removed) const;
  // Why `writer` may not cover attributes at a path; empty if it may: it announced that, or a path above.
  std::string coverRefusal(const Process& writer, std::string_view path) const;
  // Whether any process publishes a path under `path`.
  bool leadsToPublished(std::string_view path) const;

  // How often any process announced or withdrew.
  std::size_t changes() const { return changes_; }
  // In the order of their announcements.
  const std::vector<const Process*>& processes() const { return processes_; }

 private:
  using Paths = std::map<std::string, const Process*, std::less<>>;

  // A path at or above `path`, or under it, of a process other than `writer`; end() if none.
  static Paths::const_iterator above(const Paths& paths, const Process& writer, std::string_view path);
  static Paths::const_iterator under(const Paths& paths, const Process& writer, std::string_view path);
  // Why `writer` may not announce a path; empty if it may.
  std::string conflict(const Process& writer, std::string_view path) const;

  Paths paths_;  // published
  Paths covered_;
  std::vector<const Process*> processes_;
  std::size_t changes_ = 0;
};

}  // namespace Host
