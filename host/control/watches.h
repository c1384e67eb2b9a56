// The watches of one client.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/statedb/store/store.h"

namespace Host {

// Sends a notification for every batch that touches a watched path.
class Watches {
 public:
  static constexpr std::size_t kMost = 256;  // watches of one client

  using Send = std::function<void(const std::string& line)>;

  // `store` must outlive the watches.
  Watches(Statedb::Store& store, Send send);

  // Which changes a watch is notified of: all, those of others than the client, or all of the base, under the
  // covers.
  enum class Of : std::uint8_t { all, others, base };
  // Watches a path. Does not intern it. Returns the watch's number, which is never reused; nullopt if the
  // client has kMost already.
  std::optional<std::uint64_t> add(const std::string& path, Of of);
  // Returns whether there was such a watch.
  bool del(std::uint64_t id);

  // The origin to pass with the client's own writes.
  Statedb::Subscriber* origin() { return &group(Of::others); }

 private:
  // The watches of the same changes. They share one subscriber, because a write names only one origin to
  // leave out. Subscribed to everything while it has any watch.
  class Group : public Statedb::Subscriber {
   public:
    Group(Statedb::Store& store, const Send& send, Statedb::Layer layer = Statedb::Layer::effective)
        : store_(store), send_(send), layer_(layer) {}
    ~Group() override;

    std::size_t count() const { return watches_.size(); }
    void add(std::uint64_t id, const std::string& path);
    bool del(std::uint64_t id);

    Statedb::Layer layer() const override { return layer_; }
    void onSnapshot(const Statedb::Records& records) override;
    void onChanges(const Statedb::Changes& changes) override;
    void onRevealed(const Statedb::Changes& changes) override;

   private:
    struct Watch {
      std::uint64_t id;
      std::string text;
      std::optional<Statedb::Path> path;  // once it is interned
    };
    // Looks up the paths that were not interned yet.
    void findPaths();
    // `more`: further parameters of the notification, each followed by a comma.
    void notify(const Statedb::Changes& changes, const char* more);

    Statedb::Store& store_;
    const Send& send_;
    const Statedb::Layer layer_;
    std::vector<Watch> watches_;
    bool subscribing_ = false;
    std::uint64_t paths_ = 0;  // Path::added() at the last look-up
  };

  Group& group(Of of) { return groups_[static_cast<std::size_t>(of)]; }

  const Send send_;
  std::array<Group, 3> groups_;  // by Of
  std::uint64_t last_ = 0;
};

}  // namespace Host
