#include "reactor/configreactor.h"

#include "common/trace.h"
#include "platform/model/colourmembers.h"
#include "platform/zel/core/assert.h"

namespace Pinlamp {

namespace {

using Mapping = Hardware::Gpio::GpioLedConfig;
using Output = Hardware::Gpio::CorvelGpioLedConfig;
using Pin = Hardware::Gpio::CorvelPinConfig;

using Led::kColourMembers;

// Makes one colour's pins, or finds existing ones, and adds them to an LED's output.
void createPins(std::size_t number, const Mapping& mapping, Output& output, Zel::Dir& pinDir) {
  static const Zel::String pinType("Hardware::Gpio::CorvelPinConfig");
  const auto& colour = kColourMembers[number];
  const int line = 263 + 10 * static_cast<int>(number);  // of the records: each colour has its own
  for (const Zel::Name& pin : (mapping.*colour.names)()) {
    pinDir.entryIs(pin, pinType);
    (output.*colour.pinIs)(Zel::dynamicPtrCast<Pin>(pinDir.entityRef(pin)));
    trace(6, line, "createLedConfig",
          [&](std::ostream& out) { out << "created " << colour.name << " pin '" << pin << "'"; });
  }
}

[[noreturn]] void refuseReinstantiation(const char* attribute, const Zel::Entity* wanted,
                                        const Zel::Entity* current) {
  Zel::throwNameInUseException(
      "Reinstantiating the pointer interface where constructor parameter attribute " +
      Zel::String(attribute) + " has a different value of " + Zel::valueToStrepOfRawPtr(wanted) +
      " than the current value of " + Zel::valueToStrepOfRawPtr(current) + " not allowed");
}

// Keeps a name in a set for its lifetime.
class Making {
 public:
  Making(Zel::NameSet& names, Zel::Name name) : names_(names), name_(name) { names_.insert(name_, false); }
  ~Making() { end(); }
  Making(const Making&) = delete;
  Making& operator=(const Making&) = delete;

  // Removes the name early. Returns its value.
  bool end() {
    const bool value = names_.value(name_);
    names_.remove(name_);
    return value;
  }

