// The state database of another host: a real one on the same loop.
#include "host/store/unixstore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "folder.h"
#include "host/control/control.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/notify/activity.h"
#include "tests/platform/storemodel.h"

namespace {

using Statedb::Change;
using Statedb::Durability;
using StoreModel::Rows;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* kPin = "Hardware::Gpio::CorvelPinConfig";

class UnixStoreTest : public ::testing::Test {
 protected:
  UnixStoreTest() {
    loop.turnIs([this] {
      remote.flush();
      control.commit();
      control.send();
      return Zel::Clock::kNever;
    });
  }
  template <class Condition>
  void runUntil(Condition condition) {
    const auto latest =
        std::chrono::steady_clock::now() + std::chrono::seconds(20);  // retries take their time
    while (!condition() && std::chrono::steady_clock::now() < latest) loop.runOnce();
    EXPECT_TRUE(condition());
  }
  Zel::Value at(const std::string& path) {
    const auto records = keeper.read(path);
    const Zel::Value* value = records.empty() ? nullptr : records[0]->find("value");
    return value ? *value : Zel::Value();
  }

  const Folder folder;
  Host::Loop loop;
  Zel::ActivityManager activity;
  StoreModel::Failing<Statedb::MemoryStore> keeper;
  Zel::Ptr<Statedb::EntityManager> manager = Zel::allocate<Statedb::EntityManager>(keeper);
  Host::Served served{.store = keeper, .manager = *manager};
  Host::Listener listener{loop, folder.at("socket")};
  Host::Control control{loop, listener, served};
  std::vector<std::string> reports;
  Host::UnixStore remote{loop, listener.path(), [this](const std::string& text) { reports.push_back(text); }};
};

TEST_F(UnixStoreTest, WhatTheOtherSideRefusesIsNamedAndTheRestArrives) {
  Statedb::Changes changes;
  for (int i = 0; i < 3000; ++i)
    changes.push_back(Change::put("out/p" + std::to_string(i), kPin, "value", i));
  changes.push_back(Change::put("out/p7", kPin, "colour", "red"));
  changes.push_back(Change::put("out/p9", kPin, "value", std::string(2'000'000, 'x')));
  remote.write(changes, Durability::volatile_, nullptr);
  runUntil([&] { return at("out/p2999") == Zel::Value(2999); });
  EXPECT_EQ(keeper.entities(), 3000U);
  EXPECT_THAT(reports,
              ElementsAre(HasSubstr("refused what was published: out/p7 colour: 'colour' is no attribute"),
                          HasSubstr("refused what was published: out/p9 value: is longer than")));
}

TEST_F(UnixStoreTest, WhatTheOtherSideCantStoreNowIsSentAgain) {
  keeper.failsToCommit = true;
  remote.write({Change::put("out/p", kPin, "value", 1)}, Durability::volatile_, nullptr);
  runUntil([&] { return !reports.empty(); });
  keeper.failsToCommit = false;
  runUntil([&] { return at("out/p") == Zel::Value(1); });
  EXPECT_THAT(reports, ElementsAre(HasSubstr("can't store what was published: can't commit; trying")));
}

TEST_F(UnixStoreTest, FeedsSeeTheirPartOfADeleteAndWhatIsStoredUnderAWithdrawnValue) {
  StoreModel::Mirror part("out/p"), writer("out");
  keeper.write({Change::put("out", "Zel::Dir", {}, {}), Change::put("out/p", kPin, "value", 5)},
               Durability::stored);
  remote.subscribe("out/p", part);
  remote.subscribe("out", writer);
  const Rows stored{{{"out/p", ""}, kPin}, {{"out/p", "value"}, 5}};
  Rows all = stored;
  all[{"out", ""}] = "Zel::Dir";
  runUntil([&] { return writer.rows == all; });
  remote.write({Change::put("out/p", kPin, "value", 6)}, Durability::volatile_, &writer);
  runUntil([&] { return at("out/p") == Zel::Value(6) && part.rows.at({"out/p", "value"}) == Zel::Value(6); });
  writer.rows.clear();
  remote.write({Change::del("out")}, Durability::volatile_, &writer);
  runUntil([&] { return writer.rows == all && part.rows == stored; });
  EXPECT_EQ(part.batches, 3);
}

}  // namespace
