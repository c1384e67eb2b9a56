// The speed and the duplex of links, from the kernel's ethtool family (Linux 5.6 and later): rtnetlink does
// not have them.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "facts/netlink.h"
#include "facts/worker.h"
#include "platform/zel/notify/fdwatch.h"
#include "platform/zel/notify/inbox.h"

namespace Facts {

struct LinkSpeed {
  std::uint32_t megabits = 0;  // 0: unknown
  std::string duplex;          // "full", "half", or empty: unknown
};

// Asks the kernel, which asks the driver: that may take milliseconds. One thread at a time.
class Ethtool {
 public:
  // Throws SourceError where the kernel has no such family.
  Ethtool();

  int family() const { return family_; }
  // The group of the notifications of changed settings.
  int group() const { return group_; }
  // Unknown where the interface is gone or has none.
  LinkSpeed speed(int interface);

 private:
  NetlinkSocket socket_;
  int family_;
  int group_;
};

// Looks speeds up on a thread of its own. Activity thread only.
class SpeedLookup {
 public:
  using Handler = std::function<void(int interface, const LinkSpeed&)>;

  // `changed` is called with an interface whose settings somebody changed, with 0 for any of them. Throws
  // SourceError where the kernel has no ethtool family.
  SpeedLookup(Handler found, std::function<void(int interface)> changed);

  // `found` will be called with the speed of the interface, once for several calls before it.
  void ask(int interface);

 private:
  using Speeds = std::vector<std::pair<int, LinkSpeed>>;

  void start();
  void finish(const Speeds& speeds);
  void read();
  void readNotifications();

  const Handler found_;
  const std::function<void(int)> changed_;
  Ethtool ethtool_;  // the worker's
  NetlinkSocket notifications_;
  std::set<int> wanted_;
  bool busy_ = false;
  Zel::Inbox inbox_;
  Worker worker_;
  Zel::FdWatch watch_;
};

}  // namespace Facts
