// Checks of clients' batches. Only accepted batches are interned.
#include "host/control/batch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace {

using Host::Json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::string kLeds = "hardware/led/config/leds/";
const std::map<std::string, std::string, std::less<>> kThere = {
    {"hardware", "Zel::Dir"},
    {"hardware/led/config", "Hardware::Led::LedSystemConfigDir"},
    {kLeds + "Status", "Hardware::Led::LedConfig"},
};

Host::Batch batchOf(const Json& changes, bool lenient = false) {
  const auto typeAt = [](std::string_view path) {
    const auto found = kThere.find(path);
    return found == kThere.end() ? Zel::Name() : Zel::Name(found->second);
  };
  Host::Announcements announcements;
  const Host::Announcements::Process writer(announcements);
  const Zel::Value list = Host::parseJson(changes.dump());
  return Host::readBatch(*list.as<Zel::Value::List>(),
                         {typeAt,
                          {},
                          announcements,
                          writer,
                          lenient ? Statedb::Durability::volatile_ : Statedb::Durability::stored});
}

Json put(const std::string& path, const char* type = nullptr, const Json& attributes = nullptr) {
  Json change = {{"op", "put"}, {"path", path}};
  if (type) change["type"] = type;
  if (!attributes.is_null()) change["attributes"] = attributes;
  return change;
}
Json del(const std::string& path) { return {{"op", "del"}, {"path", path}}; }

