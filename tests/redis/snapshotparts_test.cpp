// Snapshots in parts, from the mirror of a server's rows to the entities of agents: random changes, reads and
// losses while they are under way, against the rows themselves.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "host/store/redis/subscribers.h"
#include "platform/model/corvelpinconfig.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"
#include "tests/platform/storemodel.h"
#include "tests/support.h"

namespace {

using namespace StoreModel;
using Hardware::Gpio::CorvelPinConfig;
using Host::Redis::Subscribers;
using Statedb::Path;
using Statedb::Subscriber;

constexpr const char* kDir = "Zel::Dir";
constexpr const char* kPin = "Hardware::Gpio::CorvelPinConfig";
constexpr const char* kMount = "hw";     // all that others write
constexpr const char* kOwn = "hw/out";   // what the agent publishes
constexpr const char* kCovered = "cov";  // of which the agent reads the base

// A store as the shared one, without its server.
struct PartsStore : Statedb::Store {
  std::string url() const override { return "test:"; }
  const Statedb::Table* table() const override { return &mirror; }
  bool takesCovers() const override { return true; }
  void subscribe(Path path, Subscriber& subscriber) override {
    all[&subscriber] = path;
    subscribers.deliver();
    subscribers.add(path, subscriber);
    proceed();
  }
  void unsubscribe(Subscriber& subscriber) override {
    all.erase(&subscriber);
    subscribers.remove(subscriber);
  }
  void write(const Changes& changes, Durability durability, Subscriber* origin) override {
    Subscribers::Notice notice{.origin = origin};
    mirror.carry(durability, changes, notice.changes);
    if (origin) notice.revealed = mirror.revealedBy(changes);
    subscribers.notify(std::move(notice));
  }
  Statedb::Ticket flush() override {
    subscribers.deliver();
    return {};
  }
  bool proceed() {
    return subscribers.deliverSnapshots([](auto&&...) { return true; }, [this](auto&&...) { ++snapshots; });
  }
  // Subscribers miss what is written until they subscribe again.
  void lose() {
    for (const auto& [subscriber, path] : all) subscribers.remove(*subscriber);
  }
  void reconnect() {
    subscribers.deliver();
    for (const auto& [subscriber, path] : all) subscribers.add(path, *subscriber);
  }

  Host::Redis::Mirror mirror;
  Subscribers subscribers{mirror, {.paths = 3, .nanoseconds = 0}};
  std::map<Subscriber*, Path> all;
  int snapshots = 0;
};

struct PartsAgent : Support::Plain<PartsAgent, Warden::CAgent> {
  static constexpr const char* kName = "Test::PartsAgent";
  explicit PartsAgent(Zel::Name name) : Plain(name) {}
  void doInit() override {
    const auto group = entityManager()->getMountGroup(Zel::Ptr<Statedb::Mounter>(this));
    for (const auto& [path, mode] : {std::pair(kMount, "r"), {kOwn, "wi"}, {kCovered, "c"}})
      group->doMount({path, kDir, mode});
    group->doClose(false, "", 0.0);
  }
  void handleMountStatus(Statedb::MountStatus) override { isComplete = true; }
  bool isComplete = false;
};

class SnapshotInParts : public testing::TestWithParam<unsigned> {
 protected:
  SnapshotInParts() {
    manager->reportIs([](const std::string& text) { ADD_FAILURE() << text; });
    agent->entityManagerIs(manager);
  }
  ~SnapshotInParts() override { manager->stop(); }

  bool oneIn(unsigned count) { return random() % count == 0; }
  std::string directory() {
    std::string path = oneIn(4) ? kCovered : kMount;
    for (int depth = 0; depth < 2 && !oneIn(3); ++depth) path += "/d" + std::to_string(random() % 3);
    return path;
  }

  // A batch of others, in which every entity has one above it.
  void write() {
    Changes changes;
    for (auto left = 1 + random() % 4; left > 0; --left) {
      const Path above(directory()), pin = above.child("p" + std::to_string(random() % 5));
      if (oneIn(4)) {
        const Path gone = oneIn(3) && above.depth() > 1 ? above : pin;
        changes.push_back(Change::del(gone));
        forget(gone);
        if (oneIn(2)) continue;
      }
      std::vector<Path> paths{above};
      while (paths.back().depth() > 1) paths.push_back(paths.back().parent());
      for (auto each = paths.rbegin(); each != paths.rend(); ++each)
        changes.push_back(Change::put(*each, kDir, "", {}));
      changes.push_back(Change::put(pin, kPin, "value", ++lastValue));
    }
    store.write(changes, Durability::stored, nullptr);
  }
  // Of the agent, in the entities themselves.
  void publish() {
    if (!agent->isComplete) return;
    const auto out = Zel::dynamicPtrCast<Zel::Dir>(manager->entityAt(kOwn));
    const Zel::Name name("o" + std::to_string(random() % 12));
    if (oneIn(4)) {
      out->entryDel(name);
      forget(Path(kOwn).child(name));
    } else {
      const auto pin = Zel::dynamicPtrCast<CorvelPinConfig>(out->entryIs(name, kPin));
      pin->valueIs(static_cast<std::uint32_t>(++lastValue));
    }
    activity.step();  // publishes it
  }
  void settle() {
    for (int i = 0; i < 3; ++i) {
      store.flush();
      activity.step();
    }
  }

