#include "agent/agent.h"

#include "agent/factory.h"
#include "common/trace.h"
#include "platform/model/paths.h"
#include "platform/zel/core/assert.h"
#include "platform/zel/core/exception.h"

namespace Pinlamp {

namespace {

struct MountRequest {
  const char* path;
  const char* type;
  const char* mode;
};

// In the order of declaration. The agent fetches three of them; it starts once all are complete.
constexpr MountRequest kMounts[] = {
    {Paths::kMappings, "Hardware::Gpio::GpioLedSystemConfigDir", "r"},
    {Paths::kLeds, "Hardware::Led::LedSystemConfigDir", "r"},
    {Paths::kInitialLeds, "Hardware::Led::LedSystemConfigDir", "r"},
    {Paths::kFans, "Zel::Dir", "r"},
    {Paths::kCooling, "Environment::Cooling::Config", "r"},
    {Paths::kWirings, "Zel::Dir", "r"},
    {Paths::kGpio, "Zel::Dir", "r"},
    {Paths::kPins, "Zel::Dir", "wi"},
};

template <class T>
Zel::Ptr<T> fetch(const Statedb::EntityManager& manager, const char* path) {
  return Zel::dynamicPtrCast<T>(manager.getEntity(path));
}

}  // namespace

Zel::Ptr<Agent> agentFactory(Zel::Name name) { return Zel::valid(Zel::allocate<Agent>(name)); }

const Zel::TypeNode& Agent::typeNode() {
  static const Zel::TypeNode type = describe("Pinlamp::Agent", &newEntityForDir);
  return type;
}

Zel::Ptr<Zel::Entity> Agent::newEntityForDir(const Zel::Name& name, Zel::Dir*) { return agentFactory(name); }

Agent::~Agent() { configReactorDel(); }

void Agent::doInit() {
  trace(3, 331, "doInit", [](std::ostream& out) { out << "doInit"; });
  const Zel::Ptr<Statedb::Mounter> self(this);
  ZEL_REQUIRE(entityManager(), "agent '" << name() << "'");
  const auto group = entityManager()->getMountGroup(self);
  for (const MountRequest& mount : kMounts)
    group->doMount(Statedb::Mount(mount.path, mount.type, mount.mode));
  group->doClose(false, "", 0.0);
}

void Agent::doMountsComplete(Statedb::MountStatus status,
                             const Zel::Ptr<Statedb::EntityManager>& entityManager) {
  trace(3, 359, "doMountsComplete", [](std::ostream& out) { out << "doMountsComplete"; });
  if (status != Statedb::mountSuccess_)
    Zel::assertionFailed("status == Statedb::mountSuccess_", "Pinlamp", 360,
                         "virtual void Pinlamp::Agent::doMountsComplete(Statedb::MountStatus, const Ptr&)");
  ZEL_REQUIRE(entityManager, "agent '" << name() << "'");
  set<&Agent::gpioLedSystemConfigDir_>(Zel::Ptr<const GpioLedSystemConfigDir>(
      fetch<GpioLedSystemConfigDir>(*entityManager, Paths::kMappings)));
  set<&Agent::hwLedConfigDir_>(
      Zel::Ptr<const LedSystemConfigDir>(fetch<LedSystemConfigDir>(*entityManager, Paths::kLeds)));
  set<&Agent::gpioPinConfigDir_>(fetch<Zel::Dir>(*entityManager, Paths::kPins));
  configReactorIs(gpioLedSystemConfigDir_, hwLedConfigDir_, gpioPinConfigDir_);
}

Zel::Ptr<ConfigReactor> Agent::configReactorIs(
    const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
    const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir, const Zel::Ptr<Zel::Dir>& gpioPinConfigDir) {
  if (configReactor_ && configReactor_->gpioLedSystemConfigDir() == gpioLedSystemConfigDir &&
      configReactor_->hwLedConfigDir() == hwLedConfigDir &&
      configReactor_->gpioPinConfigDir() == gpioPinConfigDir)
    return configReactor_;
  configReactor_ = ConfigReactor::ConfigReactorIs(gpioLedSystemConfigDir, hwLedConfigDir, gpioPinConfigDir);
  configReactor_->hasNotificationActiveIs(true);
  announce<&Agent::configReactor>();
  return Zel::valid(configReactor_);
}

Zel::Ptr<ConfigReactor> Agent::configReactorDel() {
  auto reactor = std::exchange(configReactor_, nullptr);
  if (!reactor) return nullptr;
  reactor->hasNotificationActiveIs(false);
  announce<&Agent::configReactor>();
  return reactor;
}

}  // namespace Pinlamp
