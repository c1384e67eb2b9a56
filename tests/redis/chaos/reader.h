// A subscriber that keeps rows, and notices what a subscriber must never be notified of.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/statedb/store/store.h"
#include "tests/redis/chaos/reference.h"

namespace Chaos {

inline constexpr const char* kPins = "chaos/pins";       // the mount that is claimed
inline constexpr const char* kCovered = "chaos/shared";  // the one that is covered, where all write

std::uint64_t now();     // milliseconds
std::string timeText();  // as events begin with it

// A value tells who wrote it, and its place among the batches of that writer: "s one 17" is stored.
struct Stamp {
  std::string writer;  // with the space before it: "s one"
  unsigned number = 0;

  std::string text() const { return writer + " " + std::to_string(number); }
  // Nothing where the text is no stamp.
  static std::optional<Stamp> in(const std::string& text);
};

// What happened to the server's history. Counts grow.
struct History {
  unsigned stored = 0;     // rows were taken from the server: an older file, an empty one, a wipe
  unsigned volatile_ = 0;  // the same, and every restart
};

class Reader : public Statedb::Subscriber, private Statedb::SnapshotParts {
 public:
  using Fault = std::function<void(const std::string& what)>;

  // `history` and what `fault` refers to must outlive it.
  Reader(std::string name, const History& history, Fault fault)
      : name_(std::move(name)), history_(history), fault_(std::move(fault)) {}

  void onSnapshot(const Statedb::Records& records) override;
  Statedb::SnapshotParts* snapshotParts() override { return this; }
  void onChanges(const Statedb::Changes& changes) override;

  const Rows& rows() const { return rows_; }
  // The last values at a place, and when they came.
  std::string past(const std::string& place) const;
  // Everything is quiet, and the server has these rows: none goes back any more because of what happened
  // before.
  void settled(const Rows& stored, const Rows& volatile_);
  // The stored batches of a writer of which a value was seen.
  const std::set<unsigned>& seen(const std::string& writer) { return seen_["s " + writer]; }
  unsigned long notifications = 0;

 private:
  struct Last {
    unsigned number = 0;
    unsigned history = 0;  // up to which it went back, once for each loss
  };

  void onBegin() override { had_.clear(); }
  void onPart(const Statedb::Records& records) override;
  bool onEnd() override;
  void put(const std::string& place, const std::string& json);
  void note(const std::string& place, const std::string& what);
  void check(const std::string& place, const Stamp& stamp);
  void erase(const std::string& place);
  void eraseUnder(const std::string& path);

  const std::string name_;
  const History& history_;
  const Fault fault_;
  Rows rows_{};
  std::set<std::string> had_{};  // the entities that a snapshot in parts has had
  History settled_{};
  std::map<std::string, std::deque<std::string>> past_{};  // by place
  std::map<std::string, Last> last_{};                     // by place and writer
  std::map<std::string, std::set<unsigned>> seen_{};
};

}  // namespace Chaos
