// The appliance's LEDs as the state database has them: what each should show, which pins it has, and what
// they are.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ctl/client.h"
#include "platform/model/colours.h"
#include "platform/model/paths.h"

namespace Ctl {

inline constexpr char kLedDirType[] = "Hardware::Led::LedSystemConfigDir";
inline constexpr char kLedType[] = "Hardware::Led::LedConfig";
inline constexpr char kMapDirType[] = "Hardware::Gpio::GpioLedSystemConfigDir";
inline constexpr char kMapType[] = "Hardware::Gpio::GpioLedConfig";
inline constexpr char kPinType[] = "Hardware::Gpio::CorvelPinConfig";
inline constexpr char kMachineType[] = "Pinlamp::GpioLedStateMachine";
inline constexpr char kLineStatusType[] = "Hardware::Gpio::GpioLineStatus";

std::string ledPath(const std::string& led);
std::string mapPath(const std::string& led);

using Colour = Led::PinColour;
inline constexpr auto& kColours = Led::kColoursAsRead;
// Something for each colour, in the order of kColours.
template <class T>
using PerColour = std::array<T, kColours.size()>;

// The names of the colours that are set, in the table's order.
std::vector<std::string> colourNames(const PerColour<bool>& colours);

// The entities under some paths, kept up to date from what the host tells.
class Mirror {
 public:
  struct Entity {
    std::string type;
    Json attributes = Json::object();
  };

  void changesAre(const Json& changes);
  // Replaces what stands under `above`.
  void entitiesAre(const std::string& above, const Json& entities);

  const std::map<std::string, Entity>& entities() const { return entities_; }
  // Null where there is none.
  const Entity* find(const std::string& path) const;

 private:
  void put(const Json& entity);
  void unset(const Json& change);
  void del(const std::string& path);

  std::map<std::string, Entity> entities_;
};

// A set of names among an entity's attributes, in natural order, whether it is an array or an object with
// something for each name; none where it is not there.
std::vector<std::string> namesIn(const Json& attributes, const std::string& attribute);

// One LED; known by its light setting, its mapping or both.
struct Lamp {
  std::string name;

  bool configured = false;  // has a light setting
  PerColour<bool> wanted{};
  double flashInterval = 0.0;  // seconds; 0: steady
  Json setting = Json::object();

  bool mapped = false;
  bool ready = false;
  PerColour<std::vector<std::string>> pins{};
  // Pins that the LED agent drives on although the mapping no longer names them; see formerPinsAre.
  PerColour<std::vector<std::string>> formerPins{};

  bool driven = false;      // at least one of its pins has a value
  PerColour<bool> shows{};  // whether a pin of the colour is on, right now

  bool lit() const;
  // A colour is wanted for which there is no pin.
  bool lacksPin() const;
  // "green+red, flash 0.5 s", "off", or "-" without a setting.
  std::string settingText() const;
  // "green", "dark", or "-" where no pin is driven.
  std::string shownText() const;
};

// Adds the pins that `driven` names and the lamp's mapping does not, and what the lamp shows by them.
void formerPinsAre(Lamp& lamp, const PerColour<std::vector<std::string>>& driven, const Mirror& mirror);

// Every LED, in natural order of the names.
std::vector<Lamp> lampsOf(const Mirror& mirror);
// Whether both name a pin, for whatever colours.
bool sharesPin(const Lamp& a, const Lamp& b);
// The names of the LEDs.
std::set<std::string> namesOf(const std::vector<Lamp>& lamps);
// Every pin that has a value or that a mapping names; no value where it is not driven.
std::map<std::string, std::optional<unsigned>> pinsOf(const Mirror& mirror);

// What the host has now of everything that LEDs are made of.
Mirror readAppliance(Client& client);

// The same, followed from now on.
class LiveAppliance {
 public:
  explicit LiveAppliance(Client& client);

  const Mirror& mirror() const { return mirror_; }
  void take(const Json& notification);

 private:
  Mirror mirror_;
  std::map<Json, std::string> paths_;  // by the watch's id
};

// The LEDs that names and patterns mean, each once. Throws Refusal, with the nearest names, where one means
// none.
std::vector<std::string> expandNames(const std::vector<std::string>& patterns,
                                     const std::set<std::string>& known);

}  // namespace Ctl
