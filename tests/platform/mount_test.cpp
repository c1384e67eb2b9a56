// Mounts: rows become entities, and entities rows.
#include <gtest/gtest.h>

#include <map>

#include "platform/model/corvelpinconfig.h"
#include "platform/model/gpioledconfig.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/model/paths.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Hardware::Gpio::CorvelPinConfig;
using Hardware::Led::LedConfig;
using Hardware::Led::LedSystemConfigDir;
using Statedb::Change;
using Statedb::Durability;
using Support::Lines;
using Zel::Ptr;
using Zel::Value;

constexpr const char* kLedDir = "Hardware::Led::LedSystemConfigDir";
constexpr const char* kLed = "Hardware::Led::LedConfig";
constexpr const char* kPin = "Hardware::Gpio::CorvelPinConfig";

struct TestAgent : Support::Plain<TestAgent, Warden::CAgent> {
  static constexpr const char* kName = "Test::Agent";
  TestAgent(Zel::Name name, std::vector<Statedb::Mount> mounts) : Plain(name), mounts_(std::move(mounts)) {}
  void doInit() override {
    mountGroup = entityManager()->getMountGroup(Ptr<Statedb::Mounter>(this));
    for (const auto& mount : mounts_) mountGroup->doMount(mount);
    mountGroup->doClose(false, "", 0.0);
  }
  void handleMountStatus(Statedb::MountStatus status) override { statuses.push_back(status); }

  Ptr<Statedb::MountGroup> mountGroup;
  std::vector<Statedb::MountStatus> statuses;
  const std::vector<Statedb::Mount> mounts_;
};

class Mounts : public testing::Test {
 protected:
  Mounts() {
    manager->reportIs([this](const std::string& text) { reports.push_back(text); });
  }
  ~Mounts() override { manager->stop(); }

  Ptr<TestAgent> agentOf(const Ptr<Statedb::EntityManager>& its, std::vector<Statedb::Mount> mounts) {
    auto made = Zel::allocate<TestAgent>("agent", std::move(mounts));
    made->entityManagerIs(its);
    made->doInit();
    EXPECT_TRUE(made->statuses.empty()) << "completion is reported later";
    return made;
  }
  Ptr<TestAgent> agent(std::vector<Statedb::Mount> mounts) {
    auto made = agentOf(manager, std::move(mounts));
    settle();
    return made;
  }
  // Logs added and removed LEDs.
  Ptr<Support::Watcher> watcher(const Ptr<LedSystemConfigDir>& dir) {
    return Zel::allocate<Support::Watcher>(dir, [this, &leds = dir->leds()](auto& attribute, Zel::Name name) {
      if (attribute == "leds")
        lines.push_back(name.stdString() + (leds.get(name) ? " is there" : " is gone"));
    });
  }
  void settle() {
    for (int i = 0; i < 10; ++i) {
      store.flush();
      activity.step();
    }
    store.flush();
  }
  void write(const Statedb::Changes& changes) {
    store.write(changes, Durability::stored);
    store.flush();
  }
  template <class T>
  Ptr<T> at(const std::string& path) {
    return Zel::dynamicPtrCast<T>(manager->entityAt(path));
  }

  Zel::System::ManualTime time;
  Zel::ActivityManager activity;
  Statedb::MemoryStore store;
  Ptr<Statedb::EntityManager> manager = Zel::allocate<Statedb::EntityManager>(store);
  Lines reports, lines;
};

