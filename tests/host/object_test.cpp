// Live objects by path.
#include "host/control/object.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/gpioledconfig.h"
#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Hardware::Gpio::CorvelGpioLedConfig;
using Hardware::Gpio::CorvelPinConfig;
using Support::errorOf;
using Zel::Ptr;
using Zel::Value;

struct Watcher : Zel::Reactor<Watcher, CorvelPinConfig::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Watcher";
  using Reactor::Reactor;
};

// An object to drive: refers to LEDs and passes one on.
class Driver : public Zel::Described<Driver, Zel::Entity> {
 public:
  static constexpr auto attributes() {
    return std::tuple{
        Zel::attribute::value<&Driver::system_>("system"), Zel::attribute::value<&Driver::seen_>("seen"),
        Zel::attribute::procedure<&Driver::write>("write", "led", "value"),
        Zel::attribute::keyed<&Driver::watchers_, &Driver::watchersIs, &Driver::watchersDel>("watchers"),
        Zel::attribute::value<&Driver::dir_>("dir", Zel::attribute::kGet)};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::Driver");
    return type;
  }
  double wakeUp() const override { return wakesAt; }
  using Described::Described;
  explicit Driver(Zel::Name name) : Described(name) {}
  void write(const Ptr<CorvelGpioLedConfig>& led, std::uint32_t value) {
    for (const auto& pin : led->gpioRed()) pin->valueIs(value);
  }

  Ptr<Watcher> watchersIs(const Ptr<CorvelPinConfig>& pin) {
    watchers_.insert(pin->name(), Zel::allocate<Watcher>(pin));
    return watchers_.find(pin->name());
  }
  Ptr<Watcher> watchersDel(Zel::Name name) { return watchers_.remove(name); }

  Zel::PtrMap<Watcher> watchers_;
  Ptr<Hardware::Gpio::CorvelGpioLedSystemConfigDir> system_ =
      Zel::allocate<Hardware::Gpio::CorvelGpioLedSystemConfigDir>("ledSystem");
  Ptr<const CorvelPinConfig> seen_;
  Ptr<Zel::Dir> dir_;
  double wakesAt = Zel::Clock::kNever;
};

struct TestAgent : Support::Plain<TestAgent, Warden::CAgent> {
  static constexpr const char* kName = "Test::Agent";
  explicit TestAgent(Zel::Name name) : Plain(name) {}
};

class ObjectsTest : public testing::Test {
 protected:
  ObjectsTest() {
    led->gpioRedIs(pin);
    Zel::dynamicPtrCast<Zel::Dir>(dir->entryIs("d", "Zel::Dir"))->entryIs(pin);
  }
  Ptr<Driver> driver = Zel::allocate<Driver>("driver");
  Ptr<CorvelGpioLedConfig> led = driver->system_->gpioLedsIs("A/1");
  Ptr<CorvelPinConfig> pin = Zel::allocate<CorvelPinConfig>("p");
  Ptr<Zel::Dir> dir = Zel::allocate<Zel::Dir>("");
  Host::Objects with(Host::Objects::Access access) {
    return {[this] {
              return std::vector<Host::Objects::Root>{{"driver", driver}};
            },
            [this] { return dir; }, access};
  }
  const Zel::TypeRegistration types{&Driver::typeNode, &TestAgent::typeNode};
  const Host::Objects objects = with(Host::Objects::Access::writable);
};

TEST_F(ObjectsTest, PathsLeadThroughPointersCollectionsAndDirectories) {
  EXPECT_EQ(objects.get("agent/system/gpioLeds/A%2F1/gpioRed/p/value").value, Value(0));
  EXPECT_EQ(objects.get("driver/system/gpioLeds").value, Value(Value::List{"A/1"}));
  EXPECT_EQ(objects.get("d/p/value").value, Value(0));
  EXPECT_EQ(objects.set("d/p/value", {1}), Value());
  EXPECT_EQ(pin->value(), 1U);
  EXPECT_EQ(objects.del("agent/system/gpioLeds/A%2F1/gpioRed/p").as<Value::Object>()->pointer, pin);
  EXPECT_TRUE(led->gpioRed().empty());
  objects.set("agent/system/gpioLeds/B", {});
  EXPECT_NE(driver->system_->gpioLeds("B"), nullptr);
  objects.del("d/p");
  EXPECT_EQ(pin->parent(), nullptr);
  objects.set("d/entries/e", {"Zel::Dir"});
  EXPECT_EQ(objects.get("d/e/name").value, Value("e"));

  driver->seen_ = pin;
  objects.set("agent/watchers", {"p"});
  EXPECT_EQ(objects.get("agent/watchers/p").value.as<Value::Object>()->pointer, driver->watchers_.find("p"));
  EXPECT_EQ(*objects.tree("agent/watchers/p", 16).field("type"), Value("Test::Watcher"));
  EXPECT_NE(objects.del("agent/watchers/p"), Value());

  const auto mapping = Zel::allocate<Hardware::Gpio::GpioLedConfig>("m");
  dir->entryIs(mapping);
  mapping->gpioRedNameIs("a", true);
  EXPECT_EQ(objects.get("m/gpioRedName/a").value, Value(true));
  mapping->gpioRedNameIs("a", false);
  EXPECT_EQ(objects.get("m/gpioRedName/a").value, Value(false));
}

