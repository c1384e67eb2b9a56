// The network links of the process's network namespace, from rtnetlink. Loopback interfaces are left out.
//
// A change comes as the kernel's notification. Where notifications were lost, because the receive buffer was
// full, all links are read again. Traffic has no notification: while any link has a carrier, the statistics
// are polled. Speed and duplex are looked up (ethtool.h) when a link gets its carrier and when somebody
// changes them. Activity thread only.
#pragma once

#include <map>
#include <optional>

#include "facts/ethtool.h"
#include "facts/netlink.h"
#include "facts/sink.h"
#include "facts/timer.h"

namespace Facts {

class LinkSource final : private Poll::Client {
 public:
  static constexpr std::size_t kMaxLinks = 4096;  // further ones are left out, and errorIs reports that
  static constexpr int kReceiveBuffer = 1 << 20;  // bytes; the system's limit may be lower

  // Reads all links soon, and follows them. Throws SourceError where rtnetlink can't be used.
  LinkSource(Sink<LinkFact>& sink, Poll& poll, int receiveBuffer = kReceiveBuffer);
  ~LinkSource();

  // How many times all links were read.
  std::uint64_t listings() const { return listings_; }

 private:
  struct Link {
    Zel::Name name;
    LinkFact fact;
    std::uint64_t received = 0;  // bytes, at the last poll
    std::uint64_t sent = 0;
    double polledAt = 0;        // 0: not since it has its carrier
    std::uint64_t listing = 0;  // that saw it last
  };

  void list();
  void listed();
  void read();
  void handle(nlmsghdr& message);
  void linkSeen(nlmsghdr& message);
  void seen(int interface, Zel::Name name, unsigned flags);
  void linkGone(int interface);
  void nameIs(int interface, Link& link, Zel::Name name);
  void nameDel(int interface, const Link& link);
  void carrierIs(int interface, Link& link, bool carrier);
  void remove(int interface);
  void askSpeed(int interface);
  void speedIs(int interface, const LinkSpeed& speed);
  void onPoll() override;
  void readStatistics();
  void statisticsSeen(nlmsghdr& message);
  void report();

  Sink<LinkFact>& sink_;
  Poll& poll_;
  NetlinkSocket links_;
  NetlinkSocket statistics_;
  std::map<int, Link> byInterface_;
  std::map<Zel::Name, int> byName_;
  std::size_t carriers_ = 0;
  std::uint64_t listings_ = 0;
  bool busy_ = false;       // the answer is not complete
  bool listAgain_ = false;  // it can't be relied on
  bool omitted_ = false;    // there are more than kMaxLinks
  bool polling_ = false;    // the answer is not complete
  double polledAt_ = 0;
  std::optional<SpeedLookup> speeds_;
  std::string speedError_;
  Zel::FdWatch linksWatch_;
  Zel::FdWatch statisticsWatch_;
};

}  // namespace Facts
