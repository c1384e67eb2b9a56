// The URL of a state database on Redis: its address and its options.
//
//     const Url url = parseUrl("redis-unix:/run/redis/redis.sock?prefix=rack3&hold=never");
//     connect(std::get<SocketAddress>(url.at).path, url.timeout);
//
//     redis-unix:/PATH[?OPTIONS]                        a server on this machine
//     redis://[USER@]HOST[:PORT][/DB][?OPTIONS]         a server elsewhere; an IPv6 address in brackets
//     redis+sentinel://HOST[:PORT],…/NAME[?OPTIONS]     the master that these sentinels know as NAME
//
// OPTIONS are joined by '&'. Paths, names and options may have %XX.
//
//     prefix=NAME          the start of every key ("pinlamp")
//     hold=TIME|never      how long volatile rows stay when their publisher is gone (30s)
//     lease=TIME           a claim without a heartbeat for so long may be taken over (5s)
//     log=COUNT            changes that the log keeps for readers that were away (10000)
//     timeout=TIME         a server that takes longer to answer counts as lost (1s)
//     passwordFile=FILE    its first line is the password; with redis-unix: and sentinels, user=USER as well
//
// A time is a number with the unit "ms", "s", "m" or "h". A password is never part of a URL: other users of
// the machine can read command lines.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Host::Redis {

struct SocketAddress {
  std::string path;
  bool operator==(const SocketAddress&) const = default;
};
struct HostAddress {
  std::string host;
  std::uint16_t port = 6379;
  bool operator==(const HostAddress&) const = default;
};
struct SentinelAddress {
  std::vector<HostAddress> sentinels;
  std::string name;
  bool operator==(const SentinelAddress&) const = default;
};

// "/run/redis.sock", "host:6379", "[::1]:6379", "NAME at host:26379,host2:26379".
using Address = std::variant<SocketAddress, HostAddress, SentinelAddress>;
std::string addressText(const Address& address);

using Milliseconds = std::chrono::milliseconds;

struct Url {
  // Longer URLs are refused, and longer prefixes.
  static constexpr std::size_t kLongest = 4096;
  static constexpr std::size_t kLongestPrefix = 64;
  // Of `hold`: volatile rows stay until their publisher removes them.
  static constexpr Milliseconds kNever = Milliseconds::max();

  Address at;
  unsigned database = 0;
  std::string user{};          // empty: the server's default user
  std::string passwordFile{};  // empty: there is no password
  std::string prefix = "pinlamp";
  Milliseconds hold{30'000};
  Milliseconds lease{5'000};
  Milliseconds timeout{1'000};
  std::uint32_t log = 10'000;
};

// Whether a URL is of one of these kinds.
bool isRedisUrl(std::string_view url);
// Throws Statedb::StoreError: what is wrong, where, and what would be right. Its text never repeats anything
// that may be a password.
Url parseUrl(std::string_view url);

}  // namespace Host::Redis