TEST_F(ObjectsTest, RefusesWithTheReasonAndInternsNothing) {
  using Operation = std::function<void(const Host::Objects&, const std::string&, const Value::List&)>;
  const Operation get = [](auto& all, auto& path, auto&) { all.get(path); };
  const Operation set = [](auto& all, auto& path, auto& given) { all.set(path, given); };
  const Operation del = [](auto& all, auto& path, auto&) { all.del(path); };
  const Operation call = [](auto& all, auto& path, auto& given) { all.call(path, given); };
  const Operation iterate = [](auto& all, auto& path, auto&) { all.iterate(path); };
  const Operation tree = [](auto& all, auto& path, auto&) { all.tree(path, 16); };
  const Operation list = [](auto& all, auto& path, auto&) { all.list(path); };
  const struct {
    const Operation& operation;
    std::string path;
    const char* says;
    Value::List given{};
  } cases[] = {
      {get, "agent/sytem", "there is no 'sytem'; known: name, parent, system, seen, write, watchers, dir"},
      {get, "agent/system/gpioLeds/C/gpioRed", "'C' is not a member of 'gpioLeds'; known: A%2F1"},
      {get, "agent/seen/value", "'seen' is null"},
      {get, "nothing", "there is no 'nothing'; known: d, lamp, m, name"},
      {tree, "agent//system", "has an empty component"},
      {get, "d/" + std::string(256, 'a'), "is longer than 255 bytes"},
      {iterate, "agent/system/gpioLeds/A%2F1", "operation iterate is not supported on an object"},
      {iterate, "agent/system/gpioLeds/C", "'C' is not a member"},
      {list, "agent/system/gpioLeds/C", "'C' is not a member"},
      {iterate, "m/gpioRedName/a", "operation iterate is not supported on one name of 'gpioRedName'"},
      {del, "m/gpioRedName/a", "operation delete is not supported on one name of 'gpioRedName'"},
      {get, "m/gpioRedName/b", "'b' is not a member of 'gpioRedName'; known: a"},
      {call, "agent/seen", "operation invoke is not supported on 'seen'", {"x"}},
      {call, "agent/system/gpioLeds/A%2F1", "operation invoke is not supported on an object"},
      {del, "agent", "operation delete is not supported on an object"},
      {del, "agent/system/gpioLeds/C", "'C' is not a member"},
      {set, "agent/watchers", "argument 1 is null, expected a Hardware::Gpio::CorvelPinConfig", {Value()}},
      {call,
       "agent/write",
       "argument 1 is null, expected a Hardware::Gpio::CorvelGpioLedConfig",
       {Value(), 1}},
      {set, "d/entries/x", "type Test::Agent is an agent's, which only a host makes", {"Test::Agent"}},
      {set, "d/entries/x", "No::Such", {"No::Such"}},
      {set, "d/entries/x", "Zel::Entity", {"Zel::Entity"}},
      {set, "agent/system/gpioLeds/A%2F1/gpioRed", "expected", {Value::Object{led, false}}},
      {set, "agent/system/gpioLeds/A%2F1/gpioRed", "read only", {Value::Object{pin, true}}},
      {set, "m/name", "operation set is not supported on 'name' of Zel::Entity; it allows get", {"x"}},
      {del, "m/ready", "it allows get, set"},
      {call, "m/ready", "operation invoke is not supported"},
      {set, "m/ready", "found a whole number (1), expected true or false", {1}},
      {set, "m/ready", "found 0 arguments, expected 1"},
      {call, "lamp/doInit", "only the host starts an agent"},
      {call, "lamp/doMountsComplete", "only the host starts an agent", {"failure"}},
  };
  dir->entryIs(Zel::allocate<TestAgent>("lamp"));
  const auto mapping = Zel::allocate<Hardware::Gpio::GpioLedConfig>("m");
  dir->entryIs(mapping);
  mapping->gpioRedNameIs("a", true);
  const std::size_t names = Zel::Name::count();
  for (const auto& each : cases) {
    const std::string text = errorOf([&] { each.operation(objects, each.path, each.given); });
    EXPECT_NE(text.find(each.says), std::string::npos) << each.path << ": " << text;
  }
  EXPECT_EQ(Zel::Name::count(), names);
  for (const Operation& writes : {set, del, call})
    EXPECT_EQ(errorOf([&] { writes(with(Host::Objects::Access::readOnly), "d/p", {}); }),
              "live objects may only be read; to set, delete or invoke them, start pinlampd with "
              "--allow-object-writes");
  driver->seen_ = pin;
  EXPECT_EQ(errorOf([&] { objects.set("agent/seen/value", {1}); }), "the object may be read only");
}