 private:
  Zel::NameSet& names_;
  const Zel::Name name_;
};

// Calls `remove`, which takes the member out, with the key of every member.
template <class Members, class Remove>
void removeAll(const Members& members, Remove remove) {
  for (auto at = members.begin(); at != members.end();) {
    const Zel::Name key = at.key();
    ++at;
    remove(key);
  }
}

}  // namespace

// The mapping directory's reactor
// --------------------------------------------------------------------

void ConfigReactor::ZelGpioLedSystemConfigDir::onGpioLeds(Zel::Name name) {
  const Zel::Ptr<ConfigReactor> reactor(owner());
  if (notifier() && reactor) reactor->dirEntryChanged(Zel::Ptr(notifier()), name);
}

void ConfigReactor::ZelGpioLedSystemConfigDir::onGpioLedszelImmediate() {
  const Zel::Ptr<ConfigReactor> reactor(owner());
  if (notifier() && reactor) reactor->resynchronise(Zel::Ptr(notifier()));
}

void ConfigReactor::ZelGpioLedSystemConfigDir::notifierIs(const Zel::Ptr<const Zel::PtrInterface>& dir) {
  const auto* before = notifier();
  NestedReactor::notifierIs(dir);
  if (notifier() != before) onGpioLedszelImmediate();
}

// One mapping's reactor
// ------------------------------------------------------------------------------

ConfigReactor::ZelGpioLedConfig::ZelGpioLedConfig(const Zel::Ptr<const GpioLedConfig>& gpioLedConfig,
                                                  ConfigReactor& owner)
    : NestedReactor(gpioLedConfig, owner) {
  if (gpioLedConfig) createLedConfig();
}

void ConfigReactor::ZelGpioLedConfig::createLedConfig() {
  const Zel::Ptr<const GpioLedConfig> mapping(notifier());
  const Zel::Ptr<ConfigReactor> reactor(owner());
  trace(9, 246, "createLedConfig", [&](std::ostream& out) { out << "createLedConfig " << mapping->name(); });
  if (!mapping->ready()) return;
  ZEL_ASSERT(reactor->corvelLedSystemConfig_);
  ZEL_ASSERT(reactor->gpioPinConfigDir_);
  const auto output = reactor->corvelLedSystemConfig_->gpioLedsIs(mapping->name());
  for (std::size_t colour = 0; colour < kColourMembers.size(); ++colour)
    createPins(colour, *mapping, *output, *reactor->gpioPinConfigDir_);
  reactor->createDriver(mapping->name());
}

void ConfigReactor::ZelGpioLedConfig::onReady() {
  if (owner() && !zelIsZombie()) createLedConfig();
}

void ConfigReactor::ZelGpioLedConfig::notifierIs(const Zel::Ptr<const Zel::PtrInterface>& gpioLedConfig) {
  const auto* before = notifier();
  NestedReactor::notifierIs(gpioLedConfig);
  if (notifier() == before) return;
  if (notifier()) onReady();
  isRegisteredNotifieeIs(true);
}

void ConfigReactor::ZelGpioLedConfig::zelDoZombieReactors(bool zombie) {
  if (zelIsZombie() == zombie) return;
  if (notifier()) hasNotificationActiveIs(!zombie);
  if (owner()) owner()->zel_handleGpioLedConfig(*this);
  NestedReactor::zelDoZombieReactors(zombie);
}

// The configuration reactor
// --------------------------------------------------------------------------

const Zel::TypeNode& ConfigReactor::typeNode() {
  static const Zel::TypeNode type = describe("Pinlamp::ConfigReactor");
  return type;
}

Zel::Ptr<ConfigReactor> ConfigReactor::ConfigReactorIs(
    const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
    const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir, const Zel::Ptr<Zel::Dir>& gpioPinConfigDir) {
  return Zel::valid(Zel::allocate<ConfigReactor>(gpioLedSystemConfigDir, hwLedConfigDir, gpioPinConfigDir));
}

ConfigReactor::ConfigReactor(const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
                             const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir,
                             const Zel::Ptr<Zel::Dir>& gpioPinConfigDir) {
  gpioLedSystemConfigDir_.make(*this, gpioLedSystemConfigDir);
  hwLedConfigDir_.make(*this, hwLedConfigDir);
  gpioPinConfigDir_ = gpioPinConfigDir;
  handleInitialized();
  if (gpioLedSystemConfigDir) resynchronise(gpioLedSystemConfigDir);
}

ConfigReactor::~ConfigReactor() {
  gpioLedStateMachineDelAll();
  corvelLedSystemConfigDel();
}

void ConfigReactor::gpioLedSystemConfigDirIs(const Zel::Ptr<const GpioLedSystemConfigDir>& dir) {
  if (gpioLedSystemConfigDir_.watch(*this, dir)) announce<&ConfigReactor::gpioLedSystemConfigDir>();
}

Zel::Ptr<const Hardware::Gpio::GpioLedSystemConfigDir> ConfigReactor::gpioLedSystemConfigDirDel() {
  auto dir = gpioLedSystemConfigDir_.clear();
  if (dir) announce<&ConfigReactor::gpioLedSystemConfigDir>();
  return dir;
}

void ConfigReactor::hwLedConfigDirIs(const Zel::Ptr<const LedSystemConfigDir>& dir) {
  if (hwLedConfigDir_.watch(*this, dir)) announce<&ConfigReactor::hwLedConfigDir>();
}

Zel::Ptr<const Hardware::Led::LedSystemConfigDir> ConfigReactor::hwLedConfigDirDel() {
  auto dir = hwLedConfigDir_.clear();
  if (dir) announce<&ConfigReactor::hwLedConfigDir>();
  return dir;
}

void ConfigReactor::resynchronise(const Zel::Ptr<const GpioLedSystemConfigDir>& dir) {
  for (const auto& mapping : dir->gpioLeds()) gpioLedConfigIs(mapping);
  removeAll(gpioLedConfig_, [&](const Zel::Name& name) {
    if (!dir->gpioLeds().get(name)) gpioLedConfigDel(name);
  });
}

void ConfigReactor::dirEntryChanged(const Zel::Ptr<const GpioLedSystemConfigDir>& dir, Zel::Name name) {
  if (const auto mapping = dir->gpioLeds(name))
    gpioLedConfigIs(mapping);
  else
    gpioLedConfigDel(name);
}

Zel::Ptr<ConfigReactor::ZelGpioLedConfig> ConfigReactor::gpioLedConfigIs(
    const Zel::Ptr<const GpioLedConfig>& gpioLedConfig) {
  if (!gpioLedConfig)
    Zel::throwRangeException(
        "null _gpioLedConfig parameter to mutator for Pinlamp::ConfigReactor::gpioLedConfig not allowed\"");
  const Zel::Name name = gpioLedConfig->name();
  if (auto known = gpioLedConfig_.find(name); known && known->notifier() == gpioLedConfig.get()) return known;
  const auto reactor = gpioLedConfig_.watch(name, *this, gpioLedConfig);
  if (gpioLedConfig_.get(name) != reactor.get()) return reactor;  // a hook on a pin has removed it again
  reactor->zelDoZombieReactors(zelIsZombie());
  announceKey<&ConfigReactor::gpioLedConfig_>(name);
  gpioLedConfigNotify(name);
  return reactor;
}

Zel::Ptr<const Hardware::Gpio::GpioLedConfig> ConfigReactor::gpioLedConfigDel(const Zel::Name& name) {
  const auto reactor = gpioLedConfig_.remove(name);
  if (!reactor) return nullptr;
  announceKey<&ConfigReactor::gpioLedConfig_>(name);
  gpioLedConfigNotify(name);
  return Zel::Ptr<const GpioLedConfig>(reactor->notifier());
}

void ConfigReactor::gpioLedConfigDelAll() {
  removeAll(gpioLedConfig_, [this](const Zel::Name& name) { gpioLedConfigDel(name); });
}

Zel::Ptr<GpioLedStateMachine> ConfigReactor::gpioLedStateMachineIs(
    const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig, const Zel::Ptr<const LedConfig>& hwLedConfig) {
  const Zel::Name name = Zel::valid(hwLedConfig)->name();
  if (auto machine = gpioLedStateMachine_.find(name)) {
    if (machine->corvelGpioLedConfig() != corvelGpioLedConfig)
      refuseReinstantiation("_corvelGpioLedConfig", corvelGpioLedConfig.get(),
                            machine->corvelGpioLedConfig().get());
    if (machine->hwLedConfig() != hwLedConfig)
      refuseReinstantiation("_hwLedConfig", hwLedConfig.get(), machine->hwLedConfig().get());
    return machine;
  }
  if (making_.contains(name)) return nullptr;
  Making making(making_, name);
  const auto machine = GpioLedStateMachine::GpioLedStateMachineIs(corvelGpioLedConfig, hwLedConfig);
  addMachine(name, machine);
  if (making.end()) createDriver(name);
  return machine;
}

void ConfigReactor::addMachine(const Zel::Name& name, const Zel::Ptr<GpioLedStateMachine>& machine) {
  gpioLedStateMachine_.insert(name, machine);
  machine->hasNotificationActiveIs(true);
  announceKey<&ConfigReactor::gpioLedStateMachine_>(name);
  gpioLedStateMachineNotify(name);
}

Zel::Ptr<GpioLedStateMachine> ConfigReactor::gpioLedStateMachineDel(const Zel::Name& name) {
  auto machine = gpioLedStateMachine_.remove(name);
  if (machine) {
    announceKey<&ConfigReactor::gpioLedStateMachine_>(name);
    gpioLedStateMachineNotify(name);
  }
  return machine;
}

void ConfigReactor::gpioLedStateMachineDelAll() {
  removeAll(gpioLedStateMachine_, [this](const Zel::Name& name) { gpioLedStateMachineDel(name); });
}

Zel::Ptr<Hardware::Gpio::CorvelGpioLedSystemConfigDir> ConfigReactor::corvelLedSystemConfigIs(
    const Zel::Name& name) {
  if (corvelLedSystemConfig_) {
    if (corvelLedSystemConfig_->name() == name) return corvelLedSystemConfig_;
    corvelLedSystemConfig_->parentIs(nullptr);
  }
  corvelLedSystemConfig_ = Zel::valid(Zel::allocate<CorvelGpioLedSystemConfigDir>(name));
  announce<&ConfigReactor::corvelLedSystemConfig>();
  return corvelLedSystemConfig_;
}

Zel::Ptr<Hardware::Gpio::CorvelGpioLedSystemConfigDir> ConfigReactor::corvelLedSystemConfigDel() {
  auto old = std::exchange(corvelLedSystemConfig_, nullptr);
  if (!old) return nullptr;
  old->parentIs(nullptr);
  announce<&ConfigReactor::corvelLedSystemConfig>();
  return old;
}

void ConfigReactor::handleInitialized() { corvelLedSystemConfigIs("ledSystem"); }

Hardware::Gpio::CorvelGpioLedConfig* ConfigReactor::outputOf(const Zel::Name& name) const {
  return corvelLedSystemConfig_ ? corvelLedSystemConfig_->gpioLeds().get(name) : nullptr;
}

bool ConfigReactor::isReady(const Zel::Name& name) const {
  const auto* dir = gpioLedSystemConfigDir_.notifier();
  const auto* mapping = dir ? dir->gpioLeds().get(name) : nullptr;
  return mapping && mapping->ready();
}

Hardware::Led::LedConfig* ConfigReactor::ledOf(const Zel::Name& name) const {
  const auto* dir = hwLedConfigDir_.notifier();
  return dir ? dir->leds().get(name) : nullptr;
}

void ConfigReactor::createDriver(const Zel::Name& name) {
  if (making_.contains(name)) {
    making_.insert(name, true);
    return;
  }
  trace(9, 225, "createDriver", [&](std::ostream& out) { out << "createDriver " << name; });
  const Zel::Ptr output(outputOf(name));
  const Zel::Ptr<const LedConfig> led(ledOf(name));
  if (isReady(name) && output && led) {
    trace(9, 234, "createDriver", [&](std::ostream& out) { out << "Creating Gpio Led SM for " << name; });
    gpioLedStateMachineIs(output, led);
  } else {
    trace(9, 238, "createDriver", [&](std::ostream& out) { out << "Deleting Gpio Led SM for " << name; });
    gpioLedStateMachineDel(name);
  }
}

void ConfigReactor::handleGpioConfigCleanup(const Zel::Name& name) {
  trace(9, 302, "handleGpioConfigCleanup",
        [&](std::ostream& out) { out << "handleGpioConfigCleanup " << name; });
  ZEL_ASSERT(corvelLedSystemConfig_);
  if (const Zel::Ptr output{outputOf(name)}) {
    ZEL_ASSERT(gpioPinConfigDir_);
    for (const auto& colour : kColourMembers)
      for (const auto& pin : (*output.*colour.pins)()) gpioPinConfigDir_->entryDel(pin->name());
    corvelLedSystemConfig_->gpioLedsDel(name);
  }
  createDriver(name);
}

void ConfigReactor::zel_handleGpioLedConfig(const ZelGpioLedConfig& reactor) {
  if (const auto* mapping = reactor.notifier()) handleGpioConfigCleanup(mapping->name());
}

}  // namespace Pinlamp
