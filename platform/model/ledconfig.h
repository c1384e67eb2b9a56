// The setting of one LED.
#pragma once

#include "platform/model/led.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Led {

// One LED.
class ZEL_API LedConfig : public Zel::Described<LedConfig, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LedConfig> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLightSetting() {}
    virtual void onLightSettingzelImmediate() { declineImmediate(); }
    virtual void onLedAttribute() {}
    virtual void onLedAttributezelImmediate() { declineImmediate(); }
    virtual void onTheme() {}
    virtual void onThemezelImmediate() { declineImmediate(); }
    virtual void onMode(Zel::Name) {}
    virtual void onModezelImmediate() { declineImmediate(); }
    virtual void onMode() {}
    virtual void onCurrentMode() {}
    virtual void onCurrentModezelImmediate() { declineImmediate(); }
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{
        Zel::attribute::value<&LedConfig::lightSetting_, &N::onLightSetting, &N::onLightSettingzelImmediate>(
            "lightSetting"),
        Zel::attribute::value<&LedConfig::ledAttribute_, &N::onLedAttribute, &N::onLedAttributezelImmediate>(
            "ledAttribute"),
        Zel::attribute::value<&LedConfig::theme_, &N::onTheme, &N::onThemezelImmediate>("theme"),
        Zel::attribute::nameSet<&LedConfig::mode_, N, &N::onMode, &N::onModezelImmediate, &N::onMode>("mode"),
        Zel::attribute::value<&LedConfig::currentMode_, &N::onCurrentMode, &N::onCurrentModezelImmediate>(
            "currentMode")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LedConfig(const Zel::Name& name) : Described(name) {}

  const ::Led::LightSetting& lightSetting() const { return lightSetting_; }
  void lightSettingIs(const ::Led::LightSetting& setting) { set<&LedConfig::lightSetting_>(setting); }

  // A description of the LED for people: "port 3/1".
  const Zel::String& ledAttribute() const { return ledAttribute_; }
  void ledAttributeIs(const Zel::String& text) { set<&LedConfig::ledAttribute_>(text); }

  // The theme, and the mode among `mode`, that a policy agent lights the LED by.
  Zel::Name theme() const { return theme_; }
  void themeIs(Zel::Name theme) { set<&LedConfig::theme_>(theme); }
  const Zel::NameSet& mode() const { return mode_; }
  void modeIs(const Zel::Name& name, bool value) { nameIs<&LedConfig::mode_>(name, value); }
  void modeIs(const Zel::NameSet& names) { namesAre<&LedConfig::mode_>(names); }
  bool modeDel(const Zel::Name& name) { return nameDel<&LedConfig::mode_>(name); }
  Zel::Name currentMode() const { return currentMode_; }
  void currentModeIs(Zel::Name mode) { set<&LedConfig::currentMode_>(mode); }

 private:
  ::Led::LightSetting lightSetting_;
  Zel::String ledAttribute_;
  Zel::NameSet mode_;
  Zel::Name theme_;
  Zel::Name currentMode_;
};

}  // namespace Hardware::Led
