#include "host/store/redis/servercheck.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "host/store/redis/layout.h"

namespace Host::Redis {

namespace {

using Result = Finding::Result;
using Findings = std::vector<Finding>;

constexpr unsigned kOldestVersion = 7;
constexpr std::uint64_t kOutputLimit = 32 << 20;
constexpr std::uint64_t kMostLag = 2;  // seconds that a failover may lose
constexpr std::size_t kFewestSentinels = 3;
constexpr double kFull = 0.8;              // of a limit
constexpr double kSlowPing = 10;           // milliseconds
constexpr std::size_t kMostInMessage = 5;  // commands or directories that a message names

struct Checks {
  const ServerFacts& facts;
  const Url& url;
  Findings findings{};

  void add(Result result, const char* name, std::string found, std::string remedy = "") {
    findings.push_back({result, name, std::move(found), std::move(remedy)});
  }
  // A line of the configuration: nothing to do where it is fine.
  void setting(const char* name, Result result, const std::string& found, const std::string& value) {
    add(result, name, found, result == Result::ok ? "" : std::string(name) + " " + value);
  }
  std::string info(std::string_view name) const { return facts.info[name].value_or(""); }
  bool hasConfig(std::string_view name) const { return facts.config[name].has_value(); }
  std::string config(std::string_view name) const { return facts.config[name].value_or(""); }

  bool isSentinel() const { return std::holds_alternative<SentinelAddress>(url.at); }