TEST_F(ObjectsTest, ReportsTheNextWakeUp) {
  const Zel::System::ManualTime time(10.0);
  EXPECT_FALSE(Host::Objects::describe(objects.get("driver").value).field("wakesIn"));
  driver->wakesAt = 10.5;
  EXPECT_EQ(*Host::Objects::describe(objects.get("driver").value).field("wakesIn"), Value(0.5));
}

TEST_F(ObjectsTest, AStringMayNameAnObjectOrItsPath) {
  for (const char* text : {"A/1", "agent/system/gpioLeds/A%2F1"}) {
    pin->valueIs(0);
    objects.call("agent/write", {text, 7});
    EXPECT_EQ(pin->value(), 7U) << text;
  }
  objects.set("agent/seen", {"d/p"});
  EXPECT_EQ(driver->seen_, pin);
}

TEST_F(ObjectsTest, TheTreeHasEveryObjectOnceAndNoParents) {
  const Value tree = objects.tree("agent", 16);
  const Value& system = tree.field("members")->as<Value::List>()->at(0);
  EXPECT_EQ(*system.field("path"), Value("agent/system"));
  const Value& shown = system.field("members")->as<Value::List>()->at(0);
  EXPECT_EQ(*shown.field("path"), Value("agent/system/gpioLeds/A%2F1"));
  EXPECT_EQ(shown.field("members")->as<Value::List>()->size(), 1U) << "the pin, and not the directory above";
  EXPECT_EQ(objects.tree("agent", 1).field("members")->as<Value::List>()->at(0).field("members"), nullptr);
}

TEST_F(ObjectsTest, LongAnswersAreTruncatedAndReportIt) {
  const auto size = [](const Value& list) { return list.as<Value::List>()->size(); };
  for (int i = 0; i < 100; ++i) {
    const auto inner = Zel::dynamicPtrCast<Zel::Dir>(dir->entryIs("inner" + std::to_string(i), "Zel::Dir"));
    for (int j = 0; j < 300; ++j) inner->entryIs("e" + std::to_string(j), "Zel::Dir");
  }
  driver->dir_ = dir;
  const Value one = objects.tree("inner1", 16);
  EXPECT_EQ(size(*one.field("members")), Host::Objects::kTreeMembers);
  EXPECT_EQ(*one.field("omitted"), Value(Value::Fields{{"entries", 300 - 256}}));

  const auto wide = Zel::dynamicPtrCast<Zel::Dir>(dir->entryIs("wide", "Zel::Dir"));
  for (std::size_t i = 0; i < Host::Objects::kListed + 5; ++i)
    wide->entryIs("e" + std::to_string(i), "Zel::Dir");
  const auto listing = objects.list("wide");
  EXPECT_EQ(
      std::ranges::count(listing.components, Value("member"), [](auto& each) { return *each.field("kind"); }),
      Host::Objects::kListed);
  EXPECT_EQ(listing.omitted, (Value::Fields{{"entries", 5}}));
  for (const auto& keys : {objects.iterate("wide/entries"), objects.get("wide/entries")}) {
    EXPECT_EQ(size(keys.value), Host::Objects::kListed);
    EXPECT_EQ(keys.omitted, (Value::Fields{{"entries", 5}}));
  }

  const std::string text = errorOf([&] { objects.get("inner1/e777"); });
  EXPECT_EQ(text.find("there is no 'e777'; known: e77, e7, e70, "), 0U) << text;
  EXPECT_NE(text.find(" and 287 more"), std::string::npos) << text;

  std::size_t listed = 0, omitted = 0;
  const std::function<void(const Value&)> count = [&](const Value& node) {
    ++listed;
    if (const Value* left = node.field("omitted"))
      for (const auto& [name, more] : *left->as<Value::Fields>())
        omitted += static_cast<std::size_t>(*more.as<std::int64_t>());
    if (const Value* members = node.field("members"))
      for (const Value& member : *members->as<Value::List>()) count(member);
  };
  count(objects.tree("agent", 16));
  EXPECT_EQ(listed, Host::Objects::kTreeObjects);
  EXPECT_GT(omitted, 0U);
}

}  // namespace
