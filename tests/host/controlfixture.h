// A real server of the control socket and raw clients, on one thread.
#pragma once

#include <gtest/gtest.h>

#include "client.h"
#include "host/control/control.h"
#include "platform/model/paths.h"
#include "platform/statedb/store/memorystore.h"
#include "tests/servedstore.h"

namespace Host {

inline const Json kRed = {{"red", true}};

// Counts its commits and the stored changes, and fails commits while `fails` is set. While `outcome` is set,
// it completes its flushes when the test says so.
struct TestStore : Statedb::MemoryStore {
  std::shared_ptr<Statedb::Ticket::Outcome> outcome;

  Statedb::Ticket flush() override {
    MemoryStore::flush();
    return outcome ? Statedb::Ticket(outcome) : Statedb::Ticket();
  }

  int commits = 0;
  std::size_t stored = 0;
  bool fails = false;

  void persist(const Statedb::Changes& changes) override { stored += changes.size(); }
  void commit() override {
    ++commits;
    if (fails) throw Statedb::StoreError("the disk is full");
  }
};

class ControlTest : public ::testing::Test, protected Support::ServedProcess<TestStore> {
 protected:
  // The next message for the client; null if the connection has ended without one.
  Json next(Client& client) {
    for (int rounds = 0; rounds < 100000; ++rounds) {
      if (const auto line = client.line()) return Json::parse(*line);
      if (client.ended()) return nullptr;
      loop.runOnce();
    }
    throw std::runtime_error("no message for the client");
  }
  void send(Client& client, std::string_view bytes) {
    while (!bytes.empty() && !client.ended()) {
      bytes.remove_prefix(client.send(bytes));
      loop.runOnce();
    }
  }
  static std::string request(const char* method, const Json& parameters = Json::object(), int id = 1) {
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", parameters}}.dump() + '\n';
  }
  Json call(Client& client, const char* method, const Json& parameters = Json::object()) {
    send(client, request(method, parameters));
    return next(client);
  }
  static Json putLed(const char* name, const Json& setting) {
    return {{"op", "put"}, {"path", led(name)}, {"attributes", {{"lightSetting", setting}}}};
  }
  static std::string led(const char* name) { return std::string(Paths::kLeds) + "/leds/" + name; }
  Json write(Client& client, const std::vector<Json>& changes) {
    return call(client, "write", {{"changes", changes}});
  }
  static Json putDir() {
    return {{"op", "put"}, {"path", Paths::kLeds}, {"type", "Hardware::Led::LedSystemConfigDir"}};
  }

  TestStore& store = host.store;
};

}  // namespace Host
