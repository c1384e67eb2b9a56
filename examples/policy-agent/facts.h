// The facts that the policy agent lights LEDs by. Other agents publish them in the state database.
#pragma once

#include "platform/zel/entity/entity.h"

namespace Policy {

// One link, named as its port ("Ethernet3", or "Ethernet49/1" for one lane of a port).
class LinkStatus : public Zel::Described<LinkStatus, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LinkStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLinkMode() {}
    virtual void onUp() {}
    virtual void onUtilisation() {}
    virtual void onFaultColour() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{Zel::attribute::value<&LinkStatus::linkMode_, &N::onLinkMode>("linkMode"),
                      Zel::attribute::value<&LinkStatus::up_, &N::onUp>("up"),
                      Zel::attribute::value<&LinkStatus::utilisation_, &N::onUtilisation>("utilisation"),
                      Zel::attribute::value<&LinkStatus::faultColour_, &N::onFaultColour>("faultColour")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LinkStatus(Zel::Name name) : Described(name) {}

  // Such as "linkModeForced100gfull".
  const Zel::String& linkMode() const { return linkMode_; }
  bool up() const { return up_; }
  // Per cent of the link's speed.
  double utilisation() const { return utilisation_; }
  // The colour of an LED of a link that is down; a text that names no colour, the empty one too, leaves it
  // dark.
  const Zel::String& faultColour() const { return faultColour_; }

 private:
  Zel::String linkMode_;
  Zel::String faultColour_;
  double utilisation_ = 0.0;
  bool up_ = false;
};

// One fan, named as its LED ("Fan1").
class FanStatus : public Zel::Described<FanStatus, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<FanStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onOk() {}
  };

  static constexpr auto attributes() {
    return std::tuple{Zel::attribute::value<&FanStatus::ok_, &NotifieeConst::onOk>("ok")};
  }
  static const Zel::TypeNode& typeNode();

  explicit FanStatus(Zel::Name name) : Described(name) {}

  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

}  // namespace Policy
