// The centre of the agent: follows the LED configuration and the LED to pin mapping, keeps each LED's output
// pins, and keeps one state machine for each LED that is fully configured.
//
// Activity thread only.
#pragma once

#include "common/nested.h"
#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/zel/entity/described.h"
#include "platform/zel/entity/dir.h"
#include "statemachine/gpioledstatemachine.h"

namespace Pinlamp {

// Owned by the agent. Made by ConfigReactorIs only, from any of its three directories or none; but what a
// ready mapping asks for needs the directory of the pins.
//
// An LED's pins are made when its mapping becomes ready, only ever added to, and removed with the mapping.
// The LED has a state machine exactly while its mapping is there and was ready, its pins are there, and its
// configuration is there; createDriver decides that after every event that concerns the LED.
//
// An LED configuration that was replaced in one step by another object of its name is an error of whoever did
// that: the handler throws NameInUseException, and the machine that there is stays.
class ConfigReactor : public Zel::Described<ConfigReactor, Zel::Notifier> {
 public:
  using GpioLedConfig = Hardware::Gpio::GpioLedConfig;
  using GpioLedSystemConfigDir = Hardware::Gpio::GpioLedSystemConfigDir;
  using CorvelGpioLedConfig = Hardware::Gpio::CorvelGpioLedConfig;
  using CorvelGpioLedSystemConfigDir = Hardware::Gpio::CorvelGpioLedSystemConfigDir;
  using LedConfig = Hardware::Led::LedConfig;
  using LedSystemConfigDir = Hardware::Led::LedSystemConfigDir;

  // Watches the mapping directory. Keeps one reactor a mapping.
  class ZelGpioLedSystemConfigDir
      : public Nested<ZelGpioLedSystemConfigDir, GpioLedSystemConfigDir::NotifieeConst, ConfigReactor> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::ConfigReactor::ZelGpioLedSystemConfigDir";
    ZelGpioLedSystemConfigDir(const Zel::Ptr<const GpioLedSystemConfigDir>& dir, ConfigReactor& owner)
        : Nested(dir, owner) {}

    void onGpioLeds(Zel::Name name) override;
    void onGpioLedszelImmediate() override;
    // Another directory is followed from here on, by a retired reactor as well; none removes nothing.
    void notifierIs(const Zel::Ptr<const Zel::PtrInterface>& dir) override;
  };

  // Watches the LED configuration directory. Its LEDs are looked up, never walked.
  class ZelHwLedConfigDir
      : public Nested<ZelHwLedConfigDir, LedSystemConfigDir::NotifieeConst, ConfigReactor> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::ConfigReactor::ZelHwLedConfigDir";
    ZelHwLedConfigDir(const Zel::Ptr<const LedSystemConfigDir>& dir, ConfigReactor& owner)
        : Nested(dir, owner) {}

