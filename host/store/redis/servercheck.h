// Finds what is wrong with a server before anyone depends on it. Pure logic, from facts.
//
//     for (const Finding& each : findingsIn(facts, url))
//       if (each.result == Finding::Result::wrong) report(each.name + " " + each.found + "; " + each.remedy);
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/store/redis/serverfacts.h"

namespace Host::Redis {

struct Finding {
  enum class Result : std::uint8_t {
    ok,
    note,   // it works, but somebody should know
    wrong,  // it does not work, or acknowledged writes will be lost
  };
  Result result = Result::ok;
  std::string name{};    // of the setting, as in redis.conf, or of the check
  std::string found{};   // the value and what it means
  std::string remedy{};  // a line for redis.conf, or what else to do; empty where nothing is to be done
};

// In a fixed order. Facts that the server refused make one finding for all of them.
std::vector<Finding> findingsIn(const ServerFacts& facts, const Url& url);

// The answer of one sentinel of a URL.
struct SentinelAnswer {
  HostAddress sentinel;
  std::optional<HostAddress> master{};
  std::string why{};  // there is none
};
std::vector<Finding> findingsIn(const std::vector<SentinelAnswer>& answers);

// Those that are wrong on one line; empty where nothing is.
std::string wrongText(const std::vector<Finding>& findings);

}  // namespace Host::Redis
