// Rows that a process publishes into a state database elsewhere, under random writes, delays, losses and
// restarts.
#include "host/store/publishedrows.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <random>

#include "platform/statedb/store/memorystore.h"
#include "tests/platform/storemodel.h"

namespace {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Record;
using Statedb::Records;
using StoreModel::carryInto;
using StoreModel::Rows;
using StoreModel::rowsOf;

// Two processes and the line between them, on which everything takes its time.
struct Line : Statedb::Subscriber {
  Line() { server->subscribe({}, *this); }

  void onSnapshot(const Records& records) override {
    std::vector<Record> copies;
    for (const Record* record : records) copies.push_back(*record);
    toClient.push_back([this, copies] {
      Records theirs;
      for (const Record& record : copies) theirs.push_back(&record);
      client = rowsOf(own.over(theirs, {}));
    });
  }
  void onChanges(const Changes& changes) override {
    toClient.push_back([this, changes] { carryInto(client, own.received(changes)); });
  }
  void onRevealed(const Changes& changes) override {
    toClient.push_back([this, changes] { carryInto(client, own.revealed(changes)); });
  }

  // A restarted keeper has lost the volatile rows. Another one kept them, and they may be compared.
  void lose(bool restarts, bool compares) {
    server->unsubscribe(*this);
    if (restarts) server = std::make_unique<Statedb::MemoryStore>();
    toClient.clear();
    toServer.clear();
    own.lost();
    if (compares) compare();
    server->subscribe({}, *this);
  }
  void compare() {
    std::vector<Record> copies;
    for (const Record* record : server->read({})) {
      copies.push_back(*record);
      std::erase_if(copies.back().attributes,
                    [](auto& each) { return each.durability == Durability::stored; });
    }
    Records theirs;
    for (const Record& record : copies)
      if (!record.attributes.empty()) theirs.push_back(&record);
    own.compare(theirs, false);
  }
  void publish(const Changes& changes) {
    own.write(changes);
    carryInto(client, changes);
  }
  void moveToServer() {
    if (own.canSend()) toServer.push_back(own.send());
    if (toServer.empty()) return;
    server->write(toServer.front(), Durability::volatile_, this);
    server->flush();
    toServer.pop_front();
    toClient.push_back([this] { own.acknowledged(); });
  }
  void moveToClient() {
    if (toClient.empty()) return;
    toClient.front()();
    toClient.pop_front();
  }

  std::unique_ptr<Statedb::MemoryStore> server = std::make_unique<Statedb::MemoryStore>();
  Host::PublishedRows own;
  Rows client;
  std::deque<Changes> toServer;
  std::deque<std::function<void()>> toClient;
};

TEST(PublishedRows, BothSidesComeToTheSameRowsAndNothingPublishedIsLost) {
  std::mt19937 random(17);
  const auto pin = [&] { return "out/p" + std::to_string(random() % 6); };
  for (int round = 0; round < 200; ++round) {
    Line line;
    for (int step = 0; step < 60; ++step) {
      const std::string path = pin();
      const int value = static_cast<int>(random() % 2);
      const auto put = [&](int held) { return Change::put(path, "Pin", "value", held); };
      const auto write = [&](const Change& change, Durability durability) {
        line.server->write({change}, durability);
      };
      const std::function<void()> operations[] = {
          [&] { line.publish({Change::del(path)}); },
          [&] {
            line.publish({Change::put(path, "Pin", "", {}), put(value)});
          },
          [&] {
            line.publish({Change::put(path, "Pin", "", {}), put(value)});
          },
          [&] { line.publish({Change::put(path, "Pin", "", {})}); },
          [&] { line.publish({Change::unset(path, "value")}); },
          [&] { write(put(value), Durability::volatile_); },
          [&] { write(put(3 + value), Durability::stored); },
          [&] { write(Change::put("out/x", "Pin", "value", value), Durability::stored); },
          [&] { random() % 3 == 0 ? write(Change::del(path), Durability::stored) : void(); },
          [&] { line.moveToServer(); },
          [&] { line.moveToClient(); },
          [&] { random() % 5 == 0 ? line.lose(false, random() % 2 == 0) : void(); },
          [&] { random() % 12 == 0 ? line.lose(true, false) : void(); },
      };
      operations[random() % std::size(operations)]();
      line.server->flush();
    }
    const std::string last = pin();
    line.publish({Change::del(last), Change::put(last, "Pin", "", {}), Change::put(last, "Pin", "value", 7)});
    for (int i = 0; i < 500; ++i) {
      line.moveToServer();
      line.moveToClient();
    }
    ASSERT_EQ(line.client, rowsOf(line.server->read(""))) << "round " << round;
    ASSERT_EQ((line.client[{last, "value"}]), Zel::Value(7)) << "round " << round;
    ASSERT_FALSE(line.own.canSend());
  }
}

TEST(PublishedRows, WhatAPredecessorPublishedIsSentAgainAsItStandsHere) {
  Host::PublishedRows own;
  own.write({Change::put("out/a", "Pin", "value", 1), Change::del("out/gone")});
  for (const char* path : {"out/a", "out/b", "out/gone"}) own.adopt({path, "Pin", {{"value", 5}}});
  own.send();
  own.acknowledged();
  own.lost();
  Rows rows;
  carryInto(rows, own.send());
  EXPECT_EQ(
      rows,
      (Rows{
          {{"out/a", ""}, "Pin"}, {{"out/a", "value"}, 1}, {{"out/b", ""}, "Pin"}, {{"out/b", "value"}, 5}}));

  own.acknowledged();
  const Changes late{Change::put("out/a", "Pin", "value", 8), Change::put("out/b", "Pin", "value", 6)};
  EXPECT_EQ(own.receivedFromAnother(late), late);
  own.lost();
  carryInto(rows, own.send());
  EXPECT_EQ((rows[{"out/a", "value"}]), Zel::Value(1)) << "was written here";
  EXPECT_EQ((rows[{"out/b", "value"}]), Zel::Value(6));
  own.acknowledged();
  own.receivedFromAnother({Change::del("out")});
  Rows left;
  carryInto(left, own.send());
  EXPECT_EQ(left, (Rows{{{"out/a", ""}, "Pin"}, {{"out/a", "value"}, 1}}));
}

TEST(PublishedRows, AnEntityThatIsPutOnceMoreOutlivesARemovalThatCrosses) {
  Host::PublishedRows own;
  own.write({Change::put("out/a", "Pin", "", {}), Change::put("out/a", "Pin", "value", 1)});
  own.send();
  own.acknowledged();
  own.write({Change::put("out/a", "Pin", "", {})});
  Rows here{{{"out/a", ""}, "Pin"}, {{"out/a", "value"}, 1}, {{"out/a", "theirs"}, 2}}, there;
  carryInto(here, own.received({Change::del("out")}));
  carryInto(there, own.send());
  EXPECT_EQ(here, (Rows{{{"out/a", ""}, "Pin"}, {{"out/a", "value"}, 1}}));
  EXPECT_EQ(there, here);
}

}  // namespace