TEST_F(Mounts, NestedMountsShareEntitiesAndAMissingOneIsMadeEmpty) {
  write({Change::put("hardware/gpio/config/led/gpioLeds/A", "Hardware::Gpio::GpioLedConfig", "", {})});
  write({Change::put("hardware/gpio/config/led", "Hardware::Gpio::GpioLedSystemConfigDir", "", {})});
  write({Change::put("hardware/gpio/config/led/gpioLeds/A", "Hardware::Gpio::GpioLedConfig", "ready", true)});
  const auto made = agent({{"hardware/gpio/config/led", "Hardware::Gpio::GpioLedSystemConfigDir", "r"},
                           {Paths::kLeds, kLedDir, "r"},
                           {"hardware/gpio/config", "Zel::Dir", "r"}});
  EXPECT_EQ(made->statuses, std::vector{Statedb::mountSuccess_});
  const auto outer = Zel::dynamicPtrCast<Zel::Dir>(manager->getEntity("hardware/gpio/config"));
  ASSERT_TRUE(outer);
  EXPECT_EQ(outer->entityRef("led"), manager->getEntity("hardware/gpio/config/led"));
  EXPECT_TRUE(at<Hardware::Gpio::GpioLedConfig>("hardware/gpio/config/led/gpioLeds/A")->ready());
  EXPECT_TRUE(Zel::dynamicPtrCast<LedSystemConfigDir>(manager->getEntity(Paths::kLeds))->leds().empty());
  EXPECT_FALSE(manager->getEntity("hardware/gpio")) << "on the way, but not mounted";
  EXPECT_FALSE(manager->getEntity("hardware/gpio/config/led/gpioLeds/A"));
}

TEST_F(Mounts, AGroupFailsWithPathTypeFoundAndTypeAsked) {
  write({Change::put(Paths::kLeds, "Zel::Dir", "", {}), Change::put("x", "No::Such", "", {}),
         Change::put("w", "Statedb::Mounter", "", {})});
  const auto made = agent({{Paths::kLeds, kLedDir, "r"},
                           {"x", "Zel::Dir", "r"},
                           {"x/under", "Zel::Dir", "r"},
                           {"w", "Statedb::Mounter", "wi"},
                           {"y", "Gone::Type", "r"}});
  EXPECT_EQ(made->statuses, std::vector{Statedb::mountFailure_});
  const std::string unknown =
      " that can't be made (type 'No::Such' is unknown), asked for Zel::Dir; delete "
      "that entity from a host without this agent";
  EXPECT_EQ(
      made->mountGroup->failures(),
      (Lines{"mount of 'hardware/led/config': found an entity of type Zel::Dir, "
             "asked for Hardware::Led::LedSystemConfigDir; delete that entity from a host without this agent",
             "mount of 'x': found an entity of type No::Such" + unknown,
             "mount of 'x/under': found an entity of type No::Such at 'x'" + unknown,
             "mount of 'w': found an entity of type Statedb::Mounter that can't be made "
             "(type Statedb::Mounter is an agent's, which only a host makes), asked for Statedb::Mounter; "
             "delete "
             "that entity from a host without this agent",
             "mount of 'y': the type asked for, Gone::Type, is unknown"}));
  EXPECT_THROW(made->mountGroup->doMount({"z", "Zel::Dir", "r"}), Zel::RangeException) << "closed";
}

TEST_F(Mounts, ADeleteAndARecreationThatArriveTogetherAreTwoSteps) {
  agent({{Paths::kLeds, kLedDir, "r"}});
  const std::string path = std::string(Paths::kLeds) + "/leds/Status";
  write({Change::put(Paths::kLeds, kLedDir, "", {}), Change::put(path, kLed, "theme", "a")});
  const auto log = watcher(at<LedSystemConfigDir>(Paths::kLeds));
  const auto before = at<LedConfig>(path);
  write({Change::del(path), Change::put(path, kLed, "", {}), Change::put(path, kLed, "theme", "b")});
  settle();
  EXPECT_EQ(lines, (Lines{"Status is gone", "Status is there"}));
  EXPECT_NE(at<LedConfig>(path), before);
  EXPECT_EQ(at<LedConfig>(path)->theme(), Zel::Name("b"));
}

