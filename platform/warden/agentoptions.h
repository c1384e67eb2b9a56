// The options that the host's command line gives to an agent:
//
//     pinlampd --agent 'libcooling.so:Cooling?poll=5&zones=front,rear'
//
//     ZEL_API Zel::Ptr<Agent> agentFactory(Zel::Name name, const Warden::AgentOptions& options) {
//       const double poll = options.number("poll", 2, 0.1, 3600);
//       const auto zones = options.words("zones", {"front", "middle", "rear"});
//       return Zel::allocate<Agent>(name, poll, zones);
//     }
//
// A factory that takes options is called with or without any; one that takes the name alone refuses them.
// After the factory the host refuses each option that it did not ask for. Activity thread only.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/zel/core/exception.h"
#include "platform/zel/core/export.h"

namespace Warden {

// An option that can't be taken; the text names it. The host refuses to start, with this text.
class ZEL_API OptionError : public Zel::Exception {
 public:
  explicit OptionError(const std::string& text);
  ~OptionError() override;
};

class ZEL_API AgentOptions {
 public:
  AgentOptions() = default;
  // Parses `NAME=VALUE[&NAME=VALUE…]`, up to 4 KiB. Throws OptionError where a name is missing or comes
  // twice.
  static AgentOptions parse(const std::string& text);

  bool empty() const { return values_.empty(); }
  // The option's value, or `fallback` where it was not given. Throws OptionError if it is no number within
  // these limits.
  double number(const std::string& name, double fallback, double lowest, double highest) const;
  // The words of a list `WORD,WORD…`; all of `known` where the option was not given. Throws OptionError for
  // any other word.
  std::set<std::string> words(const std::string& name, const std::vector<std::string>& known) const;

  // Throws OptionError if there is an option that was never asked for.
  void checkAllKnown() const;

 private:
  const std::string* find(const std::string& name) const;

  std::map<std::string, std::string> values_;
  mutable std::set<std::string> known_;  // that were asked for
};

}  // namespace Warden