std::string repeated(const char* text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

TEST(Batch, ErrorsNameTheirStepAndLeaveNothingBehind) {
  const std::string longName(256, 'n');
  const std::pair<Json, std::string> cases[] = {
      {put(kLeds + "Status", nullptr, {{"colour", "red"}}),
       kLeds + "Status colour: 'colour' is no attribute that Hardware::Led::LedConfig stores; it stores "
               "lightSetting,"},
      {put(kLeds + "Status", nullptr, {{"name", "x"}}), "Status name: 'name' is no attribute that"},
      {put(kLeds + "New", nullptr, {{"lightSetting", {{"flashInterval", -1}}}}),
       "lightSetting: flashInterval: found a whole number (-1), expected seconds"},
      {put(kLeds + "Status", "Hardware::Led::Lamp"), "type 'Hardware::Led::Lamp' is unknown"},
      {put(kLeds + "Status", "Zel::Dir"), "exists as a Hardware::Led::LedConfig; delete it"},
      {put(kLeds + "New", "Zel::Dir"), "found type Zel::Dir, expected Hardware::Led::LedConfig"},
      {put("hardware/led/config/lamps/Status", "Hardware::Led::LedConfig"),
       "'lamps' is no collection of Hardware::Led::LedSystemConfigDir; it has leds"},
      {put("hardware/led/config/leds", "Hardware::Led::LedConfig"),
       "'leds' is a collection; a member's name must follow it"},
      {put(kLeds + "None/modes/x"), "there is no entity at 'hardware/led/config/leds/None'"},
      {put("hardware//led", "Zel::Dir"), "has an empty component"},
      {put("", "Zel::Dir"), "the path is empty"},
      {put("a%2", "Zel::Dir"), "is no component of a path"},
      {put("agent", "Zel::Entity"), "type Zel::Entity can't be put in a directory"},
      {put("never/made"), "'type' is missing, and there is no entity to take it from"},
      {put("long/" + longName, "Zel::Dir"), "is longer than 255 bytes"},
      {put("map", "Hardware::Gpio::GpioLedConfig", {{"gpioRedName", {"fine", longName}}}),
       "is longer than 255 bytes"},
      {del("deep" + repeated("/d", 150000)), "is longer than 4096 bytes"},
      {put(kLeds + "Status", nullptr, {{std::string(5000, 'a'), 1}}), "aaa... (5000 bytes)' is no attribute"},
      {del("hardware/fan"), "hardware/fan: there is no entity at this path"},
  };
  batchOf(Json::array({cases[0].first}));  // types get their names when they are first asked for
  const std::size_t names = Zel::Name::count();
  const std::size_t paths = Statedb::Path::count();
  for (const auto& [change, says] : cases) {
    const auto errors = batchOf({put("x/new", "Zel::Dir"), change}).errors;
    ASSERT_EQ(errors.size(), 1U) << change.dump().substr(0, 200);
    EXPECT_THAT(errors.front(), ::testing::HasSubstr(says));
    EXPECT_LT(errors.front().size(), 8192U);
  }
  EXPECT_EQ(Zel::Name::count(), names);
  EXPECT_EQ(Statedb::Path::count(), paths);
}

TEST(Batch, ValidChangesBecomeRows) {
  const auto batch = batchOf({put(kLeds + "Ethernet3%2F1", nullptr, {{"lightSetting", {{"green", true}}}}),
                              put("a/new/place", "Zel::Dir"), del(kLeds + "Status"), del("a/new/place"),
                              put("deep" + repeated("/d", 63), "Zel::Dir")});
  EXPECT_THAT(batch.errors, ElementsAre());
  ASSERT_EQ(batch.changes.size(), 6U);
  EXPECT_EQ(batch.changes[1].row.attribute, "lightSetting");
  EXPECT_EQ(batch.changes[3].row.path, Statedb::Path(kLeds + "Status"));
}

TEST(Batch, LenientRemovalsNeedNoEntityAndInternNothing) {
  const Json unset = {{"op", "unset"}, {"path", "hardware/led"}, {"attribute", "neverNamed"}};
  const auto batch =
      batchOf({put("rowless/a", "Zel::Dir"), del("rowless"), del("rowless/b/never"), unset}, true);
  EXPECT_THAT(batch.errors, ElementsAre());
  ASSERT_EQ(batch.changes.size(), 2U);
  EXPECT_EQ(batch.changes[1].row.path, "rowless");
  EXPECT_FALSE(Statedb::Path::existing("rowless/b/never"));
  EXPECT_FALSE(Zel::Name::existing("neverNamed"));
}

TEST(Batch, StepsAreCheckedAgainstEarlierOnes) {
  const char* mapping = "Hardware::Gpio::GpioLedConfig";
  const auto batch = batchOf({put("map", "Hardware::Gpio::GpioLedSystemConfigDir"),
                              put("map/gpioLeds/A", mapping, {{"ready", 1}}),
                              put("map/gpioLeds/B", mapping, {{"ready", true}}), del("hardware"),
                              del(kLeds + "Status"), put("hardware", "Zel::Dir"), del("hardware"), del("map"),
                              del("map/gpioLeds/B"), put("map", "Zel::Dir")});
  EXPECT_THAT(batch.errors,
              ElementsAre("map/gpioLeds/A ready: found a whole number (1), expected true or false",
                          kLeds + "Status: there is no entity at this path",
                          "map/gpioLeds/B: there is no entity at this path"));
}

TEST(Batch, APlaceIsAsTheStepsBeforeLeaveIt) {
  const char* led = "Hardware::Led::LedConfig";
  const auto batch = batchOf({put(kLeds + "A", led), put(kLeds + "B", led), put(kLeds + "C", "Zel::Dir"),
                              put(kLeds + "D%2", led), put(kLeds, led), put("n/x", "Zel::Dir"),
                              put("n", "Hardware::Led::LedSystemConfigDir"), put("n/y", "Zel::Dir")});
  EXPECT_THAT(batch.errors,
              ElementsAre(HasSubstr("leds/C: found type Zel::Dir, expected"),
                          HasSubstr("leds/D%2: 'D%2' is no component of a path"),
                          HasSubstr("leds/: 'hardware/led/config/leds/' has an empty component"),
                          HasSubstr("n/y: 'y' is no collection of")));
}

// Thousands of wrong steps cost no more than valid ones, and the answer is bounded.
TEST(Batch, ManyStepsAreCheckedInOneWalkEach) {
  Json changes = Json::array();
  for (int i = 0; i < 5000; ++i) {
    changes.push_back(put("many/" + std::to_string(i), "Zel::Dir"));
    changes.push_back(del("many/" + std::to_string(i)));
  }
  EXPECT_EQ(batchOf(changes).changes.size(), 10000U);
  for (Json& change : changes) change = del("none" + change["path"].get<std::string>());
  const auto errors = batchOf(changes).errors;
  EXPECT_EQ(errors.size(), Host::Batch::kMostErrors + 1);
  EXPECT_THAT(errors.back(), ::testing::StartsWith("more steps are wrong"));
}

}  // namespace