TEST_F(Mounts, ADeleteAboveSeveralMountsReachesEach) {
  const std::string maps = "hardware/gpio/config/led", led = std::string(Paths::kLeds) + "/leds/A",
                    map = maps + "/gpioLeds/A";
  agent({{Paths::kLeds, kLedDir, "r"}, {maps, "Hardware::Gpio::GpioLedSystemConfigDir", "r"}});
  for (const char* theme : {"a", "b"}) {
    write({Change::del("hardware"), Change::put(Paths::kLeds, kLedDir, "", {}),
           Change::put(led, kLed, "theme", theme),
           Change::put(maps, "Hardware::Gpio::GpioLedSystemConfigDir", "", {}),
           Change::put(map, "Hardware::Gpio::GpioLedConfig", "ready", true)});
    settle();
    ASSERT_TRUE(at<LedConfig>(led) && at<Hardware::Gpio::GpioLedConfig>(map)) << theme;
    EXPECT_EQ(at<LedConfig>(led)->theme(), Zel::Name(theme));
    EXPECT_TRUE(at<Hardware::Gpio::GpioLedConfig>(map)->ready());
  }
}

TEST_F(Mounts, ADeletedMountedEntityStaysAndIsCleared) {
  agent({{Paths::kLeds, kLedDir, "r"}});
  write({Change::put(Paths::kLeds, kLedDir, "palette", "warm"),
         Change::put(std::string(Paths::kLeds) + "/leds/A", kLed, "", {})});
  const auto dir = at<LedSystemConfigDir>(Paths::kLeds);
  const auto log = watcher(dir);
  write({Change::del("hardware")});
  settle();
  EXPECT_EQ(at<LedSystemConfigDir>(Paths::kLeds), dir);
  EXPECT_TRUE(dir->leds().empty());
  EXPECT_TRUE(dir->palette().empty());
  EXPECT_EQ(lines, Lines{"A is gone"}) << "each by its key";
}

TEST_F(Mounts, ARowThatDoesNotFitIsRefusedAndTheOthersAreApplied) {
  agent({{Paths::kLeds, kLedDir, "r"}});
  const std::string path = std::string(Paths::kLeds) + "/leds/A";
  write({Change::put(Paths::kLeds, kLedDir, "", {}),
         Change::put(path, kLed, "lightSetting", Value::Fields{{"green", true}})});
  write({Change::put(path, kLed, "lightSetting", Value::Fields{{"flashInterval", -1}}),
         Change::put(path, kLed, "colour", "red"), Change::put(path, kLed, "theme", "t")});
  EXPECT_TRUE(at<LedConfig>(path)->lightSetting().green) << "the last good value stays";
  EXPECT_EQ(at<LedConfig>(path)->theme(), Zel::Name("t"));
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_NE(reports[0].find(path + " lightSetting: flashInterval: found a whole number (-1)"),
            std::string::npos)
      << reports[0];
  EXPECT_NE(reports[1].find(path + " colour: 'colour' is no attribute"), std::string::npos) << reports[1];
  EXPECT_EQ(manager->refusals(), 2U);
}

TEST_F(Mounts, WithdrawnValuesRevealTheStoredOnes) {
  agent({{Paths::kLeds, kLedDir, "r"}});
  const std::string path = std::string(Paths::kLeds) + "/leds/A";
  write({Change::put(Paths::kLeds, kLedDir, "", {}), Change::put(path, kLed, "theme", "stored")});
  const auto led = at<LedConfig>(path);
  const auto derive = [&](const Statedb::Changes& changes) {
    store.write(changes, Durability::volatile_);
    settle();
    return at<LedConfig>(path)->theme().stdString() + (led->lightSetting().green ? " green" : "");
  };
  const Statedb::Changes covers{Change::put(path, kLed, "theme", "over"),
                                Change::put(path, kLed, "lightSetting", Value::Fields{{"green", true}})};
  EXPECT_EQ(derive(covers), "over green");
  write({Change::put(path, kLed, "theme", "under")});
  EXPECT_EQ(derive({Change::unset(path, "lightSetting")}), "over");
  EXPECT_EQ(derive({Change::unset(path, "theme")}), "under");
  EXPECT_EQ(derive(covers), "over green");
  EXPECT_EQ(derive({Change::del(path)}), "under");
  EXPECT_EQ(at<LedConfig>(path), led) << "kept, not swapped";
}

