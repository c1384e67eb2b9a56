// The agent: declares what it mounts, and hands the mounted directories to its configuration reactor, which
// does all the work.
//
// Activity thread only.
#pragma once

#include "platform/warden/cagent.h"
#include "reactor/configreactor.h"

namespace Pinlamp {

// Owned by the host that made it with agentFactory.
class Agent : public Zel::Described<Agent, Warden::CAgent> {
 public:
  using GpioLedSystemConfigDir = Hardware::Gpio::GpioLedSystemConfigDir;
  using LedSystemConfigDir = Hardware::Led::LedSystemConfigDir;

  static constexpr auto attributes() {
    return std::tuple{
        Zel::attribute::procedure<&Agent::mountsComplete>("doMountsComplete", "status"),
        Zel::attribute::procedure<&Agent::doInit>("doInit"),
        Zel::attribute::value<&Agent::gpioPinConfigDir_>("gpioPinConfigDir", Zel::attribute::kGet),
        Zel::attribute::value<&Agent::gpioLedSystemConfigDir_>("gpioLedSystemConfigDir",
                                                               Zel::attribute::kGet),
        Zel::attribute::value<&Agent::hwLedConfigDir_>("hwLedConfigDir", Zel::attribute::kGet),
        Zel::attribute::accessor<&Agent::configReactor, &Agent::configReactorIs, &Agent::configReactorDel>(
            "configReactor"),
    };
  }
  static const Zel::TypeNode& typeNode();

  explicit Agent(Zel::Name name) : Described(name) {}
  // The same for a directory, which is not used.
  static Zel::Ptr<Zel::Entity> newEntityForDir(const Zel::Name& name, Zel::Dir* dir);

  // Declares the mounts. REQUIRES: the entity manager is set.
  void doInit() override;
  // Fetches the mounted directories and makes the reactor. A directory that is missing, or of another type,
  // is null from here on. A status other than success stops the process.
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& entityManager) override;

  // The mounted directories; null before the mounts are complete.
  const Zel::Ptr<Zel::Dir>& gpioPinConfigDir() const { return gpioPinConfigDir_; }
  const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir() const {
    return gpioLedSystemConfigDir_;
  }
  const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir() const { return hwLedConfigDir_; }

  // The one reactor; null where there is none. `Is` returns the existing one where it was made from the same
  // three directories, else replaces it. `Del` switches the reactor's notifications off and returns it. Not a
  // slot: a replaced reactor is not retired, and lives on while others hold it.
  const Zel::Ptr<ConfigReactor>& configReactor() const { return configReactor_; }
  Zel::Ptr<ConfigReactor> configReactorIs(
      const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
      const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir, const Zel::Ptr<Zel::Dir>& gpioPinConfigDir);
  Zel::Ptr<ConfigReactor> configReactorDel();

 protected:
  ~Agent() override;

 private:
  Zel::Ptr<Zel::Dir> gpioPinConfigDir_;
  Zel::Ptr<const GpioLedSystemConfigDir> gpioLedSystemConfigDir_;
  Zel::Ptr<const LedSystemConfigDir> hwLedConfigDir_;
  Zel::Ptr<ConfigReactor> configReactor_;
};

}  // namespace Pinlamp
