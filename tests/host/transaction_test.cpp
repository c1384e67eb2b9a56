// Changes in several messages, and requests in one.
#include "host/control/transaction.h"

#include <gmock/gmock.h>

#include <limits>

#include "controlfixture.h"
#include "host/rpc/rpc.h"

namespace Host {
namespace {

using Statedb::Durability;
using ::testing::HasSubstr;

class TransactionTest : public ControlTest {
 protected:
  std::string errorOf(Client& client, const char* method, const Json& parameters = Json::object()) {
    return call(client, method, parameters)["error"].value("message", "no error");
  }
  std::size_t leds(Client& client) { return call(client, "read")["result"]["entities"].size(); }
};

TEST_F(TransactionTest, IsOneBatchThatNobodySeesBefore) {
  Client writer(socket), other(socket), gone(socket);
  call(writer, "begin");
  EXPECT_EQ(write(writer, {putDir(), putLed("A", kRed)})["result"], Json({{"gathered", 2}}));
  EXPECT_EQ(write(writer, {putLed("B", kRed)})["result"], Json({{"gathered", 3}}));
  EXPECT_EQ(leds(writer), 0U);
  EXPECT_EQ(errorOf(other, "commit"), "commit: this connection has no transaction; begin one");
  call(other, "watch");
  const int commits = store.commits;
  EXPECT_EQ(call(writer, "commit")["result"], Json({{"written", 3}}));
  EXPECT_EQ(store.commits, commits + 1);
  EXPECT_EQ(next(other)["params"]["changes"].size(), 3U);
  EXPECT_EQ(leds(other), 3U);
  EXPECT_EQ(write(writer, {putLed("C", kRed)})["result"], Json({{"written", 1}})) << "alone again";
}

TEST_F(TransactionTest, IsAnsweredBeforeTheAgentsPass) {
  Client client(socket);
  bool inPass = false, after = false;
  loop.turnIs([&] {
    host.turn([&] { inPass |= client.line().has_value(); });
    after |= client.line().has_value();
    return Zel::Clock::kNever;
  });
  const auto isAnsweredInPass = [&](const std::string& line) {
    inPass = after = false;
    send(client, line);
    while (!inPass && !after) loop.runOnce();
    return inPass;
  };
  EXPECT_FALSE(isAnsweredInPass(request("write", {{"changes", Json::array({putDir()})}})));
  EXPECT_FALSE(isAnsweredInPass(request("begin")));
  EXPECT_FALSE(isAnsweredInPass(request("write", {{"changes", Json::array({putLed("A", kRed)})}})));
  EXPECT_TRUE(isAnsweredInPass(request("commit")));
}

TEST_F(TransactionTest, LeavesNothingWhereItDoesNotCommit) {
  {
    Client gone(socket);
    call(gone, "begin");
    write(gone, {putDir()});
  }
  Client client(socket);
  call(client, "begin");
  write(client, {putDir()});
  call(client, "rollback");
  const std::pair<std::string, const char*> faults[] = {
      {request("write", {{"changes", Json::array({{{"op", "pu"}}})}}), "'changes'[0]: 'op': found \"pu\""},
      {request("write", {{"changes", Json::array()}, {"durability", "stored"}}), "'durability' is the"},
      {"{\"jsonrpc\n", "not JSON at byte"},
      {request("begin"), "has a transaction open"},
  };
  for (const auto& [fault, reason] : faults) {
    call(client, "begin");
    write(client, {putDir()});
    send(client, fault);
    EXPECT_THAT(next(client)["error"]["message"], HasSubstr(reason));
    EXPECT_THAT(write(client, {putDir()})["error"]["message"], HasSubstr(reason)) << "the first reason";
    EXPECT_THAT(errorOf(client, "commit"), HasSubstr(reason));
  }
  call(client, "begin");
  write(client, {putLed("A", kRed), {{"op", "put"}, {"path", "x"}, {"type", "No::Such"}}});
  EXPECT_EQ(call(client, "commit")["error"]["data"]["errors"].size(), 2U) << "each wrong change has its line";
  EXPECT_EQ(leds(client), 0U);
}

TEST(Transactions, HaveLimits) {
  Transactions all;
  Transaction first(all), second(all);
  first.begin(Durability::stored, 1.0);
  second.begin(Durability::stored, 2.0);
  EXPECT_EQ(all.nextLate(), 61.0);
  all.failLate(61.5);
  EXPECT_EQ(all.nextLate(), 62.0) << "the second has half a second left";
  EXPECT_THROW(first.end(), RpcError);

  const std::string longest(1 << 20, 'x');
  const Zel::Value::List one{Zel::Value::Fields{{"op", "del"}, {"path", longest}}};
  for (std::size_t i = 0; i < 255; ++i) second.gather(one);
  first.begin(Durability::stored, 3.0);
  EXPECT_THROW(first.gather(one), RpcError) << "both together hold too much";
  EXPECT_EQ(second.end().changes.size(), 255U);
  first.rollback();
  EXPECT_EQ(all.nextLate(), std::numeric_limits<double>::infinity());
}

TEST_F(TransactionTest, AnArrayIsAnsweredByAnArrayWithoutItsNotifications) {
  Client client(socket);
  const auto line = [&](const std::vector<std::string>& requests) {
    std::string all;
    for (const auto& each : requests)
      all += (all.empty() ? '[' : ',') + each.substr(0, each.size() - (each.back() == '\n'));
    return all + "]\n";
  };
  const std::string notification = R"({"jsonrpc":"2.0","method":"hello"})";
  send(client,
       line({notification}) + line({request("write", {{"changes", Json::array({putDir()})}}, 7), notification,
                                    "[]", request("x", {}, 8), request("read", Json::object(), 9)}));
  const Json answers = next(client);
  ASSERT_EQ(answers.size(), 4U) << answers;
  EXPECT_EQ(answers[0]["result"], Json({{"written", 1}}));
  EXPECT_EQ(answers[1]["id"], nullptr);
  EXPECT_EQ(answers[1]["error"]["code"], -32600);
  EXPECT_EQ(answers[2]["error"]["code"], -32601);
  EXPECT_EQ(answers[3]["result"]["entities"].size(), 1U) << answers[3];

  store.fails = true;
  send(client, line({request("write", {{"changes", Json::array({putLed("A", kRed)})}}), request("hello"),
                     request("read")}));
  const Json failed = next(client);
  EXPECT_EQ(failed[0]["error"]["code"], 2) << "its flush failed when the array read";
  EXPECT_TRUE(failed[1].contains("result"));
  EXPECT_EQ(failed[2]["result"]["entities"].size(), 1U);
}

TEST_F(TransactionTest, TheAnswersOfAnArrayHaveALimit) {
  Client client(socket);
  std::vector<Json> changes{putDir()};
  for (int i = 0; i < 300; ++i) changes.push_back(putLed(std::to_string(i).c_str(), kRed));
  write(client, changes);
  const std::string read = request("read");
  std::string many;
  for (int i = 0; i < 100; ++i) many += (many.empty() ? '[' : ',') + read.substr(0, read.size() - 1);
  send(client, many + "]\n");
  const Json answers = next(client);
  ASSERT_EQ(answers.size(), 100U) << answers.dump().substr(0, 300);
  EXPECT_TRUE(answers[0].contains("result"));
  EXPECT_THAT(answers[99]["error"]["message"], HasSubstr("send the requests that are left in another one"));
}

}  // namespace
}  // namespace Host