// A store that refuses the value 13.
struct Picky : Statedb::MemoryStore {
  void write(const Statedb::Changes& changes, Durability durability, Statedb::Subscriber* origin) override {
    ++writes;
    if (std::ranges::any_of(changes, [](const Change& change) { return change.row.value == Value(13); }))
      throw Statedb::StoreError("13 is unlucky");
    MemoryStore::write(changes, durability, origin);
  }
  int writes = 0;
};

TEST_F(Mounts, ARefusedRowDoesNotHoldUpTheOthers) {
  Picky picky;
  manager->stop();
  manager = Zel::allocate<Statedb::EntityManager>(picky);
  manager->reportIs([this](const std::string& text) { reports.push_back(text); });
  agent({{"out", "Zel::Dir", "wi"}});
  const auto path = [](int i) { return "out/p" + std::to_string(i); };
  const auto value = [&](int i) {
    const auto records = picky.read(path(i));
    return records.empty() ? Value() : *records[0]->find("value");
  };
  for (int i = 0; i < 40; ++i) {
    at<Zel::Dir>("out")->entryIs("p" + std::to_string(i), kPin);
    at<CorvelPinConfig>(path(i))->valueIs(static_cast<std::uint32_t>(i));
  }
  settle();
  EXPECT_EQ(reports, Lines{"out/p13 value: could not be published: 13 is unlucky"});
  EXPECT_EQ(manager->published(), 39U);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(value(i), i == 13 ? Value() : Value(i));
  EXPECT_LT(picky.writes, 20);
  at<CorvelPinConfig>(path(13))->valueIs(12);
  settle();
  EXPECT_EQ(value(13), Value(12));
  EXPECT_EQ(reports.size(), 1U) << "reported once";
  manager->stop();
  manager = Zel::allocate<Statedb::EntityManager>(store);  // no manager outlives its store
}

TEST_F(Mounts, ADestroyedManagerCancelsItsTasks) {
  const auto count = [] { return Statedb::EntityManager::typeNode().allocations().objects(); };
  const auto before = count();
  auto other = Zel::allocate<Statedb::EntityManager>(store);
  const auto made = agentOf(other, {{Paths::kLeds, kLedDir, "r"}});
  EXPECT_EQ(count(), before + 1);
  other->stop();
  other = nullptr;
  made->entityManagerIs(nullptr);
  EXPECT_EQ(count(), before);
  settle();
  EXPECT_TRUE(made->statuses.empty());
}

// Each pass publishes the agent's writes as one batch, with the values at its end. The store's own changes
// are not published back.
TEST_F(Mounts, WritesArePublishedOnceAPass) {
  struct Batches : Statedb::Subscriber {
    void onSnapshot(const Statedb::Records&) override {}
    void onChanges(const Statedb::Changes& changes) override { batches.push_back(changes); }
    std::vector<Statedb::Changes> batches;
  } subscriber;
  const std::string out = "hardware/corvel/gpio/config";
  agent({{out, "Zel::Dir", "wi"}});
  store.subscribe(out, subscriber);
  const auto dir = at<Zel::Dir>(out);
  const auto pin = Zel::dynamicPtrCast<CorvelPinConfig>(dir->entryIs("p/1", kPin));
  pin->valueIs(1);
  dir->entryIs("p2", kPin);
  settle();
  ASSERT_EQ(subscriber.batches.size(), 1U);
  EXPECT_EQ(subscriber.batches[0],
            (Statedb::Changes{
                Change::put(out + "/p%2F1", kPin, "", {}), Change::put(out + "/p%2F1", kPin, "value", 1),
                Change::put(out + "/p2", kPin, "", {}), Change::put(out + "/p2", kPin, "value", 0)}));
  pin->valueIs(0);
  pin->valueIs(1);
  settle();
  EXPECT_EQ(subscriber.batches.size(), 1U) << "the old value again: nothing to publish";
  pin->valueIs(0);
  dir->entryDel("p2");
  settle();
  ASSERT_EQ(subscriber.batches.size(), 2U);
  EXPECT_EQ(subscriber.batches[1],
            (Statedb::Changes{Change::put(out + "/p%2F1", kPin, "value", 0), Change::del(out + "/p2")}));

  const auto published = manager->published();
  store.write({Change::put(out + "/p%2F1", kPin, "value", 1), Change::put(out + "/p3", kPin, "value", 1)},
              Durability::volatile_);
  settle();
  EXPECT_EQ(pin->value(), 1U);
  EXPECT_EQ(at<CorvelPinConfig>(out + "/p3")->value(), 1U);
  EXPECT_EQ(manager->published(), published);
  at<CorvelPinConfig>(out + "/p3")->valueIs(0);
  settle();
  EXPECT_EQ(subscriber.batches.back(), (Statedb::Changes{Change::put(out + "/p3", kPin, "value", 0)}));
}

