// The settings of all LEDs of the appliance.
#pragma once

#include "platform/model/ledconfig.h"
#include "platform/zel/entity/entity.h"

namespace Hardware::Led {

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
        Zel::attribute::children<&LedSystemConfigDir::leds_, N, &N::onLeds, &N::onLedszelImmediate,
                                 &N::onLeds>("leds"),
        Zel::attribute::value<&LedSystemConfigDir::palette_, &N::onPalette, &N::onPalettezelImmediate>(
            "palette"),
        Zel::attribute::nameSet<&LedSystemConfigDir::theme_, N, &N::onTheme, &N::onThemezelImmediate,
                                &N::onTheme>("theme")};
  }
  static const Zel::TypeNode& typeNode();

  explicit LedSystemConfigDir(const Zel::Name& name) : Described(name) {}

  // The LEDs. Create-or-get by name; an LED made elsewhere replaces one of its name; `Del` returns the LED
  // that was removed, null where there was none.
  const Zel::PtrMap<LedConfig>& leds() const { return leds_; }
  Zel::Ptr<LedConfig> leds(const Zel::Name& name) const { return leds_.find(name); }
  Zel::Ptr<LedConfig> ledsIs(const Zel::Name& name) { return childIs<&LedSystemConfigDir::leds_>(name); }
  void ledsIs(const Zel::Ptr<LedConfig>& led) { childIs<&LedSystemConfigDir::leds_>(led); }
  Zel::Ptr<LedConfig> ledsDel(const Zel::Name& name) { return childDel<&LedSystemConfigDir::leds_>(name); }

  // The names of the palette and of the themes that policy agents know.
  Zel::Name palette() const { return palette_; }
  void paletteIs(Zel::Name palette) { set<&LedSystemConfigDir::palette_>(palette); }
  const Zel::NameSet& theme() const { return theme_; }
  void themeIs(const Zel::Name& name, bool value) { nameIs<&LedSystemConfigDir::theme_>(name, value); }
  bool themeDel(const Zel::Name& name) { return nameDel<&LedSystemConfigDir::theme_>(name); }

 protected:
  ~LedSystemConfigDir() override;

 private:
  Zel::PtrMap<LedConfig> leds_;
  Zel::NameSet theme_;
  Zel::Name palette_;
};

}  // namespace Hardware::Led
