// What a process publishes into a state database elsewhere, under random writes, delays, losses and restarts.
#include "host/store/ownrows.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

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
struct Line : Statedb::Feed {
  Line() { connect(); }

  void onSnapshot(const Records& records) override {
    toClient.push_back({Message::Kind::snapshot, {}, {}});
    for (const Record* record : records) toClient.back().records.push_back(*record);
  }
  void onChanges(const Changes& changes) override {
    toClient.push_back({Message::Kind::changes, {}, changes});
  }
  void onRevealed(const Changes& changes) override {
    toClient.push_back({Message::Kind::revealed, {}, changes});
  }

  void connect() { server->subscribe({}, *this); }
  void lose() {
    server->unsubscribe(*this);
    toClient.clear();
    toServer.clear();
    own.lost();
    connect();
  }
  // The keeper is started again: what was derived is gone.
  void restartServer() {
    server = std::make_unique<Statedb::MemoryStore>();
    toClient.clear();
    toServer.clear();
    own.lost();
    connect();
  }
  void publish(const Changes& changes) {
    own.write(changes);
    carryInto(client, changes);
  }
  void moveToServer() {
    if (own.canSend()) toServer.push_back(own.send());
    if (toServer.empty()) return;
    server->write(toServer.front(), Durability::derived, this);
    server->flush();
    toServer.pop_front();
    toClient.push_back({Message::Kind::acknowledgement, {}, {}});
  }
  void moveToClient() {
    if (toClient.empty()) return;
    const Message message = toClient.front();
    toClient.pop_front();
    Records theirs;
    for (const Record& record : message.records) theirs.push_back(&record);
    switch (message.kind) {
      case Message::Kind::snapshot:
        client = rowsOf(own.over(theirs, {}));
        break;
      case Message::Kind::acknowledgement:
        own.acknowledged();
        break;
      case Message::Kind::changes:
        carryInto(client, own.told(message.changes));
        break;
      case Message::Kind::revealed:
        carryInto(client, own.revealed(message.changes));
    }
  }

  struct Message {
    enum class Kind { snapshot, acknowledgement, changes, revealed };
    Kind kind;
    std::vector<Record> records;
    Changes changes;
  };
  std::unique_ptr<Statedb::MemoryStore> server = std::make_unique<Statedb::MemoryStore>();
  Host::OwnRows own;
  Rows client;
  std::deque<Changes> toServer;
  std::deque<Message> toClient;
};

TEST(OwnRows, BothSidesComeToTheSameRowsAndNothingPublishedIsLost) {
  std::mt19937 random(17);
  const auto pin = [&] { return "out/p" + std::to_string(random() % 6); };
  for (int round = 0; round < 200; ++round) {
    Line line;
    for (int step = 0; step < 60; ++step) {
      const std::string path = pin();
      const int value = static_cast<int>(random() % 2);
      switch (random() % 12) {
        case 0:
          line.publish({Change::del(path)});
          break;
        case 1:
        case 2:
          line.publish({Change::put(path, "Pin", "", {}), Change::put(path, "Pin", "value", value)});
          break;
        case 3:
          line.server->write({Change::put(path, "Pin", "value", value)}, Durability::derived);
          break;
        case 4:
          line.server->write({Change::put("out/x", "Pin", "value", value)}, Durability::stored);
          break;
        case 5:
          line.moveToServer();
          break;
        case 6:
          line.moveToClient();
          break;
        case 7:
          if (random() % 5 == 0) line.lose();
          break;
        case 8:
          line.publish({Change::unset(path, "value")});
          break;
        case 9:
          line.server->write({Change::put(path, "Pin", "value", 3 + value)}, Durability::stored);
          break;
        case 10:
          if (random() % 3 == 0) line.server->write({Change::del(path)}, Durability::stored);
          break;
        default:
          if (random() % 12 == 0) line.restartServer();
      }
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

TEST(OwnRows, WhatAPredecessorPublishedIsSentAgainAsItStandsHere) {
  Host::OwnRows own;
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
}

}  // namespace
