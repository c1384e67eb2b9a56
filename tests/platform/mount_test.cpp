// Mounts: rows become entities, and entities rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "platform/model/corvelpinconfig.h"
#include "platform/model/gpioledconfig.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/model/paths.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"
#include "tests/platform/storemodel.h"
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
constexpr const char* kMapDir = "Hardware::Gpio::GpioLedSystemConfigDir";
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

// A store whose connection is lost and returns with a snapshot.
struct Lossy : Statedb::MemoryStore {
  void subscribe(Statedb::Path path, Statedb::Subscriber& subscriber) override {
    subscribers_.emplace_back(path, &subscriber);
    MemoryStore::subscribe(path, subscriber);
  }
  void lose() {
    for (const auto& [path, subscriber] : subscribers_) unsubscribe(*subscriber);
  }
  void reconnect() {
    for (const auto& [path, subscriber] : subscribers_) MemoryStore::subscribe(path, *subscriber);
  }
  std::vector<std::pair<Statedb::Path, Statedb::Subscriber*>> subscribers_;
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
  Lossy store;
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

// Memory of a refused entity ends with it, also where it goes while the connection is lost.
TEST_F(Mounts, ARefusedEntityThatGoesIsForgotten) {
  agent({{Paths::kLeds, kLedDir, "r"}});
  const std::string path = std::string(Paths::kLeds) + "/leds/refused";
  for (const bool isLost : {false, true}) {
    write({Change::put(path, kPin, "", {}), Change::put(path, kPin, "value", 1)});
    EXPECT_FALSE(std::exchange(reports, {}).empty());
    if (isLost) store.lose();
    write({Change::del(path)});
    if (isLost) store.reconnect();
    settle();
    EXPECT_FALSE(Statedb::Path::existing(path));
  }
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

TEST_F(Mounts, AnAgentCoversWhatOthersWrite) {
  const std::string a = std::string(Paths::kLeds) + "/leds/A", b = std::string(Paths::kLeds) + "/leds/B";
  write({Change::put(Paths::kLeds, kLedDir, "", {}), Change::put(a, kLed, "theme", "day")});
  EXPECT_EQ(agent({{Paths::kLeds, kLedDir, "c"}})->statuses, std::vector{Statedb::mountSuccess_});
  Statedb::Covers& covers = manager->covers();
  EXPECT_EQ(*covers.base(a, "theme"), Value("day")) << "known when the mount is complete";
  const auto entity = at<LedConfig>(a);
  const auto expect = [&](const char* shown, const char* base) {
    settle();
    EXPECT_EQ(entity->theme(), Zel::Name(shown));
    EXPECT_EQ(*store.read(a).at(0)->find("theme"), Value(shown));
    EXPECT_EQ(*store.readBase(a).at(0)->find("theme"), Value(base));
    EXPECT_EQ(*covers.base(a, "theme"), Value(base));
  };
  covers.put(a, kLed, "theme", "day");
  expect("day", "day");
  write({Change::put(a, kLed, "theme", "dusk")});
  expect("day", "dusk");
  covers.put(a, kLed, "theme", "night");
  expect("night", "dusk");
  entity->themeIs("own");
  settle();
  EXPECT_EQ(*store.readBase(a)[0]->find("theme"), Value("dusk")) << "setting an entity writes nothing";
  covers.remove(a, "theme");
  expect("dusk", "dusk");
  EXPECT_FALSE(covers.find(a, "theme"));

  covers.put(b, kLed, "theme", "night");
  settle();
  EXPECT_FALSE(at<LedConfig>(b));
  write({Change::put(b, kLed, "currentMode", "m")});
  settle();
  EXPECT_EQ(at<LedConfig>(b)->theme(), Zel::Name("night"));
  EXPECT_FALSE(covers.base(b, "theme"));
  covers.removeUnder(Paths::kLeds);
  settle();
  EXPECT_EQ(at<LedConfig>(b)->theme(), Zel::Name());

  EXPECT_THROW(covers.put("elsewhere", kLed, "theme", "x"), Zel::RangeException);
  EXPECT_THROW(covers.put(a, kLed, "colour", "x"), Zel::ValueError);
  EXPECT_THROW(covers.put(a, kLed, "", {}), Zel::ValueError);
  EXPECT_TRUE(reports.empty());
}

TEST_F(Mounts, NothingIsCoveredWhereAnAgentPublishesOrInAStoreWithoutCovers) {
  agent({{"out", "Zel::Dir", "wi"}});
  EXPECT_EQ(agent({{"out/a", "Zel::Dir", "c"}})->mountGroup->failures(),
            (Lines{"mount of 'out/a': mode \"c\", but 'out' is mounted with \"wi\" in this process, and only "
                   "its agent writes under a \"wi\" mount"}));
  const auto wrong = Zel::allocate<TestAgent>("agent", std::vector<Statedb::Mount>{{"b", "Zel::Dir", "w"}});
  wrong->entityManagerIs(manager);
  EXPECT_THROW(wrong->doInit(), Zel::RangeException);
  wrong->mountGroup = nullptr;  // until it is closed it and its agent hold each other

  struct Coverless : Statedb::MemoryStore {
    bool takesCovers() const override { return false; }
  } coverless;
  const auto its = Zel::allocate<Statedb::EntityManager>(coverless);
  const auto made = agentOf(its, {{"b", "Zel::Dir", "c"}});
  settle();
  EXPECT_EQ(
      made->mountGroup->failures(),
      (Lines{"mount of 'b': this store has no covers: memory:; keep the state in memory: or sqlite:, or "
             "reach such a host through unix:"}));
  its->stop();
}

// Entities against the rows of a model, under random writes of either durability: batches that delete and
// make again, above the mounts, too, and connections that are lost and return with a snapshot.
class RandomRows : public Mounts {
 protected:
  struct Place {
    std::string path, type, attribute;
    Value value(unsigned number) const {
      return attribute == "ready" ? Value(number == 1) : Value(number == 0 ? "" : std::to_string(number));
    }
  };
  static std::string led(const std::string& name) { return std::string(Paths::kLeds) + "/leds/" + name; }

  RandomRows() {
    for (const std::string name : {"A", "B", "C"}) {
      for (const char* attribute : {"theme", "currentMode"}) places.push_back({led(name), kLed, attribute});
      places.push_back({kMaps + ("/gpioLeds/" + name), "Hardware::Gpio::GpioLedConfig", "ready"});
    }
  }
  unsigned below(std::size_t n) { return static_cast<unsigned>(random() % n); }
  const Place& place() { return places[below(places.size())]; }
  void add(const Change& change) {
    changes.push_back(change);
    EXPECT_TRUE(model.apply(change, durability));
  }
  void addDel() { add(Change::del(below(3) != 0 ? place().path : below(2) == 0 ? "hardware" : kMaps)); }
  void addOther() {
    const auto& [path, type, attribute] = place();
    const unsigned kind = below(4);
    add(kind == 0   ? Change::unset(path, attribute)
        : kind == 1 ? Change::put(path, type, "", {})
                    : Change::put(path, type, attribute, Place{path, type, attribute}.value(below(3))));
  }
  // Compares the entities, and returns the LEDs.
  std::map<std::string, Ptr<LedConfig>> leds() {
    const auto rows = model.rows();
    std::map<std::string, Ptr<LedConfig>> there;
    for (const Place& each : places) {
      const auto entity = at<Zel::Entity>(each.path);
      EXPECT_EQ(entity != nullptr, each.path == Paths::kLeds || model.entities.contains(each.path));
      if (!entity) continue;
      const auto row = rows.find({each.path, each.attribute});
      EXPECT_EQ(Zel::GenericIf::perform(*entity, Zel::Operation::get, each.attribute, {}),
                row == rows.end() ? each.value(0) : row->second);
      if (each.type == kLed) there[each.path] = at<LedConfig>(each.path);
    }
    return there;
  }

  static constexpr const char* kMaps = "hardware/gpio/config/led";
  std::vector<Place> places{{Paths::kLeds, kLedDir, "palette"}};
  std::mt19937 random{3};
  Durability durability = Durability::stored;
  StoreModel::Model model;
  Statedb::Changes changes;
};

TEST_F(RandomRows, AreFollowedWithNoMoreThanTheDifferences) {
  const auto mounted = agent({{Paths::kLeds, kLedDir, "r"}, {kMaps, kMapDir, "r"}});
  const auto dir = at<LedSystemConfigDir>(Paths::kLeds);
  const auto log = watcher(dir);
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    const bool isLost = below(6) == 0;
    if (isLost) store.lose();
    durability = below(3) == 0 ? Durability::volatile_ : Durability::stored;
    const auto before = leds();
    const auto all = model.entities;
    changes.clear();
    for (unsigned i = below(3); i > 0; --i) addDel();
    // A volatile row that goes is delivered as a delete, and what is stored under it as made again.
    const bool isDirGone = all.contains(Paths::kLeds) && !model.entities.contains(Paths::kLeds);
    const auto kept = isDirGone ? decltype(all)() : model.entities;
    for (unsigned i = below(4); i > 0; --i) addOther();
    store.write(changes, durability);
    if (isLost) store.reconnect();
    settle();
    const auto after = leds();
    Lines expected;
    for (const std::string name : {"A", "B", "C"}) {
      const auto was = before.find(led(name)), is = after.find(led(name));
      const bool stays = was != before.end() && (isLost ? model.entities : kept).contains(led(name));
      if (was != before.end() && !stays) expected.push_back(name + " is gone");
      if (is != after.end() && !stays) expected.push_back(name + " is there");
      EXPECT_TRUE(!stays || (is != after.end() && *was == *is)) << name << " is kept, not swapped";
    }
    std::ranges::stable_sort(lines, {}, [](const std::string& line) { return line[0]; });
    EXPECT_EQ(std::exchange(lines, {}), expected);
    EXPECT_EQ(at<LedSystemConfigDir>(Paths::kLeds), dir) << "a mounted entity stays and is cleared";
  }
}

}  // namespace