  // An entity that is there stays the same one, and its value never goes back, until somebody removes it.
  struct Known {
    Zel::Ptr<Zel::Entity> entity;
    std::uint32_t value = 0;
  };
  void forget(Path path) {
    std::erase_if(known, [&](const auto& each) { return Path(each.first).isUnder(path); });
  }
  void check() {
    for (auto& [path, each] : known) {
      ASSERT_EQ(manager->entityAt(path), each.entity) << path;
      const auto pin = Zel::dynamicPtrCast<CorvelPinConfig>(each.entity);
      const std::uint32_t value = pin ? pin->value() : 0;
      ASSERT_GE(value, std::exchange(each.value, value)) << path;
    }
  }
  void know() {
    settle();
    for (const Record* record : store.mirror.read(kMount))
      if (const auto entity = manager->entityAt(record->path))
        known.try_emplace(record->path.text(), Known{entity});
  }

  Rows shown(Path path) const {
    Rows rows{{{path.text(), ""}, manager->entityAt(path)->fwkType().name().view()}};
    if (const auto pin = Zel::dynamicPtrCast<CorvelPinConfig>(manager->entityAt(path)))
      rows[{path.text(), "value"}] = pin->value();
    for (const Path& member : manager->membersOf(path)) rows.merge(shown(member));
    return rows;
  }
  void compare() {
    settle();
    Rows expected = rowsOf(store.mirror.read(kMount));
    for (const char* mounted : {kMount, kOwn}) expected[{mounted, ""}] = kDir;
    const Rows found = shown(kMount);
    for (const auto& [place, value] : expected)
      ASSERT_TRUE(found.contains(place) && found.at(place) == value) << place.first << ' ' << place.second;
    for (const auto& [place, value] : found) ASSERT_TRUE(expected.contains(place)) << place.first;
    for (const Path& each : everyPin()) {
      const auto records = store.mirror.readBase(each);
      const Value* base = records.empty() ? nullptr : records[0]->find("value");
      const Value* shownBase = manager->covers().base(each, "value");
      ASSERT_EQ(shownBase ? *shownBase : Value(), base ? *base : Value()) << each;
    }
  }
  static std::vector<Path> everyPin() {
    std::vector<Path> pins;
    for (const char* above : {"", "/d0", "/d1", "/d0/d1", "/d2/d0"})
      for (int pin = 0; pin < 5; ++pin) pins.emplace_back(kCovered + (above + ("/p" + std::to_string(pin))));
    return pins;
  }

  std::mt19937 random{GetParam()};
  Zel::System::ManualTime time;
  Zel::ActivityManager activity;
  PartsStore store;
  Zel::Ptr<Statedb::EntityManager> manager = Zel::allocate<Statedb::EntityManager>(store);
  Zel::Ptr<PartsAgent> agent = Zel::allocate<PartsAgent>("agent");
  std::map<std::string, Known> known;
  int lastValue = 0;
};

TEST_P(SnapshotInParts, EndsWithTheRowsAsTheyAreWhateverHappensMeanwhile) {
  for (int i = 0; i < 30; ++i) write();
  agent->doInit();
  settle();
  ASSERT_FALSE(agent->isComplete) << "with the first part";
  for (int round = 0; round < 40; ++round) {
    bool isLost = false;
    for (auto steps = random() % 40; steps > 0; --steps) {
      if (oneIn(2)) write();
      if (oneIn(3)) publish();
      if (oneIn(2)) store.flush();
      if (!isLost) store.proceed();
      if (oneIn(2)) activity.step();
      if (oneIn(12)) manager->readAgain(kMount);
      if (oneIn(20)) {
        isLost ? store.reconnect() : store.lose();
        isLost = !isLost;
      }
      ASSERT_NO_FATAL_FAILURE(check());
      if (!isLost && oneIn(4)) know();
    }
    if (isLost) store.reconnect();
    while (store.proceed()) activity.step();
    ASSERT_NO_FATAL_FAILURE(compare()) << "round " << round;
    know();
  }
  EXPECT_GT(store.snapshots, 40);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SnapshotInParts, testing::Range(1U, 21U));

}  // namespace
