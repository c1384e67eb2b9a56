#include "ctl/appliance.h"

#include <algorithm>
#include <unordered_map>

#include "ctl/entityreader.h"
#include "ctl/text.h"

namespace Ctl {

std::string ledPath(const std::string& led) {
  return std::string(Paths::kLeds) + "/leds/" + escapeComponent(led);
}
std::string initialLedPath(const std::string& led) {
  return std::string(Paths::kInitialLeds) + "/leds/" + escapeComponent(led);
}
std::string mapPath(const std::string& led) {
  return std::string(Paths::kMappings) + "/gpioLeds/" + escapeComponent(led);
}

std::vector<std::string> colourNames(const PerColour<bool>& colours) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < kColours.size(); ++i)
    if (colours[i]) names.emplace_back(kColours[i].name);
  return names;
}

void Mirror::changesAre(const Json& changes) {
  for (const Json& change : changes) {
    if (change.at("op") == "del")
      del(change.at("path"));
    else if (change.at("op") == "unset")
      unset(change);
    else
      put(change);
  }
}

void Mirror::entitiesAre(const std::string& above, Json entities) {
  del(above);
  for (Json& entity : entities) put(std::move(entity));
}

const Mirror::Entity* Mirror::find(const std::string& path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? nullptr : &found->second;
}

void Mirror::put(Json entity) {
  Entity& known = entities_[entity.at("path").get_ref<const std::string&>()];
  if (const auto type = entity.find("type"); type != entity.end()) known.type = *type;
  const auto set = entity.find("attributes");
  if (set == entity.end()) return;
  if (known.attributes.empty())
    known.attributes = std::move(*set);
  else
    known.attributes.update(*set);
}

void Mirror::unset(const Json& change) {
  const auto known = entities_.find(change.at("path").get<std::string>());
  if (known != entities_.end()) known->second.attributes.erase(change.at("attribute").get<std::string>());
}

void Mirror::del(const std::string& path) {
  std::erase_if(entities_, [&](const auto& entry) { return isUnder(entry.first, path); });
}

bool Lamp::lit() const { return std::count(shows.begin(), shows.end(), true) != 0; }

bool Lamp::lacksPin() const {
  for (std::size_t i = 0; i < kColours.size(); ++i)
    if (wanted[i] && pins[i].empty()) return true;
  return false;
}

std::string Lamp::settingText() const {
  if (!configured) return "-";
  const auto names = colourNames(wanted);
  const std::string flash = flashInterval == 0.0 ? "" : ", flash " + shortNumber(flashInterval) + " s";
  return (names.empty() ? "off" : joined(names, "+")) + flash;
}

std::string Lamp::shownText() const {
  if (!driven) return "-";
  return lit() ? joined(colourNames(shows), "+") : "dark";
}

std::vector<std::string> namesIn(const Json& attributes, const std::string& attribute) {
  std::vector<std::string> names;
  const auto set = attributes.find(attribute);
  if (set == attributes.end()) return names;
  for (const auto& [key, value] : set->items())
    names.push_back(set->is_object() ? key : value.get<std::string>());
  std::sort(names.begin(), names.end(), naturallyBefore);
  return names;
}

void settingIs(Lamp& lamp, Json setting) {
  lamp.configured = true;
  lamp.setting = std::move(setting);
  for (std::size_t i = 0; i < kColours.size(); ++i)
    lamp.wanted[i] = lamp.setting.value(kColours[i].name, false);
  const Json interval = lamp.setting.value("flashInterval", Json(0.0));
  lamp.flashInterval = interval.is_number() ? interval.get<double>() : 0.0;
}

namespace {

void readMapping(const Json& attributes, Lamp& lamp) {
  lamp.mapped = true;
  lamp.ready = attributes.value("ready", false);
  for (std::size_t i = 0; i < kColours.size(); ++i)
    lamp.pins[i] = namesIn(attributes, kColours[i].mappedPins);
}

std::optional<unsigned> pinValue(const Mirror& mirror, const std::string& pin) {
  const auto* entity = mirror.find(std::string(Paths::kPins) + '/' + escapeComponent(pin));
  if (!entity || entity->type != kPinType) return std::nullopt;
  return entity->attributes.value("value", 0U);
}

void readPins(const Mirror& mirror, const PerColour<std::vector<std::string>>& pins, Lamp& lamp) {
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const std::string& pin : pins[i]) {
      const auto value = pinValue(mirror, pin);
      lamp.driven = lamp.driven || value.has_value();
      lamp.shows[i] = lamp.shows[i] || value.value_or(0) != 0;
    }
}

}  // namespace

void formerPinsAre(Lamp& lamp, const PerColour<std::vector<std::string>>& driven, const Mirror& mirror) {
  for (std::size_t i = 0; i < kColours.size(); ++i)
    std::ranges::copy_if(driven[i], std::back_inserter(lamp.formerPins[i]), [&](const std::string& pin) {
      return std::ranges::find(lamp.pins[i], pin) == lamp.pins[i].end();
    });
  readPins(mirror, lamp.formerPins, lamp);
}

