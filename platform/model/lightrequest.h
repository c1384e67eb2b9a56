// A request to light LEDs. docs/policy.md explains how requests, rules and settings become what an LED shows.
#pragma once

#include "platform/model/led.h"
#include "platform/model/lightvalues.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Led {

// Under "hardware/led/request". Written by people and by agents; the policy agent reads it.
class ZEL_API LightRequest : public Zel::Described<LightRequest, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LightRequest> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLeds(Zel::Name) {}
    virtual void onLedszelImmediate() { declineImmediate(); }
    virtual void onLeds() {}
    virtual void onSkip(Zel::Name) {}
    virtual void onSkipzelImmediate() { declineImmediate(); }
    virtual void onSkip() {}
    virtual void onLightSetting() {}
    virtual void onPriority() {}
    virtual void onOwner() {}
    virtual void onLasts() {}
    virtual void onSince() {}
  };

  static constexpr auto attributes() {
    using R = LightRequest;
    using N = NotifieeConst;
    return std::tuple{
        Zel::attribute::nameSet<&R::leds_, N, &N::onLeds, &N::onLedszelImmediate, &N::onLeds>("leds"),
        Zel::attribute::nameSet<&R::skip_, N, &N::onSkip, &N::onSkipzelImmediate, &N::onSkip>("skip"),
        Zel::attribute::value<&R::lightSetting_, &N::onLightSetting>("lightSetting"),
        Zel::attribute::value<&R::priority_, &N::onPriority>("priority"),
        Zel::attribute::value<&R::owner_, &N::onOwner>("owner"),
        Zel::attribute::value<&R::lasts_, &N::onLasts>("lasts"),
        Zel::attribute::value<&R::since_, &N::onSince>("since")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LightRequest(const Zel::Name& name) : Described(name) {}

  // Names of LEDs, and shell patterns: "Ethernet*". `skip` are left alone though `leds` has them.
  const Zel::NameSet& leds() const { return leds_; }
  void ledsIs(const Zel::Name& name, bool value) { nameIs<&LightRequest::leds_>(name, value); }
  void ledsIs(const Zel::NameSet& names) { namesAre<&LightRequest::leds_>(names); }
  bool ledsDel(const Zel::Name& name) { return nameDel<&LightRequest::leds_>(name); }
  const Zel::NameSet& skip() const { return skip_; }
  void skipIs(const Zel::Name& name, bool value) { nameIs<&LightRequest::skip_>(name, value); }
  void skipIs(const Zel::NameSet& names) { namesAre<&LightRequest::skip_>(names); }
  bool skipDel(const Zel::Name& name) { return nameDel<&LightRequest::skip_>(name); }

  const ::Led::LightSetting& lightSetting() const { return lightSetting_; }
  void lightSettingIs(const ::Led::LightSetting& setting) { set<&LightRequest::lightSetting_>(setting); }
  ::Led::Priority priority() const { return priority_; }
  void priorityIs(::Led::Priority priority) { set<&LightRequest::priority_>(priority); }
  // For people: the person or the program behind the request.
  const Zel::String& owner() const { return owner_; }
  void ownerIs(const Zel::String& owner) { set<&LightRequest::owner_>(owner); }
  // From `since` on; 0: until withdrawn.
  ::Led::Seconds lasts() const { return lasts_; }
  void lastsIs(::Led::Seconds lasts) { set<&LightRequest::lasts_>(lasts); }
  // When it was made: seconds since 1970, UTC. 0, or a time to come: when the policy agent first saw it.
  ::Led::Seconds since() const { return since_; }
  void sinceIs(::Led::Seconds since) { set<&LightRequest::since_>(since); }

 private:
  ::Led::LightSetting lightSetting_;
  Zel::NameSet leds_;
  Zel::NameSet skip_;
  Zel::String owner_;
  ::Led::Seconds lasts_;
  ::Led::Seconds since_;
  ::Led::Priority priority_;
};

}  // namespace Hardware::Led
