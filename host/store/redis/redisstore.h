// A state database on a Redis server that several hosts share: "redis-unix:", "redis:" and "redis+sentinel:".
//
// This process keeps a copy of all rows, which stays while the server is lost: the lights stay as they are,
// LEDs go on flashing, and what is published waits. Stored writes fail meanwhile. When the server is back,
// subscribers are notified of what differs.
//
// - A stored batch is one step on the server. The table shows it at once; subscribers are notified, and the
//   ticket of its flush is done, when its entry in the server's log arrives.
// - Volatile rows are shown and notified of here at once, and sent as state: one value an attribute.
// - A mount that this process publishes is claimed. While another process holds it, this one is the standby:
//   its agent gets no snapshot there, or, if it was the holder before, what it publishes is kept to itself.
// - Covers are rows of a space of their own, which no other changes. They are shown and sent like volatile
//   rows, while this process holds the claim of their mount, and removed at once when it ends; those of a
//   process that was killed when its claim is silent for the lease.
// - A large snapshot of the server is taken over in portions of some milliseconds: what this process
//   had stays visible until an entity's turn comes, and what is written meanwhile is carried as always. A
//   subscriber's snapshot waits until all is there, and so does the state "reached"; whoever has one already
//   is notified of each portion's differences, an entity's all at once.
// - A subscriber that takes its snapshot in parts gets it in portions as well. The loss of the server
//   does not interrupt that, because the rows stay.
//
// Activity thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/io/loop.h"
#include "host/store/redis/mirror.h"
#include "host/store/redis/owncovers.h"
#include "host/store/redis/publishedspace.h"
#include "host/store/redis/refresh.h"
#include "host/store/redis/storedwrites.h"
#include "host/store/redis/subscribers.h"
#include "host/store/redis/upstream.h"
#include "host/store/redis/url.h"
#include "platform/statedb/store/store.h"

namespace Host::Redis {

class RedisStore final : public Statedb::Store, private Upstream::Owner, private PublishedSpace::Owner {
 public:
  using Report = std::function<void(const std::string& text)>;

  // Connects from the loop, and reconnects for ever. `report` logs each loss and each return once, what the
  // server refuses, and who holds a claim. Throws StoreError if the URL is wrong. `loop` must outlive it.
  RedisStore(Loop& loop, const std::string& url, Report report, Subscribers::Portion portion = {});
  // Releases its claims: a standby takes over at once.
  ~RedisStore() override;

  std::string url() const override { return text_; }
  Statedb::StoreState state() const override;
  bool isReached() const override { return isReached_; }
  bool takesCovers() const override { return true; }
  const Statedb::Table* table() const override { return &mirror_; }
  void subscribe(Statedb::Path path, Statedb::Subscriber& subscriber) override;
  void unsubscribe(Statedb::Subscriber& subscriber) override { subscribers_.remove(subscriber); }
  // Also throws RefusedError for a stored batch of more than StoredWrites::kMostChanges, and for one that
  // changes or covers what another process publishes; StoreError for a stored batch while the server is not
  // reached.
  void write(const Statedb::Changes& changes, Statedb::Durability durability,
             Statedb::Subscriber* origin) override;
  Statedb::Ticket flush() override;
  void announce(const Statedb::Announcement& announcement) override;

 private:
  void onReached() override;
  void onLost(const Loss& loss) override;
  void onRows(Statedb::Durability space) override;
  void onEntry(const Upstream::Owner::Entry& entry) override;
  void onWiped(Statedb::Durability space) override;
  void onWarning(const std::string& text) override { report(text); }
  void onClaimsRead() override { complete(); }
  void onPublishing() override { flush(); }
  void report(const std::string& what) const override { report_("state database " + text_ + ": " + what); }
  std::uint64_t now() const override { return uv_now(loop_.uv()); }
  void onSettled(const WriteId& write, Outcome outcome) override;
  void onRefused(const WriteId& write, const Reply& error) override;

  void writeStored(const Statedb::Changes& changes, Statedb::Subscriber* origin);
  void writeVolatile(const Statedb::Changes& changes, Statedb::Subscriber* origin);

  void writeCovers(const Statedb::Changes& changes);

  PublishedSpace& of(Statedb::Durability space) {
    return space == Statedb::Durability::cover ? covers_ : volatile_;
  }
  void carryStored(const Upstream::Owner::Entry& entry);
  void carryPublished(const Upstream::Owner::Entry& entry);
  void deliverSnapshots();
  void deliverPortion();
  std::vector<Statedb::Path> mountsUnder(Statedb::Path path, const Statedb::Subscriber& subscriber) const;
  bool mayArrive(Statedb::Path path, const Statedb::Subscriber& subscriber) const;
  void notify(LayeredChanges changes);

  void complete();
  void tick();

  Loop& loop_;
  const std::string text_;
  const Url url_;
  const Report report_;

  Mirror mirror_;
  Refresh refresh_;
  Upstream upstream_;
  StoredWrites stored_;
  PublishedSpace volatile_, covers_;
  OwnCovers ownCovers_;

  Subscribers subscribers_;
  bool isReached_ = false;                // and its rows are shown
  bool hasRows_ = false;                  // was reached once
  std::optional<std::uint64_t> wipedAt_;  // the stored space, which is shown as it was
  std::string why_;                       // it is not reached; empty before the first attempt has failed
  std::set<Loss::Kind> losses_;           // reported since it was reached last
  UvHandle<uv_timer_t> timer_;
  UvHandle<uv_idle_t> delivery_;  // of snapshots, where they take more than a portion
};

}  // namespace Host::Redis
