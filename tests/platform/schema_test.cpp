// What may stand in a state database.
#include <gtest/gtest.h>

#include <map>

#include "platform/statedb/schema.h"

namespace {

using Statedb::Change;
using Zel::Value;

const std::map<std::string, std::string> kThere = {
    {"hardware/led/config", "Hardware::Led::LedSystemConfigDir"},
    {"hardware/led/config/leds/Status", "Hardware::Led::LedConfig"},
};
Zel::Name typeAt(Statedb::Path path) {
  const auto found = kThere.find(path.text());
  return found == kThere.end() ? Zel::Name() : Zel::Name(found->second);
}

TEST(CheckChanges, SaysWhatIsWrongAndWhere) {
  const std::string leds = "hardware/led/config/leds/";
  const auto led = [&](const std::string& name, const std::string& attribute, Value value) {
    return Change::put(leds + name, "Hardware::Led::LedConfig", attribute, std::move(value));
  };
  const struct {
    Change change;
    std::string says;  // empty: fine
  } cases[] = {
      {led("Status", "lightSetting", Value::Fields{{"green", true}}), ""},
      {led("Ethernet3%2F1", "", {}), ""},
      {Change::put("a/new/place", "Zel::Dir", "", {}), ""},
      {Change::del(leds + "Status"), ""},
      {led("Status", "colour", "red"), leds + "Status colour: 'colour' is no attribute that "
                                              "Hardware::Led::LedConfig stores; it stores lightSetting,"},
      {led("Status", "name", "x"), "Status name: 'name' is no attribute that"},
      {led("Status", "lightSetting", Value::Fields{{"flashInterval", -1}}),
       "lightSetting: flashInterval: found a whole number (-1), wanted seconds"},
      {Change::put(leds + "Status", "Hardware::Led::Lamp", "", {}), "type 'Hardware::Led::Lamp' is unknown"},
      {Change::put(leds + "Status", "Zel::Dir", "", {}),
       "found type Zel::Dir, wanted Hardware::Led::LedConfig"},
      {Change::put("hardware/led/config/lamps/Status", "Hardware::Led::LedConfig", "", {}),
       "'lamps' is no collection of Hardware::Led::LedSystemConfigDir; it has leds"},
      {Change::put("hardware/led/config/leds", "Hardware::Led::LedConfig", "", {}),
       "'leds' is a collection; a member's name must follow it"},
      {led("None/modes/x", "", {}), "there is no entity at 'hardware/led/config/leds/None'"},
      {Change::put("hardware//led", "Zel::Dir", "", {}), "has an empty component"},
      {Change::put("hardware/led/", "Zel::Dir", "", {}), "has an empty component"},
      {Change::put("", "Zel::Dir", "", {}), "the path is empty"},
      {Change::put("a%2", "Zel::Dir", "", {}), "is no component of a path"},
      {Change::put("agent", "Zel::Entity", "", {}), "type Zel::Entity is not made in directories"},
      {Change::del("hardware/fan"), "hardware/fan: there is no entity at this path"},
  };
  for (const auto& [change, says] : cases) {
    const auto errors = Statedb::checkChanges({change}, typeAt);
    if (says.empty())
      EXPECT_TRUE(errors.empty()) << errors.front();
    else
      EXPECT_TRUE(errors.size() == 1 && errors[0].find(says) != std::string::npos)
          << says << " / " << (errors.empty() ? "no error" : errors[0]);
  }
}

TEST(CheckChanges, ABatchIsCheckedAsItWouldStand) {
  const Statedb::Changes changes = {
      Change::put("map", "Hardware::Gpio::GpioLedSystemConfigDir", "", {}),
      Change::put("map/gpioLeds/A", "Hardware::Gpio::GpioLedConfig", "ready", 1),
      Change::put("map/gpioLeds/B", "Hardware::Gpio::GpioLedConfig", "ready", true),
      Change::del("hardware/led"),
      Change::del("hardware/led/config/leds/Status"),
      Change::del("map"),
      Change::del("map/gpioLeds/B"),
  };
  const auto errors = Statedb::checkChanges(changes, [](Statedb::Path path) {
    return path == "hardware/led" ? Zel::Name("Zel::Dir") : typeAt(path);
  });
  ASSERT_EQ(errors.size(), 3U);
  EXPECT_EQ(errors[0], "map/gpioLeds/A ready: found a whole number (1), wanted true or false");
  EXPECT_EQ(errors[1], "hardware/led/config/leds/Status: there is no entity at this path");
  EXPECT_EQ(errors[2], "map/gpioLeds/B: there is no entity at this path");
}

}  // namespace
