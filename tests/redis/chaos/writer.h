// Writes at random through one store, and keeps account of what the database must hold for it.
//
// Every batch has a number, and every value the number of its batch. The rows under "chaos/NAME" are this
// writer's alone: what the server has there must be the result of the last batch that was taken, or of a
// later one whose fate is unknown. A batch that failed or was refused must never be seen.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/redis/chaos/reader.h"

namespace Chaos {

class Writer : public Statedb::Subscriber {
 public:
  struct Counts {
    unsigned long stored = 0, volatile_ = 0, taken = 0, refused = 0, failed = 0, unknown = 0, rejected = 0,
                  covers = 0;
  };

  // `history` must outlive it. `publishes`: also writes the pins.
  Writer(std::string name, unsigned seed, const History& history, bool publishes)
      : name_(std::move(name)), history_(history), publishes_(publishes), random_(seed) {}

  // The agent that publishes the pins works from its snapshot on.
  void onSnapshot(const Statedb::Records& records) override;
  void onChanges(const Statedb::Changes&) override {}
  bool publishes(Statedb::Path path) const override { return publishes_ && path.isUnder(kPins); }

  // The store's process starts, or ended: what was under way then is unknown.
  void starts(Statedb::Store& store);
  void ended();

  // One random batch, unless too many are under way.
  void act();
  // A stored and a volatile batch that show whether everything works.
  void probe();
  bool isProbed() const { return probe_ && probe_->isDone && probe_->kind == Statedb::Ticket::Kind::taken; }
  // Why it is not; of a probe that is under way, why an earlier write failed.
  std::string whyNotProbed() const {
    return (probe_ && !probe_->isDone ? "waits for the answer of a write; earlier: " : "can't write: ") +
           lastFailure_;
  }
  void forgetProbe() { probe_ = nullptr; }
  // Looks after the tickets.
  void poll();
  bool isIdle() const { return underWay_.empty(); }

  // Appends what the server's stored rows have wrong, and takes them as the new start otherwise.
  void verify(const Rows& stored, std::vector<std::string>& differing);
  // The covers of this process, as the server is to have them.
  const Rows& covers() const { return covers_; }
  // The same for the pins, where this writer's process owns them.
  void verifyPins(const Rows& volatile_, std::vector<std::string>& differing) const;
  // Appends batches that were seen though they failed.
  void verifyUnseen(Reader& reader, std::vector<std::string>& differing) const;

  const std::string& name() const { return name_; }
  const Counts& counts() const { return counts_; }

 private:
  using Kind = Statedb::Ticket::Kind;
  struct Batch {
    unsigned number = 0;
    unsigned history = 0;  // when it was written
    bool isDone = false;
    Kind kind = Kind::unknown;
    Statedb::Ticket ticket{};
  };
  // What became of a row by a batch.
  struct Step {
    std::shared_ptr<const Batch> batch;
    bool isPut = false;
  };
  struct Row {
    unsigned start = 0;  // the number that it had when it was last verified; 0: it was not there
    unsigned history = 0;
    std::deque<Step> steps{};
  };

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  std::string entity();
  Statedb::Change storedStep();
  Zel::Value stamp(const char* space) const {
    return Zel::Value(Stamp{space + (" " + name_), number_}.text());
  }
  void writeStored(const Statedb::Changes& changes, bool isProbe = false);
  void writeVolatile(const Statedb::Changes& changes);
  void writePins(unsigned count);
  void writeCover();
  void note(const Statedb::Change& change, const std::shared_ptr<const Batch>& batch);
  void done(Batch& batch, Kind kind);
  std::string wrong(const Row& row, unsigned now) const;

  const std::string name_;
  const History& history_;
  const bool publishes_;
  std::mt19937 random_;
  Statedb::Store* store_ = nullptr;
  bool hasPins_ = false;       // the agent works
  bool wantsAllPins_ = false;  // and is to publish all of them
  unsigned number_ = 0;        // of the last batch
  std::deque<std::shared_ptr<Batch>> underWay_{};
  std::shared_ptr<Batch> probe_{};
  std::map<std::string, Row> rows_{};       // stored ones, by place
  std::map<std::string, unsigned> pins_{};  // the number that was last written, by place
  Rows covers_{};
  std::set<unsigned> neverStored_{};  // batches that failed or were refused
  std::string lastFailure_{};
  Counts counts_{};
};

}  // namespace Chaos
