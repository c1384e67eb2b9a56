// What one client watches.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/statedb/store.h"

namespace Host {

// Sends a notification for every batch that touches a watched path.
class Watches {
 public:
  using Send = std::function<void(const std::string& line)>;

  // `store` must outlive the watches.
  Watches(Statedb::Store& store, Send send);

  // Watches a path, without the client's own writes where `own` is false. Returns the watch's number, which
  // is not used again.
  std::uint64_t add(Statedb::Path path, bool own);
  // Returns whether there was such a watch.
  bool del(std::uint64_t id);

  // What to give as the origin of the client's own writes.
  Statedb::Feed* origin() { return &others_; }

 private:
  // The watches that hear of the same writes: a store leaves out one feed a write, so they share it. Is
  // subscribed to everything while it has any.
  class Group : public Statedb::Feed {
   public:
    Group(Statedb::Store& store, const Send& send) : store_(store), send_(send) {}
    ~Group() override;

    void add(std::uint64_t id, Statedb::Path path);
    bool del(std::uint64_t id);

    void onSnapshot(const Statedb::Records& records) override;
    void onChanges(const Statedb::Changes& changes) override;
    void onRevealed(const Statedb::Changes& changes) override;

   private:
    struct Watch {
      std::uint64_t id;
      Statedb::Path path;
    };
    // `more`: further parameters of the notification, each with a comma behind it.
    void tell(const Statedb::Changes& changes, const char* more);

    Statedb::Store& store_;
    const Send& send_;
    std::vector<Watch> watches_;
    bool subscribing_ = false;
  };

  const Send send_;
  Group all_;
  Group others_;  // deaf to the client's own writes
  std::uint64_t last_ = 0;
};

}  // namespace Host
