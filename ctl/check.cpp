#include "ctl/check.h"

#include <algorithm>
#include <map>

#include "ctl/appliance.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

constexpr double kShortestFlash = 0.02;  // seconds; people see no flashing below

std::string wiringPath(const std::string& pin) {
  return std::string(Paths::kWirings) + '/' + escapeComponent(pin);
}

// A wired line: "line 32 of sim2".
std::string lineOf(const Json& wiring) {
  const std::string chip = wiring.value("chip", "");
  return "line " + wiring.value("line", "") + (chip.empty() ? " of any chip" : " of " + chip);
}

class Checker {
 public:
  explicit Checker(const Json& entities) {
    mirror_.entitiesAre("", entities);
    lamps_ = lampsOf(mirror_);
    for (const auto& [path, entity] : mirror_.entities())
      if (isWiring(path)) wirings_[lastName(path)] = &entity.attributes;
  }

  std::vector<Finding> findings() {
    for (const Lamp& lamp : lamps_) checkLamp(lamp);
    checkPins();
    checkLines();
    std::ranges::stable_sort(all_, {}, &Finding::path);
    return std::move(all_);
  }

 private:
  static bool isWiring(const std::string& path) { return parentPath(path) == Paths::kWirings; }

  void wrong(const std::string& path, const std::string& text) { all_.push_back({path, text}); }
  void note(const std::string& path, const std::string& text) { all_.push_back({path, text, true}); }

  void checkLamp(const Lamp& lamp) {
    const bool hasMappings = std::ranges::any_of(lamps_, &Lamp::mapped);
    if (!lamp.mapped && hasMappings)
      wrong(ledPath(lamp.name), "the LED has no mapping, so nothing drives it; add " + mapPath(lamp.name) +
                                    ", or remove the LED");
    if (lamp.mapped) checkMapping(lamp);
    if (lamp.flashInterval != 0 && lamp.flashInterval < kShortestFlash)
      note(ledPath(lamp.name), "flashes every " + shortNumber(lamp.flashInterval) +
                                   " s, which people see as steady; intervals are in seconds");
  }

  void checkMapping(const Lamp& lamp) {
    const bool hasPins = std::ranges::any_of(lamp.pins, [](const auto& pins) { return !pins.empty(); });
    if (!hasPins)
      wrong(mapPath(lamp.name),
            "the mapping has no pins; name those of a colour, such as \"gpioGreenName\": [\"PIN\"]");
    if (!lamp.ready)
      note(mapPath(lamp.name), "the mapping is not ready, so nothing drives the LED; add \"ready\": true");
    for (std::size_t i = 0; hasPins && i < kColours.size(); ++i)
      if (lamp.wanted[i] && lamp.pins[i].empty())
        wrong(ledPath(lamp.name), std::string("is set to ") + kColours[i].name +
                                      ", for which the LED has no pin; name one in \"" +
                                      kColours[i].mappedPins + "\" of " + mapPath(lamp.name) +
                                      ", or set another colour");
  }

  // A pin that two LEDs have shows what the last of them was set to.
  void checkPins() {
    std::map<std::string, std::string> ledOf;
    for (const Lamp& lamp : lamps_)
      for (const auto& ofColour : lamp.pins)
        for (const std::string& pin : ofColour) {
          const auto [first, isNew] = ledOf.emplace(pin, lamp.name);
          if (!isNew && first->second != lamp.name)
            note(mapPath(lamp.name), "pin " + pin + " is also one of " + first->second +
                                         "; each of them would change it; give one another pin");
          if (isNew && !wirings_.empty() && !wirings_.contains(pin))
            wrong(mapPath(lamp.name), "pin " + pin + " has no line; add " + wiringPath(pin));
        }
    for (const auto& [pin, wiring] : wirings_)
      if (!ledOf.contains(pin) && !ledOf.empty())
        note(wiringPath(pin), "the line is of no LED's pin; map it, or remove it");
  }

  void checkLines() {
    std::map<std::string, std::string> pinOf;
    for (const auto& [pin, wiring] : wirings_) {
      if (wiring->value("line", "").empty()) {
        wrong(wiringPath(pin), "names no line; add its offset or name, such as \"line\": \"17\"");
        continue;
      }
      const auto [first, isNew] = pinOf.emplace(lineOf(*wiring), pin);
      if (!isNew)
        wrong(wiringPath(pin),
              lineOf(*wiring) + " is wired to pin " + first->second + ", too; a line has one pin");
    }
  }

  Mirror mirror_;
  std::vector<Lamp> lamps_;
  std::map<std::string, const Json*> wirings_;  // attributes, by pin
  std::vector<Finding> all_;
};

}  // namespace

std::vector<Finding> findingsIn(const Json& entities) { return Checker(entities).findings(); }

}  // namespace Ctl
