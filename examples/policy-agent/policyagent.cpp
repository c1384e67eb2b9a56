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

#include "facts.h"
#include "platform/pinlamp.h"
#include "utils/lampwise.h"

namespace Policy {

namespace {

// Results of Lampwise::ledToDevice.
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

// A link that is up is green, or yellow where its speed was forced to a megabit mode, and flashes faster with
// more load; one that is down has its fault colour.
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

// Follow one link, and one fan.
class LinkReactor : public Zel::NestedReactor<LinkReactor, LinkStatus::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Policy::LinkReactor";
  using NestedReactor::NestedReactor;
  void onLinkMode() override { light(); }
  void onUp() override { light(); }
  void onUtilisation() override { light(); }
  void onFaultColour() override { light(); }

 private:
  void light();
};

class FanReactor : public Zel::NestedReactor<FanReactor, FanStatus::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Policy::FanReactor";
  using NestedReactor::NestedReactor;
  void onOk() override;
};

// Follows links and fans that come and go.
class FactsReactor : public Zel::NestedReactor<FactsReactor, Zel::Dir::NotifieeConst, PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Policy::FactsReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name name) override;
};

// Follows which LEDs the appliance has.
class MappingsReactor
    : public Zel::NestedReactor<MappingsReactor, Hardware::Gpio::GpioLedSystemConfigDir::NotifieeConst,
                                PolicyAgent> {
 public:
  static constexpr const char* kTypeName = "Policy::MappingsReactor";
  using NestedReactor::NestedReactor;
  void onGpioLeds(Zel::Name) override;
};

class PolicyAgent : public Zel::Described<PolicyAgent, Warden::CAgent> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static constexpr auto reactors() {
    using A = PolicyAgent;
    return std::tuple{&A::mappings_, &A::linkFacts_, &A::fanFacts_, &A::links_, &A::fans_};
  }
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
    mappings_.make(*this, Zel::dynamicPtrCast<Hardware::Gpio::GpioLedSystemConfigDir>(
                              manager->getEntity(Paths::kMappings)));
    linkFacts_.make(*this, Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(kLinks)));
    fanFacts_.make(*this, Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity(kFans)));
    lightAll();
  }

  void lightAll() {
    for (const Zel::Dir* facts : {linkFacts_.notifier(), fanFacts_.notifier()})
      for (const auto& fact : facts->entries()) factIs(fact->name(), fact);
  }

  // A fact came, went (null), or became another.
  void factIs(Zel::Name name, const Zel::Ptr<Zel::Entity>& fact) {
    const std::uint16_t device = Lampwise::ledToDevice(name);
    const auto link = Zel::dynamicPtrCast<LinkStatus>(device == kPort ? fact : nullptr);
    const auto fan = Zel::dynamicPtrCast<FanStatus>(device == kFan ? fact : nullptr);
    links_.watch(name, *this, link);
    fans_.watch(name, *this, fan);
    if (link)
      lightLink(*link);
    else if (fan)
      lightFan(*fan);
    else
      set(name, {});
  }

  void lightLink(const LinkStatus& link) { set(link.name(), forLink(link)); }
  void lightFan(const FanStatus& fan) { set(fan.name(), forFan(fan)); }

 private:
  // The LED of that name, or the one of the port that it is a lane of; null where the appliance has neither.
  Zel::Ptr<Hardware::Led::LedConfig> ledOf(Zel::Name name) const {
    for (const Zel::Name& led : {name, Zel::Name(Lampwise::portSubString(name))})
      if (mappings_.notifier()->gpioLeds(led)) return leds_->ledsIs(led);
    return nullptr;
  }
  void set(Zel::Name name, const Led::LightSetting& setting) {
    if (const auto led = ledOf(name)) led->lightSettingIs(setting);
  }

  Zel::Ptr<Hardware::Led::LedSystemConfigDir> leds_;
  Zel::Slot<MappingsReactor> mappings_;
  Zel::Slot<FactsReactor> linkFacts_, fanFacts_;
  Zel::SlotMap<LinkReactor> links_;
  Zel::SlotMap<FanReactor> fans_;
};

void LinkReactor::light() { notifyOwner(&PolicyAgent::lightLink, *notifier()); }
void FanReactor::onOk() { notifyOwner(&PolicyAgent::lightFan, *notifier()); }
void MappingsReactor::onGpioLeds(Zel::Name) { notifyOwner(&PolicyAgent::lightAll); }
void FactsReactor::onEntry(Zel::Name name) {
  notifyOwner(&PolicyAgent::factIs, name, notifier()->entityRef(name));
}

// The host looks this up.
ZEL_API Zel::Ptr<PolicyAgent> agentFactory(Zel::Name name) { return Zel::allocate<PolicyAgent>(name); }

namespace {
const Zel::TypeRegistration types{&LinkStatus::typeNode, &FanStatus::typeNode, &PolicyAgent::typeNode};
}

}  // namespace Policy
