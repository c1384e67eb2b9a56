// The facts that a server tells about itself and its user's rights, as far as the user may ask.
//
//     gatherFacts(connection, caller, url, [&](const ServerFacts& facts) { … });
//     connection.flush();
//
// Changes nothing on the server, and needs no right beyond those of a reader. What the server refuses is left
// out, with the reason.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/redis/connection.h"
#include "host/store/redis/follower.h"
#include "host/store/redis/scripts.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

// The uses that a process makes of the database, each with rights of its own.
enum class Role : std::uint8_t {
  reader,     // every process
  writer,     // stored rows
  publisher,  // volatile rows, under a claim
};

// A command that a role needs, with keys of the database. It is only checked, never run.
struct Need {
  Role role;
  std::vector<std::string> words;
};
// Every command that the upstream and the scripts use. ACLs may tell directories and claims apart, so a
// command that writes to these stands here with another key.
std::vector<Need> needsOf(std::string_view prefix);

struct ServerFacts {
  // A set of values, or why there is none.
  struct Values {
    std::map<std::string, std::string, std::less<>> values{};
    std::string refused{};
    // Nothing where the server has no such value.
    std::optional<std::string> operator[](std::string_view name) const;
    // 0 where there is none, or it is no number.
    std::uint64_t number(std::string_view name) const;
  };
  enum class May : std::uint8_t { yes, no, noCommand };  // noCommand: renamed, disabled or not known
  struct Right {
    Role role;
    std::string command;  // with its keys
    May may = May::yes;
  };
  struct Directory {
    std::string path;
    bool mayWrite = false;
  };
  struct Space {
    std::string generation{};
    Revision first = 0, tip = 0;  // of the log; 0: it is empty
    std::string refused{};
  };

  std::string user{};  // empty: it may not ask
  Values info{};
  Values config{};
  std::vector<Right> rights{};  // empty: see scriptsRefused
  std::string scriptsRefused{};
  std::vector<Directory> directories{};  // stored ones, kMostDirectories at most
  Space stored{}, volatile_{}, covers{};
  std::vector<double> pings{};  // milliseconds; gatherFacts() leaves them out
};

inline constexpr std::size_t kMostDirectories = 1000;

// `then` is called once, from a reply; never where the connection is lost before. `connection` and `caller`
// must outlive that, and may not be destroyed by it. REQUIRES: the connection is ready.
void gatherFacts(Connection& connection, Caller& caller, const Url& url,
                 std::function<void(const ServerFacts& facts)> then);

// "name:value" lines, as INFO answers.
std::map<std::string, std::string, std::less<>> infoIn(std::string_view text);

}  // namespace Host::Redis
