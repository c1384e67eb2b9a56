// A policy agent: turns facts about links and fans into light settings, which the LED agent turns into pin
// values.
//
//   pinlampd --agent libpinlamp.so --agent ./libpolicy-agent.so:Policy …
//
// It follows "interface/status" and "environment/fan/status", directories of Policy::LinkStatus and
// Policy::FanStatus, and fills "hardware/led/config" with an LED for each of them that the appliance has,
// which is one that "hardware/gpio/config/led" maps to pins. The lanes of a port that is split
// ("Ethernet49/1", "Ethernet49/2") light one LED ("Ethernet49") where the port has no LED for each lane.
#include <algorithm>
#include <map>

#include "facts.h"
#include "platform/pinlamp.h"
#include "utils/lampwise.h"

namespace Policy {

namespace {

// What Lampwise::ledToDevice tells of an LED.
constexpr std::uint16_t kPort = 0x0001;
constexpr std::uint16_t kFan = 0x0002;

constexpr const char* kLinks = "interface/status";
constexpr const char* kFans = "environment/fan/status";

Led::LightSetting inColour(const Zel::String& text) {
  Led::LightSetting setting;
  if (!Lampwise::isColorValid(text)) return setting;
  setting.green = text == Lampwise::toString<Led::Color>(Led::Color::green);
  setting.red = text == Lampwise::toString<Led::Color>(Led::Color::red);
  setting.yellow = text == Lampwise::toString<Led::Color>(Led::Color::yellow);
  setting.orange = text == Lampwise::toString<Led::Color>(Led::Color::orange);
  return setting;
}

// A link that is up is green, yellow where its speed was forced to a megabit mode, and flashes the faster the
// more it carries; one that is down has its fault colour.
Led::LightSetting forLink(const LinkStatus& link) {
  if (!link.up()) return inColour(link.faultColour());
  const std::string mode = Lampwise::shortenLinkMode(link.linkMode()).stdString();
  Led::LightSetting setting;
  setting.yellow = mode.find('m') != std::string::npos;
  setting.green = !setting.yellow;
  if (link.utilisation() > 0.0)
    setting.flashInterval =
        Lampwise::roundVal(1.0 - 0.9 * std::clamp(link.utilisation(), 0.0, 100.0) / 100.0, 1);
  return setting;
}

Led::LightSetting forFan(const FanStatus& fan) {
  Led::LightSetting setting;
  setting.green = fan.ok();
  setting.red = !fan.ok();
  setting.flashInterval = fan.ok() ? 0.0 : 0.5;
  return setting;
}

}  // namespace

class PolicyAgent;

// Follows one link or fan. Owned by the agent.
class LinkReactor : public Zel::Reactor<LinkReactor, LinkStatus::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Policy::LinkReactor";
  LinkReactor(const Zel::Ptr<const LinkStatus>& link, PolicyAgent& agent) : Reactor(link), agent_(agent) {}
  void onLinkMode() override { light(); }
  void onUp() override { light(); }
  void onUtilisation() override { light(); }
  void onFaultColour() override { light(); }

 private:
  void light();
  PolicyAgent& agent_;
};

class FanReactor : public Zel::Reactor<FanReactor, FanStatus::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Policy::FanReactor";
  FanReactor(const Zel::Ptr<const FanStatus>& fan, PolicyAgent& agent) : Reactor(fan), agent_(agent) {}
  void onOk() override;

 private:
  PolicyAgent& agent_;
};

// Follows links and fans that come and go.
class FactsReactor : public Zel::Reactor<FactsReactor, Zel::Dir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Policy::FactsReactor";
  FactsReactor(const Zel::Ptr<const Zel::Dir>& facts, PolicyAgent& agent) : Reactor(facts), agent_(agent) {}
  void onEntry(Zel::Name name) override;

 private:
  PolicyAgent& agent_;
};

// Follows which LEDs the appliance has.
class MappingsReactor
    : public Zel::Reactor<MappingsReactor, Hardware::Gpio::GpioLedSystemConfigDir::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Policy::MappingsReactor";
  MappingsReactor(const Zel::Ptr<const Hardware::Gpio::GpioLedSystemConfigDir>& mappings, PolicyAgent& agent)
      : Reactor(mappings), agent_(agent) {}
  void onGpioLeds(Zel::Name) override;

 private:
  PolicyAgent& agent_;
};

