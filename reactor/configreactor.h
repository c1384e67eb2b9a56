// The centre of the agent: follows the LED configuration and the LED to pin mapping, keeps each LED's output
// pins, and keeps one state machine for each LED that is fully configured.
//
// Activity thread only.
#pragma once

#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/zel/entity/described.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/notify/slot.h"
#include "statemachine/gpioledstatemachine.h"

namespace Pinlamp {

// Owned by the agent. Made by ConfigReactorIs only. Any of its three directories may be null; a ready mapping
// needs the directory of the pins.
//
// An LED's pins are made when its mapping becomes ready, only ever added to, and removed with the mapping.
// The LED has a state machine exactly while its mapping exists and was ready, its pins exist, and its
// configuration exists; createDriver decides that after every event of the LED.
//
// Replacing an LED configuration in one step by another object of its name is a bug of the writer: the
// handler throws NameInUseException, and the old machine stays.
class ConfigReactor : public Zel::Described<ConfigReactor, Zel::Notifier> {
 public:
  using GpioLedConfig = Hardware::Gpio::GpioLedConfig;
  using GpioLedSystemConfigDir = Hardware::Gpio::GpioLedSystemConfigDir;
  using CorvelGpioLedConfig = Hardware::Gpio::CorvelGpioLedConfig;
  using CorvelGpioLedSystemConfigDir = Hardware::Gpio::CorvelGpioLedSystemConfigDir;
  using LedConfig = Hardware::Led::LedConfig;
  using LedSystemConfigDir = Hardware::Led::LedSystemConfigDir;

  // Watches the mapping directory. Its owner has one reactor a mapping.
  class ZelGpioLedSystemConfigDir
      : public Zel::NestedReactor<ZelGpioLedSystemConfigDir, GpioLedSystemConfigDir::NotifieeConst,
                                  ConfigReactor> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::ConfigReactor::ZelGpioLedSystemConfigDir";
    using NestedReactor::NestedReactor;

    void onGpioLeds(Zel::Name name) override;
    void onGpioLedszelImmediate() override;
    // Resynchronises with another directory, also where the reactor is retired; null removes nothing.
    void notifierIs(const Zel::Ptr<const Zel::PtrInterface>& dir) override;
  };

  // Watches the LED configuration directory. Its LEDs are looked up, never walked.
  class ZelHwLedConfigDir
      : public Zel::NestedReactor<ZelHwLedConfigDir, LedSystemConfigDir::NotifieeConst, ConfigReactor> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::ConfigReactor::ZelHwLedConfigDir";
    using NestedReactor::NestedReactor;

