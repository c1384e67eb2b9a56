// Live objects by path.
#include "host/object.h"

#include <gtest/gtest.h>

#include "platform/model/hardwaregpio.h"
#include "platform/zel/activity.h"

namespace {

using Hardware::Gpio::CorvelGpioLedConfig;
using Hardware::Gpio::CorvelPinConfig;
using Zel::Ptr;
using Zel::Value;

// Something to drive: refers to LEDs, and hands one on.
class Driver : public Zel::Described<Driver, Zel::Entity> {
 public:
  static constexpr auto attributes() {
    return std::tuple{Zel::row::value<&Driver::system_>("system"), Zel::row::value<&Driver::seen_>("seen"),
                      Zel::row::procedure<&Driver::write>("write", "led", "value")};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::Driver");
    return type;
  }
  using Described::Described;
  explicit Driver(Zel::Name name) : Described(name) {}
  void write(const Ptr<CorvelGpioLedConfig>& led, std::uint32_t value) {
    for (const auto& pin : led->gpioRed()) pin->valueIs(value);
  }

  Ptr<Hardware::Gpio::CorvelGpioLedSystemConfigDir> system_ =
      Zel::allocate<Hardware::Gpio::CorvelGpioLedSystemConfigDir>("ledSystem");
  Ptr<const CorvelPinConfig> seen_;
};

class ObjectsTest : public testing::Test {
 protected:
  ObjectsTest() {
    led->gpioRedIs(pin);
    Zel::dynamicPtrCast<Zel::Dir>(dir->entryIs("d", "Zel::Dir"))->entryIs(pin);
  }
  std::string error(const std::function<void()>& call) {
    try {
      call();
    } catch (const std::exception& refused) {
      return refused.what();
    }
    return "no error";
  }

  Ptr<Driver> driver = Zel::allocate<Driver>("driver");
  Ptr<CorvelGpioLedConfig> led = driver->system_->gpioLedsIs("A/1");
  Ptr<CorvelPinConfig> pin = Zel::allocate<CorvelPinConfig>("p");
  Ptr<Zel::Dir> dir = Zel::allocate<Zel::Dir>("");
  const Zel::TypeRegistration types{&Driver::typeNode};
  const Host::Objects objects{[this] {
                                return std::vector<Host::Objects::Root>{{"driver", driver}};
                              },
                              [this] { return dir; }};
};

TEST_F(ObjectsTest, PathsLeadThroughPointersCollectionsAndDirectories) {
  EXPECT_EQ(objects.get("agent/system/gpioLeds/A%2F1/gpioRed/p/value"), Value(0));
  EXPECT_EQ(objects.get("driver/system/gpioLeds"), Value(Value::List{"A/1"}));
  EXPECT_EQ(objects.get("d/p/value"), Value(0));
  EXPECT_EQ(objects.set("d/p/value", {1}), Value());
  EXPECT_EQ(pin->value(), 1U);
  EXPECT_EQ(objects.del("agent/system/gpioLeds/A%2F1/gpioRed/p").as<Value::Object>()->pointer, pin);
  EXPECT_TRUE(led->gpioRed().empty());
  objects.set("agent/system/gpioLeds/B", {});
  EXPECT_NE(driver->system_->gpioLeds("B"), nullptr);
  objects.del("d/p");
  EXPECT_EQ(pin->parent(), nullptr);
}

TEST_F(ObjectsTest, ATextStandsForTheObjectOfItsNameOrPath) {
  for (const char* text : {"A/1", "agent/system/gpioLeds/A%2F1"}) {
    pin->valueIs(0);
    objects.call("agent/write", {text, 7});
    EXPECT_EQ(pin->value(), 7U) << text;
  }
  objects.set("agent/seen", {"d/p"});
  EXPECT_EQ(driver->seen_, pin);
}

TEST_F(ObjectsTest, WhatLeadsNowhereSaysWhatThereIs) {
  const std::pair<const char*, const char*> cases[] = {
      {"agent/sytem", "'sytem' leads nowhere; there is name, parent, system, seen, write"},
      {"agent/system/gpioLeds/C/gpioRed", "'C' is no member of 'gpioLeds'; there is A%2F1"},
      {"agent/seen/value", "'seen' is null"},
      {"nothing", "'nothing' leads nowhere; there is d"},
      {"agent//system", "has an empty component"},
  };
  for (const auto& [path, says] : cases)
    EXPECT_NE(error([&] { objects.get(path); }).find(says), std::string::npos)
        << error([&] { objects.get(path); });
  driver->seen_ = pin;
  EXPECT_EQ(error([&] { objects.set("agent/seen/value", {1}); }), "'agent/seen/value' may be read only");
}

TEST_F(ObjectsTest, TheTreeHasEveryObjectOnceAndDoesNotClimb) {
  const Value tree = objects.tree("agent", 16);
  const Value& system = tree.field("members")->as<Value::List>()->at(0);
  EXPECT_EQ(*system.field("path"), Value("agent/system"));
  const Value& shown = system.field("members")->as<Value::List>()->at(0);
  EXPECT_EQ(*shown.field("path"), Value("agent/system/gpioLeds/A%2F1"));
  EXPECT_EQ(shown.field("members")->as<Value::List>()->size(), 1U) << "the pin, and not the directory above";
  EXPECT_EQ(objects.tree("agent", 1).field("members")->as<Value::List>()->at(0).field("members"), nullptr);
}

}  // namespace