class PolicyAgent : public Zel::Described<PolicyAgent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Policy::PolicyAgent");
    return type;
  }
  using Described::Described;

  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    group->doMount({kLinks, "Zel::Dir", "r"});
    group->doMount({kFans, "Zel::Dir", "r"});
    group->doMount({Paths::kMappings, "Hardware::Gpio::GpioLedSystemConfigDir", "r"});
    group->doMount({Paths::kLeds, "Hardware::Led::LedSystemConfigDir", "wi"});
    group->doClose(false, "", 0.0);
  }

  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& manager) override {
    if (status != Statedb::mountSuccess_) throw std::runtime_error("the policy agent's mounts failed");
    leds_ = Zel::dynamicPtrCast<Hardware::Led::LedSystemConfigDir>(manager->getEntity(Paths::kLeds));
    mappings_ = Zel::allocate<MappingsReactor>(
        Zel::dynamicPtrCast<Hardware::Gpio::GpioLedSystemConfigDir>(manager->getEntity(Paths::kMappings)),
        *this);
    for (const char* path : {kLinks, kFans})
      facts_.push_back(
          Zel::allocate<FactsReactor>(Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(path)), *this));
    lightAll();
  }

  void lightAll() {
    for (const auto& facts : facts_)
      for (const auto& fact : facts->notifier()->entries()) factIs(fact->name(), fact);
  }

  // A fact came, went (null), or became another.
  void factIs(Zel::Name name, const Zel::Ptr<Zel::Entity>& fact) {
    reactors_.erase(name);
    const std::uint16_t device = Lampwise::ledToDevice(name);
    if (const auto link = Zel::dynamicPtrCast<LinkStatus>(fact); link && device == kPort) {
      reactors_[name] = Zel::allocate<LinkReactor>(link, *this);
      light(*link);
    } else if (const auto fan = Zel::dynamicPtrCast<FanStatus>(fact); fan && device == kFan) {
      reactors_[name] = Zel::allocate<FanReactor>(fan, *this);
      light(*fan);
    } else if (const auto led = ledOf(name)) {
      led->lightSettingIs({});
    }
  }

  void light(const LinkStatus& link) { set(link.name(), forLink(link)); }
  void light(const FanStatus& fan) { set(fan.name(), forFan(fan)); }

 private:
  // The LED of that name, or the one of the port that it is a lane of; null where the appliance has neither.
  Zel::Ptr<Hardware::Led::LedConfig> ledOf(Zel::Name name) const {
    for (const Zel::Name led : {name, Zel::Name(Lampwise::portSubString(name))})
      if (mappings_->notifier()->gpioLeds(led)) return leds_->ledsIs(led);
    return nullptr;
  }
  void set(Zel::Name name, const Led::LightSetting& setting) {
    if (const auto led = ledOf(name)) led->lightSettingIs(setting);
  }

  Zel::Ptr<Hardware::Led::LedSystemConfigDir> leds_;
  std::map<Zel::Name, Zel::Ptr<Zel::NotifieeBase>> reactors_;
  Zel::Ptr<MappingsReactor> mappings_;
  std::vector<Zel::Ptr<FactsReactor>> facts_;
};

void LinkReactor::light() { agent_.light(*notifier()); }
void FanReactor::onOk() { agent_.light(*notifier()); }
void MappingsReactor::onGpioLeds(Zel::Name) { agent_.lightAll(); }
void FactsReactor::onEntry(Zel::Name name) { agent_.factIs(name, notifier()->entityRef(name)); }

// What the host looks for.
ZEL_API Zel::Ptr<PolicyAgent> agentFactory(Zel::Name name) { return Zel::allocate<PolicyAgent>(name); }

namespace {
const Zel::TypeRegistration types{&LinkStatus::typeNode, &FanStatus::typeNode, &PolicyAgent::typeNode};
}

}  // namespace Policy
