// The facts agent: publishes what the machine knows about its links, sensors and units under "facts".
// docs/facts.md lists the facts, their sources and what they cost.
//
// Activity thread only.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "facts/kept.h"
#include "facts/linksource.h"
#include "facts/sensorsource.h"
#include "facts/unitsource.h"
#include "platform/warden/agentoptions.h"
#include "platform/warden/cagent.h"

namespace Pinlamp {

// Owned by the host that made it.
class FactsAgent : public Zel::Described<FactsAgent, Warden::CAgent> {
 public:
  struct Options {
    std::set<std::string> sources;  // of "links", "sensors" and "units"
    double poll = 1;                // seconds between two polls of sensors and traffic

    // "sources=links,sensors" and "poll=0.1" to "poll=3600". Throws Warden::OptionError.
    static Options read(const Warden::AgentOptions& options);
  };

  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode();

  FactsAgent(Zel::Name name, Options options);

  void doInit() override;
  // Throws std::runtime_error where the mount failed.
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& entityManager) override;

 protected:
  ~FactsAgent() override;

 private:
  template <class Fact, class Source, class Make>
  void keep(std::optional<Facts::Kept<Fact, Source>>& kept, Zel::Dir& facts, Make make);

  const Options options_;
  std::optional<Facts::Poll> poll_;
  std::optional<Facts::Kept<Facts::LinkFact, Facts::LinkSource>> links_;
  std::optional<Facts::Kept<Facts::SensorFact, Facts::SensorSource>> sensors_;
  std::optional<Facts::Kept<Facts::UnitFact, Facts::UnitSource>> units_;
};

}  // namespace Pinlamp
