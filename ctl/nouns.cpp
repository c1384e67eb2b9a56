#include "ctl/nouns.h"

namespace Ctl {

Json pinJson(std::size_t colour, const std::string& name, bool mapped, std::optional<unsigned> value) {
  return {{"colour", kColours[colour].name},
          {"name", name},
          {"mapped", mapped},
          {"value", value ? Json(*value) : Json()}};
}

namespace {

Json pinsJson(const Lamp& lamp, const PinValues& values) {
  Json pins = Json::array();
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const auto* names : {&lamp.pins[i], &lamp.formerPins[i]})
      for (const std::string& pin : *names) {
        const auto known = values.find(pin);
        pins.push_back(
            pinJson(i, pin, names == &lamp.pins[i], known == values.end() ? std::nullopt : known->second));
      }
  return pins;
}

}  // namespace

Json ledJson(const Lamp& lamp, const PinValues& values, bool stale) {
  return {{"name", lamp.name},
          {"path", ledPath(lamp.name)},
          {"setting", lamp.configured ? lamp.setting : Json()},
          {"mapped", lamp.mapped},
          {"ready", lamp.ready},
          {"shows", lamp.driven ? Json(colourNames(lamp.shows)) : Json()},
          {"stale", stale && lamp.driven},
          {"pins", pinsJson(lamp, values)}};
}

Json mappingJson(const Lamp& lamp) {
  Json pins = Json::array();
  for (std::size_t i = 0; i < kColours.size(); ++i)
    for (const std::string& pin : lamp.pins[i]) pins.push_back({{"colour", kColours[i].name}, {"name", pin}});
  return {
      {"name", lamp.name}, {"path", mapPath(lamp.name)}, {"ready", lamp.ready}, {"pins", std::move(pins)}};
}

}  // namespace Ctl