    void onLeds(Zel::Name name) override { tellOwner(&ConfigReactor::createDriver, name); }
  };

  // Watches one mapping, under whose name it is kept. Retiring it removes what was made of the mapping.
  class ZelGpioLedConfig : public Nested<ZelGpioLedConfig, GpioLedConfig::NotifieeConst, ConfigReactor> {
   public:
    static constexpr const char* kTypeName = "Pinlamp::ConfigReactor::ZelGpioLedConfig";
    ZelGpioLedConfig(const Zel::Ptr<const GpioLedConfig>& gpioLedConfig, ConfigReactor& owner);

    // The mapping's name; empty where none is watched.
    Zel::Name fwkKey() const { return notifier() ? notifier()->name() : Zel::Name(); }

    // Makes the pins of a mapping that is ready, and the state machine where the LED is configured.
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
  static const Zel::TypeNode& typeNode();

  static Zel::Ptr<ConfigReactor> ConfigReactorIs(
      const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
      const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir, const Zel::Ptr<Zel::Dir>& gpioPinConfigDir);
  // For Zel::allocate. Works through the mappings that are there.
  ConfigReactor(const Zel::Ptr<const GpioLedSystemConfigDir>& gpioLedSystemConfigDir,
                const Zel::Ptr<const LedSystemConfigDir>& hwLedConfigDir,
                const Zel::Ptr<Zel::Dir>& gpioPinConfigDir);

  // The directories that are followed; null where none is. `Del` stops following and returns the directory;
  // nothing that was made is removed.
  Zel::Ptr<const GpioLedSystemConfigDir> gpioLedSystemConfigDir() const {
    return Zel::Ptr<const GpioLedSystemConfigDir>(watched(gpioLedSystemConfigDir_));
  }
  void gpioLedSystemConfigDirIs(const Zel::Ptr<const GpioLedSystemConfigDir>& dir);
  Zel::Ptr<const GpioLedSystemConfigDir> gpioLedSystemConfigDirDel();
  Zel::Ptr<const LedSystemConfigDir> hwLedConfigDir() const {
    return Zel::Ptr<const LedSystemConfigDir>(watched(hwLedConfigDir_));
  }
  void hwLedConfigDirIs(const Zel::Ptr<const LedSystemConfigDir>& dir);
  Zel::Ptr<const LedSystemConfigDir> hwLedConfigDirDel();

  // Where the pins are made.
  const Zel::Ptr<Zel::Dir>& gpioPinConfigDir() const { return gpioPinConfigDir_; }

  // The state machines, by the names of their LEDs. The machine that is there is returned where it was made
  // from the same two, else NameInUseException is thrown. `Del` returns null where the name is unknown.
  //
  // A machine writes its pins while it is made. A hook on one of them that asks for the same machine
  // meanwhile gets null; one that has createDriver decide on the LED has it decided as soon as the machine is
  // there.
  const Zel::PtrMap<GpioLedStateMachine>& gpioLedStateMachine() const { return gpioLedStateMachine_; }
  Zel::Ptr<GpioLedStateMachine> gpioLedStateMachineIs(
      const Zel::Ptr<CorvelGpioLedConfig>& corvelGpioLedConfig, const Zel::Ptr<const LedConfig>& hwLedConfig);
  Zel::Ptr<GpioLedStateMachine> gpioLedStateMachineDel(Zel::Name name);
  void gpioLedStateMachineDelAll();

  // The reactors of the mappings, by name. `Is` returns the reactor of that name, watching that mapping from
  // here on; it throws RangeException where the mapping is null. `Del` returns the mapping that was watched,
  // null where the name is unknown, and removes what was made of it.
  const Zel::PtrMap<ZelGpioLedConfig>& gpioLedConfig() const { return gpioLedConfig_; }
  Zel::Ptr<ZelGpioLedConfig> gpioLedConfigIs(const Zel::Ptr<const GpioLedConfig>& gpioLedConfig);
  Zel::Ptr<const GpioLedConfig> gpioLedConfigDel(Zel::Name name);
  void gpioLedConfigDelAll();

  // The LEDs that have pins. Setting another name replaces the directory; `Del` returns it, null where there
  // was none.
  const Zel::Ptr<CorvelGpioLedSystemConfigDir>& corvelLedSystemConfig() const {
    return corvelLedSystemConfig_;
  }
  Zel::Ptr<CorvelGpioLedSystemConfigDir> corvelLedSystemConfigIs(Zel::Name name);
  Zel::Ptr<CorvelGpioLedSystemConfigDir> corvelLedSystemConfigDel();

  // Makes the directory "ledSystem".
  void handleInitialized();
  // Decides whether an LED has a state machine, and makes or removes it.
  void createDriver(Zel::Name name);
  // Removes an LED's pins, then its state machine. Of an LED without pins only the latter.
  void handleGpioConfigCleanup(Zel::Name name);
  // A mapping's reactor is being retired.
  void zel_handleGpioLedConfig(const ZelGpioLedConfig& reactor);

  void hasNotificationActiveIs(bool active) override;
  void zelDoZombieReactors(bool zombie) override;

 protected:
  ~ConfigReactor() override;

  // Called after a member came or went.
  virtual void gpioLedStateMachineNotify(Zel::Name) {}
  virtual void gpioLedConfigNotify(Zel::Name) {}

 private:
  void resynchronise(const Zel::Ptr<const GpioLedSystemConfigDir>& dir);
  void dirEntryChanged(const Zel::Ptr<const GpioLedSystemConfigDir>& dir, Zel::Name name);
  Zel::Ptr<ZelGpioLedConfig> newReactor(const Zel::Ptr<const GpioLedConfig>& gpioLedConfig);
  void addMachine(Zel::Name name, const Zel::Ptr<GpioLedStateMachine>& machine);
  CorvelGpioLedConfig* outputOf(Zel::Name name) const;
  bool isReady(Zel::Name name) const;
  LedConfig* ledOf(Zel::Name name) const;

  Zel::Ptr<ZelGpioLedSystemConfigDir> gpioLedSystemConfigDir_;
  Zel::Ptr<ZelHwLedConfigDir> hwLedConfigDir_;
  Zel::Ptr<Zel::Dir> gpioPinConfigDir_;
  Zel::PtrMap<GpioLedStateMachine> gpioLedStateMachine_;
  Zel::PtrMap<ZelGpioLedConfig> gpioLedConfig_;
  Zel::Ptr<CorvelGpioLedSystemConfigDir> corvelLedSystemConfig_;
  // LEDs whose machine is being made; true beside those to decide on once more when it is there.
  Zel::NameSet making_;
};

}  // namespace Pinlamp