TEST_F(Mounts, TheLastOfTwoChangesInAPassIsPublished) {
  agent({{"out", "Zel::Dir", "wi"}});
  const auto pin = Zel::dynamicPtrCast<CorvelPinConfig>(at<Zel::Dir>("out")->entryIs("p", kPin));
  settle();
  const auto undoer = Zel::allocate<Support::Watcher>(pin, [&](auto&, auto) { pin->valueIs(0); });
  pin->valueIs(1);
  settle();
  EXPECT_EQ(*store.read("out/p")[0]->find("value"), Value(0));
}

// A store that sends a new snapshot after a lost connection.
struct Reconnecting : Statedb::MemoryStore {
  void subscribe(Statedb::Path path, Statedb::Subscriber& subscriber) override {
    subscriber_ = &subscriber;
    path_ = path;
    subscriber.onSnapshot(read(path));
  }
  void unsubscribe(Statedb::Subscriber&) override {}
  void reconnect() { subscriber_->onSnapshot(read(path_)); }
  Statedb::Subscriber* subscriber_ = nullptr;
  Statedb::Path path_;
};

TEST_F(Mounts, AfterALostConnectionOnlyDifferencesAreApplied) {
  Reconnecting remote;
  const auto other = Zel::allocate<Statedb::EntityManager>(remote);
  const auto write = [&](std::map<std::string, const char*> themes) {
    Statedb::Changes changes{Change::del(Paths::kLeds), Change::put(Paths::kLeds, kLedDir, "", {})};
    for (const auto& [name, theme] : themes) {
      const std::string led = std::string(Paths::kLeds) + "/leds/" + name;
      changes.push_back(Change::put(led, kLed, "", {}));
      if (*theme) changes.push_back(Change::put(led, kLed, "theme", theme));
    }
    remote.write(changes, Durability::stored);
    remote.reconnect();
    settle();
  };
  const auto made = agentOf(other, {{Paths::kLeds, kLedDir, "r"}});
  settle();
  const auto dir = Zel::dynamicPtrCast<LedSystemConfigDir>(other->getEntity(Paths::kLeds));
  write({{"changed", "a"}, {"cleared", "a"}, {"gone", "a"}, {"kept", "a"}, {"set", ""}});
  std::map<std::string, Ptr<LedConfig>> before;
  for (const auto& led : dir->leds()) before[led->name().stdString()] = led;
  EXPECT_EQ(before.size(), 5U);
  const auto log = watcher(dir);
  const std::map<std::string, const char*> after{
      {"changed", "b"}, {"cleared", ""}, {"kept", "a"}, {"new", "n"}, {"set", "b"}};
  write(after);
  EXPECT_EQ(lines, (Lines{"gone is gone", "new is there"}));
  EXPECT_EQ(dir->leds().size(), after.size());
  for (const auto& [name, theme] : after) {
    EXPECT_EQ(dir->leds(name)->theme(), Zel::Name(theme)) << name;
    EXPECT_TRUE(name == "new" || dir->leds(name) == before[name]) << name << " is kept, not swapped";
  }
  other->stop();
}

}  // namespace