namespace {

bool isOfLed(const std::string& type) { return type == kLedType || type == kMapType; }

// LEDs, from their settings and mappings in any order.
class Lamps {
 public:
  // REQUIRES: isOfLed(type).
  void add(const std::string& path, const std::string& type, const Json& attributes) {
    const std::string name = lastName(path);
    if (type == kLedType && path == ledPath(name))
      settingIs(lamps_[name], attributes.value("lightSetting", Json::object()));
    if (type == kMapType && path == mapPath(name)) readMapping(attributes, lamps_[name]);
  }

  // In natural order of the names.
  std::vector<Lamp> take() {
    std::vector<Lamp> sorted;
    sorted.reserve(lamps_.size());
    for (auto& [name, lamp] : lamps_) {
      lamp.name = name;
      sorted.push_back(std::move(lamp));
    }
    lamps_.clear();
    std::ranges::sort(sorted, naturallyBefore, &Lamp::name);
    return sorted;
  }

 private:
  std::unordered_map<std::string, Lamp> lamps_;
};

class LampReader : public EntityReader {
 public:
  std::vector<Lamp> take() { return lamps_.take(); }

 private:
  void entity(std::string path, const std::string& type, const std::string& members) override {
    if (isOfLed(type)) lamps_.add(path, type, Json::parse('{' + members + '}'));
  }

  Lamps lamps_;
};

}  // namespace

std::vector<Lamp> lampsOf(const Mirror& mirror) {
  Lamps lamps;
  for (const auto& [path, entity] : mirror.entities())
    if (isOfLed(entity.type)) lamps.add(path, entity.type, entity.attributes);
  std::vector<Lamp> sorted = lamps.take();
  for (Lamp& lamp : sorted) readPins(mirror, lamp.pins, lamp);
  return sorted;
}

namespace {
std::set<std::string> allPinsOf(const Lamp& lamp) {
  std::set<std::string> all;
  for (const auto& ofColour : lamp.pins) all.insert(ofColour.begin(), ofColour.end());
  return all;
}
}  // namespace

bool sharesPin(const Lamp& a, const Lamp& b) {
  const auto pins = allPinsOf(a);
  return std::ranges::any_of(allPinsOf(b), [&](const std::string& pin) { return pins.contains(pin); });
}

std::set<std::string> namesOf(const std::vector<Lamp>& lamps) {
  std::set<std::string> names;
  for (const Lamp& lamp : lamps) names.insert(lamp.name);
  return names;
}

std::map<std::string, std::optional<unsigned>> pinsOf(const Mirror& mirror) {
  std::map<std::string, std::optional<unsigned>> pins;
  for (const Lamp& lamp : lampsOf(mirror))
    for (const auto& ofColour : lamp.pins)
      for (const std::string& pin : ofColour) pins.emplace(pin, std::nullopt);
  for (const auto& [path, entity] : mirror.entities())
    if (entity.type == kPinType && parentPath(path) == Paths::kPins)
      pins[lastName(path)] = entity.attributes.value("value", 0U);
  return pins;
}

namespace {
constexpr const char* kPaths[] = {Paths::kLeds, Paths::kMappings, Paths::kPins};
}

Mirror readAppliance(Client& client) {
  Mirror mirror;
  for (const char* path : kPaths) mirror.entitiesAre(path, client.read(path));
  return mirror;
}

std::vector<Lamp> readLedBases(Client& client, const std::vector<std::string>& patterns) {
  Mirror some;
  const auto known = [&](const std::string& name) {
    for (const std::string& path : {ledPath(name), mapPath(name)})
      some.entitiesAre(path, client.readBase(path));
    return some.find(ledPath(name)) || some.find(mapPath(name));
  };
  if (std::ranges::none_of(patterns, isGlob) && std::ranges::all_of(patterns, known)) return lampsOf(some);
  LampReader all;
  client.readBase({Paths::kLeds, Paths::kMappings}, all);
  return all.take();
}

LiveAppliance::LiveAppliance(Client& client) {
  for (const char* path : kPaths) watch(client, path);
}

LiveAppliance::LiveAppliance(Client& client, const std::string& led) {
  for (const std::string& path : {ledPath(led), mapPath(led), std::string(Paths::kPins)}) watch(client, path);
}

void LiveAppliance::watch(Client& client, const std::string& path) {
  Json begun = client.call("watch", {{"path", path}});
  paths_[begun.at("watch")] = path;
  mirror_.entitiesAre(path, std::move(begun.at("entities")));
}

void LiveAppliance::take(const Json& notification) {
  const Json& parameters = notification.at("params");
  if (notification.at("method") == "reset")
    mirror_.entitiesAre(paths_.at(parameters.at("watch")), parameters.at("entities"));
  else
    mirror_.changesAre(parameters.at("changes"));
}

// A known name is taken literally even if it has wildcard characters.
std::set<std::string> expandName(const std::string& what, const std::string& pattern,
                                 const std::set<std::string>& known) {
  if (known.contains(pattern)) return {pattern};
  std::set<std::string> names;
  for (const std::string& name : known)
    if (matches(pattern, name)) names.insert(name);
  if (names.empty())
    throw Refusal("no " + what + (isGlob(pattern) ? " matches '" : " is named '") + pattern + "'" +
                  hint(pattern, known));
  return names;
}

std::vector<std::string> expandNames(const std::vector<std::string>& patterns,
                                     const std::set<std::string>& known) {
  std::set<std::string> names;
  for (const std::string& pattern : patterns) names.merge(expandName("LED", pattern, known));
  return {names.begin(), names.end()};
}

}  // namespace Ctl
