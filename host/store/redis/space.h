// One space of an upstream: its rows, its follower on the upstream's connections, and the writes into it.
// Internal to the upstream.
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/io/timer.h"
#include "host/store/redis/connection.h"
#include "host/store/redis/follower.h"
#include "host/store/redis/layout.h"
#include "host/store/redis/rows.h"
#include "host/store/redis/scan.h"
#include "host/store/redis/scripts.h"
#include "host/store/redis/upstream.h"

namespace Host::Redis {

class Space;

// The upstream as its spaces see it.
class Line {
 public:
  Line(Loop& loop, const Url& url, Connection::Owner& ofCommands, Connection::Owner& ofSubscription);
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  // Ends both connections, from the loop: not within this call.
  virtual void lose(Loss loss) = 0;
  virtual void warn(const std::string& text) = 0;
  // Whether the server may be used; calls lose() where it may not.
  virtual bool isFit(const ServerState& state) = 0;
  // A space did a step: sends what it requested.
  virtual void onStep() = 0;
  virtual Known known() const = 0;
  // Asks for the state of a space, together with the others that ask within this step: Space::onState().
  virtual void askState(Space& space) = 0;

  Loop& loop;
  const Url url;
  const std::string uuid;
  Connection commands, subscription;
  Caller caller{commands};

 protected:
  ~Line() = default;
};

// A random text of 128 bits.
std::string randomText();
Loss lossOf(const Reply& error);

class Space final : Follower::Output, Scan::Owner {
 public:
  // `line` and `owner` must outlive it.
  Space(Line& line, Statedb::Durability durability, Upstream::Owner& owner);

  const Keys& keys() const { return keys_; }
  const Rows& rows() const { return rows_; }
  State state() const { return follower_.mirrored().value_or(State()); }
  bool isReached() const { return follower_.isFollowing() || follower_.isWiped(); }
  std::size_t underWay() const { return writes_.size(); }

  void onConnected() { follower_.onConnected(); }
  void onState(const ServerState& state);
  void onDisconnected();
  void onMessage(std::string_view payload);
  void check() { follower_.check(); }
  void acceptWiped() { follower_.acceptWiped(); }
  Sequence write(const Statedb::Changes& changes, std::vector<Claimed> claims);

 private:
  struct Write {
    Statedb::Changes changes;
    std::vector<Claimed> claims;
    std::vector<Statedb::Path> inTheWay{};
    std::string generation{};     // that it was last sent with
    std::string delta{};          // see Call
    bool isWaitingForIt = false;  // for another one
  };

  void subscribe() override;
  void askState(Sequence fence) override;
  void askLog(Revision after) override;
  void scan() override;
  void replay(const Entry& entry) override;
  void accept(const State& state) override;
  void apply(const Entry& entry, Sequence own) override;
  void settle(Sequence write, Outcome outcome) override;
  void wiped() override;
  void reconnect(std::string_view why) override;

  void onScanned() override;
  void onUnreadable(const std::string& text) override;
  void onScanFailed(const Reply& error) override { line_.lose(lossOf(error)); }

  void onLog(const Reply& reply);
  Statedb::Changes changesIn(const Entry& entry);
  Statedb::Changes changesIn(const Entry& entry, Sequence own);
  DeltaHead headIn(const Entry& entry);
  void throwAway(Rows& rows);

  void send(Sequence sequence);
  void onAnswer(Sequence sequence, const Reply& reply);
  void onWritten(Sequence sequence, const Written& written);
  void onOtherGeneration(Sequence sequence, Write& write, const Reply& error);
  void onOtherType(Sequence sequence, Write& write, const Reply& error);
  void onForgotten(Sequence sequence, const Reply& error);
  void sendWaiting();
  void sendAgain(Sequence sequence);
  void giveBack(Sequence sequence);
  void onRefused(Sequence sequence, const Reply& error);

  Line& line_;
  const Statedb::Durability durability_;
  const Keys keys_;
  const std::string uuid_;  // of the writer of this space
  Upstream::Owner& owner_;
  Follower follower_;
  Scan scan_;
  Rows rows_{}, copy_{};
  std::vector<Rows> waste_{};  // is freed in portions
  Timer freeing_;
  std::map<Sequence, Write> writes_{};  // that are not settled
  Sequence newest_ = 0;                 // write
  Sequence carriedOut_ = 0;             // the newest of these
};

}  // namespace Host::Redis
