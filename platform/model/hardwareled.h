// The LED configuration: what every LED of the appliance should show.
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
        Zel::row::value<&LedConfig::lightSetting_, &N::onLightSetting, &N::onLightSettingzelImmediate>(
            "lightSetting"),
        Zel::row::value<&LedConfig::ledAttribute_, &N::onLedAttribute, &N::onLedAttributezelImmediate>(
            "ledAttribute"),
        Zel::row::value<&LedConfig::theme_, &N::onTheme, &N::onThemezelImmediate>("theme"),
        Zel::row::nameSet<&LedConfig::mode_, N, &N::onMode, &N::onModezelImmediate, &N::onMode>("mode"),
        Zel::row::value<&LedConfig::currentMode_, &N::onCurrentMode, &N::onCurrentModezelImmediate>(
            "currentMode")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LedConfig(Zel::Name name) : Described(name) {}

  const ::Led::LightSetting& lightSetting() const { return lightSetting_; }
  void lightSettingIs(const ::Led::LightSetting& setting) { set<&LedConfig::lightSetting_>(setting); }

  // What the LED is, for people: "port 3/1".
  const Zel::String& ledAttribute() const { return ledAttribute_; }
  void ledAttributeIs(const Zel::String& text) { set<&LedConfig::ledAttribute_>(text); }

  // The theme, and the mode among `mode`, that a policy agent lights the LED by.
  Zel::Name theme() const { return theme_; }
  void themeIs(Zel::Name theme) { set<&LedConfig::theme_>(theme); }
  const Zel::NameSet& mode() const { return mode_; }
  void modeIs(Zel::Name name, bool value) { nameIs<&LedConfig::mode_>(name, value); }
  void modeIs(const Zel::NameSet& names) { namesAre<&LedConfig::mode_>(names); }
  bool modeDel(Zel::Name name) { return nameDel<&LedConfig::mode_>(name); }
  Zel::Name currentMode() const { return currentMode_; }
  void currentModeIs(Zel::Name mode) { set<&LedConfig::currentMode_>(mode); }

 private:
  ::Led::LightSetting lightSetting_;
  Zel::String ledAttribute_;
  Zel::NameSet mode_;
  Zel::Name theme_;
  Zel::Name currentMode_;
};

// The directory of all LEDs' configuration.
class ZEL_API LedSystemConfigDir : public Zel::Described<LedSystemConfigDir, Zel::Entity> {
 public:
  class NotifieeConst : public Zel::NotifieeOf<LedSystemConfigDir> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLeds(Zel::Name) {}
    virtual void onLedszelImmediate() { declineImmediate(); }
    virtual void onLeds() {}
    virtual void onPalette() {}
    virtual void onPalettezelImmediate() { declineImmediate(); }
    virtual void onTheme(Zel::Name) {}
    virtual void onThemezelImmediate() { declineImmediate(); }
    virtual void onTheme() {}
  };

  static constexpr auto attributes() {
    using N = NotifieeConst;
    return std::tuple{
        Zel::row::children<&LedSystemConfigDir::leds_, N, &N::onLeds, &N::onLedszelImmediate, &N::onLeds>(
            "leds"),
        Zel::row::value<&LedSystemConfigDir::palette_, &N::onPalette, &N::onPalettezelImmediate>("palette"),
        Zel::row::nameSet<&LedSystemConfigDir::theme_, N, &N::onTheme, &N::onThemezelImmediate, &N::onTheme>(
            "theme")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LedSystemConfigDir(Zel::Name name) : Described(name) {}

  // The LEDs. Create-or-get by name; an LED made elsewhere takes the place of one of its name; `Del` returns
  // the LED that left, null where the name is unknown.
  const Zel::PtrMap<LedConfig>& leds() const { return leds_; }
  Zel::Ptr<LedConfig> leds(Zel::Name name) const { return leds_.find(name); }
  Zel::Ptr<LedConfig> ledsIs(Zel::Name name) { return childIs<&LedSystemConfigDir::leds_>(name); }
  void ledsIs(const Zel::Ptr<LedConfig>& led) { childIs<&LedSystemConfigDir::leds_>(led); }
  Zel::Ptr<LedConfig> ledsDel(Zel::Name name) { return childDel<&LedSystemConfigDir::leds_>(name); }
  void ledsDelAll() { childDelAll<&LedSystemConfigDir::leds_>(); }

  // The names of the palette and of the themes that policy agents know.
  Zel::Name palette() const { return palette_; }
  void paletteIs(Zel::Name palette) { set<&LedSystemConfigDir::palette_>(palette); }
  const Zel::NameSet& theme() const { return theme_; }
  void themeIs(Zel::Name name, bool value) { nameIs<&LedSystemConfigDir::theme_>(name, value); }
  bool themeDel(Zel::Name name) { return nameDel<&LedSystemConfigDir::theme_>(name); }

 protected:
  ~LedSystemConfigDir() override;

 private:
  Zel::PtrMap<LedConfig> leds_;
  Zel::NameSet theme_;
  Zel::Name palette_;
};

}  // namespace Hardware::Led