  void refusals();
  void version();
  void role();
  void user();
  void rights(Role role, const char* name, const char* without);
  void directories();
  void appendOnly();
  void appendSync();
  void fileWrites();
  void snapshots();
  void policy();
  void memory();
  void outputLimit();
  void minReplicas();
  void exposure();
  void clients();
  void space(const char* name, const ServerFacts::Space& space);
  void latency();
};

std::string listed(const std::vector<std::string>& texts) {
  std::string all;
  for (std::size_t i = 0; i < std::min(texts.size(), kMostInMessage); ++i) all += (i ? ", " : "") + texts[i];
  return all + (texts.size() > kMostInMessage ? ", …" : "");
}

std::string bytesText(std::uint64_t bytes) {
  constexpr std::array kUnits{"bytes", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  for (; bytes >= 10'240 && unit + 1 < kUnits.size(); ++unit) bytes /= 1024;
  return std::to_string(bytes) + " " + kUnits[unit];
}

std::string millisecondsText(double value) {
  char text[32];
  std::snprintf(text, sizeof text, value < 10 ? "%.2f ms" : "%.0f ms", value);
  return text;
}

void Checks::refusals() {
  if (!facts.info.refused.empty())
    add(Result::wrong, "INFO", "the user may not call it (" + facts.info.refused + "), but the store must",
        "ACL: +info");
  if (!facts.config.refused.empty())
    add(Result::note, "CONFIG GET",
        "the user may not call it, so settings that INFO does not show were not checked (" +
            facts.config.refused + ")",
        "check once as a user with +config|get");
}

void Checks::version() {
  const std::string version = info("redis_version");
  if (version.empty()) return;
  const bool isNew = std::strtoul(version.c_str(), nullptr, 10) >= kOldestVersion;
  add(isNew ? Result::ok : Result::wrong, "version",
      version + (isNew ? "" : ": scripts need read-only calls and ACLs that older servers do not have"),
      isNew ? "" : "install Redis 7.0 or later");
}

void Checks::role() {
  const std::string role = info("role");
  if (role == "slave")
    add(Result::wrong, "role",
        "a replica of " + info("master_host") + ":" + info("master_port") + ", which takes no writes",
        "name the master in the URL, or the sentinels: redis+sentinel://HOST,HOST,HOST/NAME");
  if (role == "master") add(Result::ok, "role", "master");
  if (info("redis_mode") == "cluster")
    add(Result::note, "cluster-enabled", "yes: the store stays with this node and follows no redirection",
        "cluster-enabled no");
}

void Checks::user() {
  const std::string named = url.user.empty() ? "default" : url.user;
  const std::string who = facts.user.empty() ? named : facts.user;
  add(Result::ok, "user", who + (url.passwordFile.empty() ? ", without a password" : ", with a password"));
}

void Checks::rights(Role role, const char* name, const char* without) {
  std::vector<std::string> refused, missing;
  for (const ServerFacts::Right& each : facts.rights) {
    if (each.role != role) continue;
    if (each.may == ServerFacts::May::no) refused.push_back(each.command);
    if (each.may == ServerFacts::May::noCommand)
      missing.push_back(each.command.substr(0, each.command.find(' ')));
  }
  if (!missing.empty())
    return add(Result::wrong, name, "the server has no " + listed(missing),
               "no rename-command; the scripts call commands by their own names");
  if (refused.empty()) return add(Result::ok, name, "all");
  // Without its log nothing of a space can be written.
  const Keys keys(url.prefix,
                  role == Role::writer ? Statedb::Durability::stored : Statedb::Durability::volatile_);
  const bool isAll = std::ranges::any_of(
      refused, [&](const std::string& each) { return each.starts_with("XADD " + keys.log()); });
  add(isAll ? Result::note : Result::wrong, name,
      isAll ? std::string("none: ") + without : "the user may not: " + listed(refused),
      isAll ? "" : "complete the user's ACL; docs/shared-state.md has one for each role");
}

void Checks::directories() {
  if (facts.directories.empty()) return;
  std::vector<std::string> mayWrite;
  for (const ServerFacts::Directory& each : facts.directories)
    if (each.mayWrite) mayWrite.push_back(each.path.empty() ? "''" : each.path);
  const std::string count = std::to_string(facts.directories.size());
  if (mayWrite.size() == facts.directories.size())
    return add(Result::ok, "directories", "all " + count + " writable");
  add(Result::ok, "directories",
      std::to_string(mayWrite.size()) + " of " + count + " writable" +
          (mayWrite.empty() ? "" : ": " + listed(mayWrite)));
}

void Checks::appendOnly() {
  if (facts.info.values.empty()) return;
  const bool isOn = info("aof_enabled") == "1";
  setting("appendonly", isOn ? Result::ok : Result::wrong,
          isOn ? "yes" : "no: a server that ends takes acknowledged writes with it", "yes");
}

void Checks::appendSync() {
  if (!hasConfig("appendfsync")) return;
  const std::string value = config("appendfsync");
  if (value == "everysec") return setting("appendfsync", Result::ok, value, "");
  const bool isAlways = value == "always";
  setting("appendfsync", isAlways ? Result::note : Result::wrong,
          value + (isAlways ? ": each write waits for the disk, and a full disk ends the server"
                            : ": a power failure loses what the kernel had not written yet, often 30 s"),
          "everysec");
}

void Checks::fileWrites() {
  if (facts.info.values.empty()) return;
  if (const std::string status = info("aof_last_write_status"); status != "ok" && !status.empty())
    add(Result::wrong, "append-only file", "the last write failed: writes are refused (MISCONF)",
        "make room on the disk; the server's log has the error");
  if (info("rdb_last_bgsave_status") == "err" && config("stop-writes-on-bgsave-error") != "no")
    add(Result::wrong, "snapshot", "the last one failed: writes are refused (MISCONF)",
        "save \"\", or make room on the disk and in memory");
}

void Checks::snapshots() {
  if (!hasConfig("save")) return;
  const std::string value = config("save");
  setting("save", value.empty() ? Result::ok : Result::note,
          value.empty()
              ? "none"
              : value + ": snapshots add nothing to the append-only file, and one that fails stops writes",
          "\"\"");
}

void Checks::policy() {
  const std::string value = info("maxmemory_policy");
  if (value.empty()) return;
  const bool isFine = value == "noeviction";
  setting("maxmemory-policy", isFine ? Result::ok : Result::wrong,
          value + (isFine ? "" : ": a full server would drop rows without a trace"), "noeviction");
}

void Checks::memory() {
  if (facts.info.values.empty()) return;
  const std::uint64_t limit = facts.info.number("maxmemory"), used = facts.info.number("used_memory");
  const std::string text = bytesText(used) + " used of ";
  if (limit == 0)
    return setting("maxmemory", Result::note,
                   text + "any: a machine without memory ends the server, instead of refusing writes", "1gb");
  const bool isFull = static_cast<double>(used) >= kFull * static_cast<double>(limit);
  setting("maxmemory", isFull ? Result::note : Result::ok,
          text + bytesText(limit) + (isFull ? ": at the limit writes are refused" : ""),
          "with a higher limit");
}

// "normal 0 0 0 slave 268435456 67108864 60 pubsub 33554432 8388608 60": class, hard limit, soft limit,
// seconds.
void Checks::outputLimit() {
  constexpr const char* kName = "client-output-buffer-limit";
  std::istringstream words(config(kName));
  for (std::string each; words >> each;) {
    if (each != "pubsub") continue;
    std::uint64_t hard = 0;
    words >> hard;
    const bool isFine = hard >= kOutputLimit;
    setting(
        kName, isFine ? Result::ok : Result::note,
        "pubsub " + (hard == 0 ? "without a limit: a reader that hangs fills the server's memory"
                               : bytesText(hard) + (isFine ? ""
                                                           : ": readers that are slow for a moment are cut "
                                                             "off, and read everything again")),
        "pubsub 32mb 8mb 60");
  }
}

void Checks::minReplicas() {
  constexpr const char* kName = "min-replicas-to-write";
  if (!hasConfig(kName) || facts.info.values.empty()) return;
  const std::uint64_t least = facts.config.number(kName), lag = facts.config.number("min-replicas-max-lag");
  const std::uint64_t replicas = facts.info.number("connected_slaves");
  if (least == 0 || lag == 0) {
    if (replicas == 0 && !isSentinel()) return setting(kName, Result::ok, "0, there is no replica", "");
    return add(isSentinel() ? Result::wrong : Result::note, kName,
               "0: a failover takes acknowledged writes with it",
               "min-replicas-to-write 1, min-replicas-max-lag 2");
  }
  const std::string found = std::to_string(least);
  if (replicas < least)
    return add(Result::wrong, kName,
               found + ", but " + std::to_string(replicas) + " connected: writes are refused",
               "start the replicas, or min-replicas-to-write 0 where there is to be none");
  setting(kName, Result::ok, found, "");
  setting("min-replicas-max-lag", lag > kMostLag ? Result::note : Result::ok,
          std::to_string(lag) +
              (lag > kMostLag ? ": a failover may lose the acknowledged writes of so many seconds" : ""),
          "2");
}

// CONFIG GET shows passwords, so whether there is one is known from this connection alone.
void Checks::exposure() {
  if (!hasConfig("protected-mode") || !url.passwordFile.empty() || config("port") == "0") return;
  const std::string bind = config("bind");
  const bool isLocal = bind == "127.0.0.1" || bind == "127.0.0.1 -::1" || bind == "127.0.0.1 ::1";
  if (isLocal || config("protected-mode") == "yes") return;
  add(Result::note, "protected-mode",
      "no, and there is no password: everybody who reaches port " + config("port") + " may write and delete",
      "requirepass or users with passwords, or protected-mode yes");
}

void Checks::clients() {
  const std::uint64_t most = facts.info.number("maxclients"), now = facts.info.number("connected_clients");
  if (most == 0) return;
  const bool isFull = static_cast<double>(now) >= kFull * static_cast<double>(most);
  setting("maxclients", isFull ? Result::note : Result::ok,
          std::to_string(now) + " connected of " + std::to_string(most) + "; each process takes two",
          std::to_string(2 * most));
}

void Checks::space(const char* name, const ServerFacts::Space& space) {
  if (space.refused.starts_with("WRONGTYPE"))
    return add(Result::wrong, name, "other data has the keys of prefix " + url.prefix,
               "prefix=NAME in the URL");
  if (!space.refused.empty()) return add(Result::wrong, name, "can't be read (" + space.refused + ")");
  if (space.generation.empty()) return add(Result::ok, name, "nothing written yet, prefix " + url.prefix);
  const std::uint64_t entries = space.first == 0 ? 0 : space.tip - space.first + 1;
  add(Result::ok, name,
      "generation " + space.generation + ", revision " + std::to_string(space.tip) + ", the log has " +
          std::to_string(entries) + " entries");
}

void Checks::latency() {
  if (facts.pings.empty()) return;
  std::vector<double> sorted = facts.pings;
  std::ranges::sort(sorted);
  const double median = sorted[sorted.size() / 2], longest = sorted.back();
  const double room = static_cast<double>(url.timeout.count()) / 4;
  const bool isSlow = median > kSlowPing || longest > room;
  add(isSlow ? Result::note : Result::ok, "latency",
      millisecondsText(median) + " p50, " + millisecondsText(longest) + " at most of " +
          std::to_string(sorted.size()) + " pings" +
          (isSlow ? ": close to the timeout of " + std::to_string(url.timeout.count()) + " ms" : ""),
      isSlow ? "a nearer server, or a longer timeout=TIME in the URL" : "");
}

}  // namespace

std::vector<Finding> findingsIn(const ServerFacts& facts, const Url& url) {
  Checks checks{facts, url};
  checks.refusals();
  checks.version();
  checks.role();
  checks.user();
  if (facts.scriptsRefused.empty()) {
    checks.rights(Role::reader, "rights to read", "");
    checks.rights(Role::writer, "rights to write", "this user makes no settings");
    checks.rights(Role::publisher, "rights to publish", "this user fills no mounts");
    checks.directories();
  } else {
    checks.add(Result::wrong, "scripts", "the server does not run them (" + facts.scriptsRefused + ")",
               "ACL: +script|load +evalsha_ro +evalsha");
  }
  checks.appendOnly();
  checks.appendSync();
  checks.fileWrites();
  checks.snapshots();
  checks.policy();
  checks.memory();
  checks.outputLimit();
  checks.minReplicas();
  checks.exposure();
  checks.clients();
  checks.space("stored rows", facts.stored);
  checks.space("volatile rows", facts.volatile_);
  checks.space("covers", facts.covers);
  checks.latency();
  return std::move(checks.findings);
}

std::vector<Finding> findingsIn(const std::vector<SentinelAnswer>& answers) {
  Findings findings;
  std::vector<std::string> masters;
  for (const SentinelAnswer& each : answers) {
    const std::string name = "sentinel " + addressText(each.sentinel);
    if (!each.master) {
      findings.push_back({Result::note, name, each.why});
      continue;
    }
    findings.push_back({Result::ok, name, "names " + addressText(*each.master)});
    if (std::ranges::find(masters, addressText(*each.master)) == masters.end())
      masters.push_back(addressText(*each.master));
  }
  if (masters.empty()) findings.push_back({Result::wrong, "sentinels", "none of them names the master"});
  if (masters.size() > 1)
    findings.push_back({Result::wrong, "sentinels", "they name different masters: " + listed(masters),
                        "wait for the failover to end; else compare 'sentinel monitor' in their files"});
  if (answers.size() < kFewestSentinels)
    findings.push_back({Result::note, "sentinels", "fewer than 3: the loss of one may prevent a failover",
                        "three on machines of their own"});
  return findings;
}

std::string wrongText(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& each : findings) {
    if (each.result != Result::wrong) continue;
    text += (text.empty() ? "" : "; ") + each.name + " " + each.found;
    if (!each.remedy.empty()) text += " (" + each.remedy + ")";
  }
  return text;
}

}  // namespace Host::Redis
