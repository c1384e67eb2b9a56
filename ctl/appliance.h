// The LEDs of an appliance as the state database has them: settings, mappings, pins and pin values.
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
std::string initialLedPath(const std::string& led);
std::string mapPath(const std::string& led);

using Colour = Led::PinColour;
inline constexpr auto& kColours = Led::kColoursAsRead;
// Something for each colour, in the order of kColours.
template <class T>
using PerColour = std::array<T, kColours.size()>;

// The names of the colours that are set, in the table's order.
std::vector<std::string> colourNames(const PerColour<bool>& colours);

// A copy of the entities under some paths, updated from the host's notifications.
class Mirror {
 public:
  struct Entity {
    std::string type;
    Json attributes = Json::object();
  };

  void changesAre(const Json& changes);
  // Replaces everything at and under `above`.
  void entitiesAre(const std::string& above, Json entities);

  const std::map<std::string, Entity>& entities() const { return entities_; }
  // Null if there is no such entity.
  const Entity* find(const std::string& path) const;

 private:
  void put(Json entity);
  void unset(const Json& change);
  void del(const std::string& path);

  std::map<std::string, Entity> entities_;
};

// The names in an attribute that is a set of names, in natural order; empty if the attribute is missing. The
// set may be an array of names or an object with a member for each.
std::vector<std::string> namesIn(const Json& attributes, const std::string& attribute);

// An LED that has a light setting, a mapping or both.
struct Lamp {
  std::string name;

  bool configured = false;  // has a light setting
  PerColour<bool> wanted{};
  double flashInterval = 0.0;  // seconds; 0: steady
  Json setting = Json::object();

  bool mapped = false;
  bool ready = false;
  PerColour<std::vector<std::string>> pins{};
  // Pins that the LED agent still drives but that left the mapping; see formerPinsAre.
  PerColour<std::vector<std::string>> formerPins{};

  bool driven = false;      // at least one of its pins has a value
  PerColour<bool> shows{};  // a pin of the colour is on right now

  bool lit() const;
  // Whether a colour is set that has no pin.
  bool lacksPin() const;
  // "green+red, flash 0.5 s", "off", or "-" without a setting.
  std::string settingText() const;
  // "green", "dark", or "-" if no pin is driven.
  std::string shownText() const;
};

// Gives the lamp a light setting.
void settingIs(Lamp& lamp, Json setting);
// Adds the pins in `driven` that the lamp's mapping lacks, and what the lamp shows with them.
void formerPinsAre(Lamp& lamp, const PerColour<std::vector<std::string>>& driven, const Mirror& mirror);

// Every LED, in natural order of the names.
std::vector<Lamp> lampsOf(const Mirror& mirror);
// Whether the mappings have a pin in common, whatever its colours.
bool sharesPin(const Lamp& a, const Lamp& b);
std::set<std::string> namesOf(const std::vector<Lamp>& lamps);
// Every pin that has a value or is in a mapping; nullopt if it is not driven.
std::map<std::string, std::optional<unsigned>> pinsOf(const Mirror& mirror);

// Reads settings, mappings and pins.
Mirror readAppliance(Client& client);
// Reads LEDs without covers and without their pins' values, to write them back: these, or all of them if a
// name is a pattern or unknown. In natural order of the names.
std::vector<Lamp> readLedBases(Client& client, const std::vector<std::string>& patterns);

// The same, kept up to date.
class LiveAppliance {
 public:
  explicit LiveAppliance(Client& client);
  // One LED and all pins.
  LiveAppliance(Client& client, const std::string& led);

  const Mirror& mirror() const { return mirror_; }
  void take(const Json& notification);

 private:
  void watch(Client& client, const std::string& path);

  Mirror mirror_;
  std::map<Json, std::string> paths_;  // by watch id
};

// The known names that a name or a pattern fits. Throws Refusal, with the nearest names, if there are none;
// `what` is their kind.
std::set<std::string> expandName(const std::string& what, const std::string& pattern,
                                 const std::set<std::string>& known);
// Expands names and patterns to LED names, without duplicates. Throws as expandName() does.
std::vector<std::string> expandNames(const std::vector<std::string>& patterns,
                                     const std::set<std::string>& known);

}  // namespace Ctl
