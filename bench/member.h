// A view of a shared state database: a store, and a subscriber that counts what it gets.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "host/io/loop.h"
#include "platform/statedb/store/store.h"

namespace Bench {

// A loop that is run step by step.
class Rounds {
 public:
  Host::Loop& loop() { return loop_; }
  // One round of events, which waits for the first.
  void run();
  // Runs until then. Throws std::runtime_error, with `report()`, if that takes too long.
  void runUntil(const std::function<bool()>& condition, const std::function<std::string()>& report = {});
  // The most seconds of processor time that a round took since the last call: other work on the machine does
  // not count.
  double takeLongest() { return std::exchange(longest_, 0.0); }

 private:
  Host::Loop loop_;
  double longest_ = 0;
};

class Member : private Statedb::Subscriber, private Statedb::SnapshotParts {
 public:
  // Waits until the store has the rows. Throws std::runtime_error if that takes too long. `rounds` must
  // outlive it.
  Member(Rounds& rounds, const std::string& url, const std::string& path,
         const std::function<void()>& onGot = {});
  ~Member() override;

  // Writes and sends a batch.
  Statedb::Ticket write(const Statedb::Changes& changes, Statedb::Durability durability);
  // Runs the loop until a batch is durable. Throws std::runtime_error if it fails.
  void wait(const Statedb::Ticket& ticket);
  // Runs the loop until the subscriber has got so many values in all.
  void waitFor(std::size_t changes);
  // Runs the loop until it is killed.
  void follow();

  std::size_t changes() const { return changes_; }

 private:
  void onSnapshot(const Statedb::Records&) override { onEnd(); }
  Statedb::SnapshotParts* snapshotParts() override { return this; }
  void onBegin() override {}
  void onPart(const Statedb::Records&) override {}
  bool onEnd() override;
  void onChanges(const Statedb::Changes& changes) override;
  void runUntil(const std::function<bool()>& condition);

  Rounds& rounds_;
  const std::function<void()> onGot_;
  std::unique_ptr<Statedb::Store> store_;
  std::string report_;
  bool hasRows_ = false;
  std::size_t changes_ = 0;
};

}  // namespace Bench