    void onLeds(Zel::Name name) override { notifyOwner(&ConfigReactor::createDriver, name); }
  };

  // Watches one mapping; its key is the mapping's name. Retiring it removes the LED's pins and machine.
  class ZelGpioLedConfig
      : public Zel::NestedReactor<ZelGpioLedConfig, GpioLedConfig::NotifieeConst, ConfigReactor> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::ConfigReactor::ZelGpioLedConfig";
    ZelGpioLedConfig(const Zel::Ptr<const GpioLedConfig>& gpioLedConfig, ConfigReactor& owner);

    // The mapping's name; empty without one.
    Zel::Name fwkKey() const { return notifier() ? notifier()->name() : Zel::Name(); }

    // Makes the pins of a ready mapping, and the state machine where the LED is configured.
    void createLedConfig();

    void onReady() override;
    void notifierIs(const Zel::Ptr<const Zel::PtrInterface>& gpioLedConfig) override;
    void zelDoZombieReactors(bool zombie) override;
  };

  static constexpr auto attributes() {
    using R = ConfigReactor;
    return std::tuple{
        Zel::attribute::accessor<&R::gpioLedSystemConfigDir>("gpioLedSystemConfigDir"),
        Zel::attribute::accessor<&R::hwLedConfigDir>("hwLedConfigDir"),
        Zel::attribute::value<&R::gpioPinConfigDir_>("gpioPinConfigDir", Zel::attribute::kGet),
        Zel::attribute::keyed<&R::gpioLedStateMachine_, &R::gpioLedStateMachineIs,
                              &R::gpioLedStateMachineDel>("gpioLedStateMachine"),
        Zel::attribute::procedure<&R::handleGpioConfigCleanup>("handleGpioConfigCleanup", "name"),
        Zel::attribute::keyed<&R::gpioLedConfig_, &R::gpioLedConfigIs, &R::gpioLedConfigDel>("gpioLedConfig"),
        Zel::attribute::reserved(),
        Zel::attribute::procedure<&R::createDriver>("createDriver", "name"),
        Zel::attribute::reserved(),
        Zel::attribute::accessor<&R::corvelLedSystemConfig, &R::corvelLedSystemConfigIs,
                                 &R::corvelLedSystemConfigDel>("corvelLedSystemConfig"),
        Zel::attribute::procedure<&R::handleInitialized>("handleInitialized"),
    };
  }
  // The machines are only switched on and off with the reactor; retiring does not reach them.
  static constexpr auto reactors() {
    using R = ConfigReactor;
    return std::tuple{&R::gpioLedSystemConfigDir_, &R::hwLedConfigDir_, &R::gpioLedStateMachine_,
                      &R::gpioLedConfig_};
  }
  static const Zel::TypeNode& typeNode();

  static Zel::Ptr<ConfigReactor> ConfigReactorIs(
      const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
      const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir, const Zel::Ptr<Zel::Dir>& gpioPinConfigDir);
  // For Zel::allocate. Processes the mappings that exist.
  ConfigReactor(const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
                const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir,
                const Zel::Ptr<Zel::Dir>& gpioPinConfigDir);

  // The directories that are watched; null where none is. `Del` stops watching and returns the directory; no
  // pin and no machine is removed.
  Zel::Ptr<const GpioLedSystemConfigDir> gpioLedSystemConfigDir() const {
    return Zel::Ptr<const GpioLedSystemConfigDir>(gpioLedSystemConfigDir_.notifier());
  }
  void gpioLedSystemConfigDirIs(const Zel::Ptr<const GpioLedSystemConfigDir>& dir);
  Zel::Ptr<const GpioLedSystemConfigDir> gpioLedSystemConfigDirDel();
  Zel::Ptr<const LedSystemConfigDir> hwLedConfigDir() const {
    return Zel::Ptr<const LedSystemConfigDir>(hwLedConfigDir_.notifier());
  }
  void hwLedConfigDirIs(const Zel::Ptr<const LedSystemConfigDir>& dir);
  Zel::Ptr<const LedSystemConfigDir> hwLedConfigDirDel();

  // The directory of the pins.
  const Zel::Ptr<Zel::Dir>& gpioPinConfigDir() const { return gpioPinConfigDir_; }

  // The state machines, by the names of their LEDs. `Is` returns the machine of that name where it was made
  // from the same two objects, else it throws NameInUseException. `Del` returns null where the name is
  // unknown.
  //
  // A machine's constructor writes pins. A hook on one of them that calls `Is` for the same LED gets null;
  // its call of createDriver is carried out as soon as the machine is made.
  const Zel::PtrMap<GpioLedStateMachine>& gpioLedStateMachine() const { return gpioLedStateMachine_; }
  Zel::Ptr<GpioLedStateMachine> gpioLedStateMachineIs(
      const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig, const Zel::Ptr<const LedConfig>& hwLedConfig);
  Zel::Ptr<GpioLedStateMachine> gpioLedStateMachineDel(const Zel::Name& name);
  void gpioLedStateMachineDelAll();

  // The reactors of the mappings, by name. `Is` has the reactor of that name watch the mapping, and returns
  // it; a null mapping throws RangeException. `Del` removes the LED's pins and machine and returns the
  // mapping, null where the name is unknown.
  const Zel::SlotMap<ZelGpioLedConfig>& gpioLedConfig() const { return gpioLedConfig_; }
  Zel::Ptr<ZelGpioLedConfig> gpioLedConfigIs(const Zel::Ptr<const GpioLedConfig>& gpioLedConfig);
  Zel::Ptr<const GpioLedConfig> gpioLedConfigDel(const Zel::Name& name);
  void gpioLedConfigDelAll();

  // The LEDs that have pins. Setting another name replaces the directory; `Del` returns it, null where there
  // was none.
  const Zel::Ptr<CorvelGpioLedSystemConfigDir>& corvelLedSystemConfig() const {
    return corvelLedSystemConfig_;
  }
  Zel::Ptr<CorvelGpioLedSystemConfigDir> corvelLedSystemConfigIs(const Zel::Name& name);
  Zel::Ptr<CorvelGpioLedSystemConfigDir> corvelLedSystemConfigDel();

  // Makes the directory "ledSystem".
  void handleInitialized();
  // Makes the LED's state machine, or removes it, as the class comment says.
  void createDriver(const Zel::Name& name);
  // Removes an LED's pins, then its state machine. Of an LED without pins only the latter.
  void handleGpioConfigCleanup(const Zel::Name& name);
  // A mapping's reactor is being retired.
  void zel_handleGpioLedConfig(const ZelGpioLedConfig& reactor);

 protected:
  ~ConfigReactor() override;

  // Called after a member came or went.
  virtual void gpioLedStateMachineNotify(Zel::Name) {}
  virtual void gpioLedConfigNotify(Zel::Name) {}

 private:
  void resynchronise(const Zel::Ptr<const GpioLedSystemConfigDir>& dir);
  void dirEntryChanged(const Zel::Ptr<const GpioLedSystemConfigDir>& dir, Zel::Name name);
  void addMachine(const Zel::Name& name, const Zel::Ptr<GpioLedStateMachine>& machine);
  CorvelGpioLedConfig* outputOf(const Zel::Name& name) const;
  bool isReady(const Zel::Name& name) const;
  LedConfig* ledOf(const Zel::Name& name) const;

  Zel::Slot<ZelGpioLedSystemConfigDir> gpioLedSystemConfigDir_;
  Zel::Slot<ZelHwLedConfigDir> hwLedConfigDir_;
  Zel::Ptr<Zel::Dir> gpioPinConfigDir_;
  Zel::PtrMap<GpioLedStateMachine> gpioLedStateMachine_;
  Zel::SlotMap<ZelGpioLedConfig> gpioLedConfig_;
  Zel::Ptr<CorvelGpioLedSystemConfigDir> corvelLedSystemConfig_;
  // LEDs whose machine is being made; true: createDriver is to run again when it is made.
  Zel::NameSet making_;
};

}  // namespace Pinlamp
