#include "facts/linksource.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/object.h>
#include <netlink/route/link.h>

#include <cmath>
#include <cstring>

namespace Facts {

namespace {

constexpr std::uint32_t kSkipStatistics = 8;  // RTEXT_FILTER_SKIP_STATS

NetlinkMessage linksRequest() {
  auto message = owned(nlmsg_alloc_simple(RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP));
  ifinfomsg header{};
  nlmsg_append(message.get(), &header, sizeof header, NLMSG_ALIGNTO);
  nla_put_u32(message.get(), IFLA_EXT_MASK, kSkipStatistics);
  return message;
}

NetlinkMessage statisticsRequest() {
  auto message = owned(nlmsg_alloc_simple(RTM_GETSTATS, NLM_F_REQUEST | NLM_F_DUMP));
  if_stats_msg header{};
  header.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
  nlmsg_append(message.get(), &header, sizeof header, NLMSG_ALIGNTO);
  return message;
}

struct PutLink {
  void operator()(rtnl_link* link) const { rtnl_link_put(link); }
};
using RouteLink = std::unique_ptr<rtnl_link, PutLink>;

// Null where libnl can't parse the message.
RouteLink parsed(nlmsghdr& message) {
  const auto copy = owned(nlmsg_convert(&message));
  nlmsg_set_proto(copy.get(), NETLINK_ROUTE);
  rtnl_link* link = nullptr;
  const auto keep = [](nl_object* object, void* kept) {
    nl_object_get(object);
    *static_cast<rtnl_link**>(kept) = reinterpret_cast<rtnl_link*>(object);
  };
  nl_msg_parse(copy.get(), keep, &link);
  return RouteLink(link);
}

// Whole bytes a second; 0 where the counter was reset.
double rate(std::uint64_t before, std::uint64_t now, double seconds) {
  return now < before || seconds <= 0 ? 0 : std::round(static_cast<double>(now - before) / seconds);
}

}  // namespace

LinkSource::LinkSource(Sink<LinkFact>& sink, Poll& poll, int receiveBuffer)
    : sink_(sink),
      poll_(poll),
      links_(NETLINK_ROUTE),
      statistics_(NETLINK_ROUTE),
      linksWatch_(links_.fd(), Zel::FdWatch::kReadable,
                  [this](unsigned) { runFor(sink_, [this] { read(); }); }),
      statisticsWatch_(statistics_.fd(), Zel::FdWatch::kReadable,
                       [this](unsigned) { runFor(sink_, [this] { readStatistics(); }); }) {
  links_.receiveBufferIs(receiveBuffer);
  links_.nonBlockingIs();
  statistics_.nonBlockingIs();
  try {
    speeds_.emplace([this](int interface, const LinkSpeed& speed) { speedIs(interface, speed); },
                    [this](int interface) { askSpeed(interface); });
  } catch (const SourceError& error) {
    speedError_ = error.what();
  }
  links_.join(RTNLGRP_LINK);
  list();
}

LinkSource::~LinkSource() { poll_.wantedIs(*this, false); }

void LinkSource::list() {
  if (busy_) {
    listAgain_ = true;
    return;
  }
  busy_ = true;
  listAgain_ = omitted_ = false;
  ++listings_;
  links_.send(*linksRequest());
}

void LinkSource::listed() {
  busy_ = false;
  if (listAgain_) return list();
  for (auto each = byInterface_.begin(); each != byInterface_.end();) {
    const auto& [interface, link] = *each++;
    if (link.listing != listings_) remove(interface);
  }
  sink_.complete();
  report();
}

void LinkSource::report() {
  sink_.errorIs(omitted_ ? "there are more than " + std::to_string(kMaxLinks) + " links" : speedError_);
}

void LinkSource::read() {
  for (int i = 0; i < NetlinkSocket::kDatagrams; ++i) {
    const auto received = links_.receive([this](nlmsghdr& message) { handle(message); });
    if (received == NetlinkSocket::Received::nothing) return;
    if (received == NetlinkSocket::Received::lost) list();
  }
}

void LinkSource::handle(nlmsghdr& message) {
  if (message.nlmsg_flags & NLM_F_DUMP_INTR) listAgain_ = true;
  switch (message.nlmsg_type) {
    case NLMSG_DONE:
      return listed();
    case NLMSG_ERROR:
      throw SourceError(std::string("rtnetlink does not list links: ") + std::strerror(errorOf(message)));
    case RTM_NEWLINK:
    case RTM_DELLINK:
      if (nlmsg_valid_hdr(&message, sizeof(ifinfomsg))) linkSeen(message);
  }
}

// A bridge announces its ports with messages of the same types.
void LinkSource::linkSeen(nlmsghdr& message) {
  const auto& info = *static_cast<const ifinfomsg*>(nlmsg_data(&message));
  if (info.ifi_family != AF_UNSPEC || (info.ifi_flags & IFF_LOOPBACK)) return;
  if (message.nlmsg_type == RTM_DELLINK) return linkGone(info.ifi_index);
  const RouteLink link = parsed(message);
  const char* name = link ? rtnl_link_get_name(link.get()) : nullptr;
  if (name && *name) seen(info.ifi_index, factName(name), rtnl_link_get_flags(link.get()));
}

void LinkSource::linkGone(int interface) {
  remove(interface);
  if (omitted_) list();
}

void LinkSource::seen(int interface, Zel::Name name, unsigned flags) {
  if (byInterface_.size() >= kMaxLinks && !byInterface_.contains(interface)) {
    omitted_ = true;
    return;
  }
  Link& link = byInterface_[interface];
  link.listing = listings_;
  nameIs(interface, link, name);
  link.fact.up = (flags & IFF_UP) != 0;
  carrierIs(interface, link, (flags & IFF_LOWER_UP) != 0);
  sink_.factIs(link.name, link.fact);
}

void LinkSource::nameIs(int interface, Link& link, Zel::Name name) {
  if (link.name == name) return;
  nameDel(interface, link);
  link.name = name;
  byName_[name] = interface;
}

// After lost notifications another link may have taken the name already.
void LinkSource::nameDel(int interface, const Link& link) {
  const auto found = byName_.find(link.name);
  if (found == byName_.end() || found->second != interface) return;
  byName_.erase(found);
  sink_.factDel(link.name);
}

void LinkSource::carrierIs(int interface, Link& link, bool carrier) {
  if (link.fact.carrier == carrier) return;
  const bool up = link.fact.up;
  link.fact = {};
  link.fact.up = up;
  link.fact.carrier = carrier;
  link.polledAt = 0;
  if (carrier) {
    ++carriers_;
    askSpeed(interface);
  } else {
    --carriers_;
  }
  poll_.wantedIs(*this, carriers_ > 0);
}

void LinkSource::remove(int interface) {
  const auto found = byInterface_.find(interface);
  if (found == byInterface_.end()) return;
  carrierIs(interface, found->second, false);
  nameDel(interface, found->second);
  byInterface_.erase(found);
}

void LinkSource::askSpeed(int interface) {
  if (!speeds_) return;
  for (const auto& [each, link] : byInterface_)
    if (link.fact.carrier && (interface == 0 || interface == each)) speeds_->ask(each);
}

void LinkSource::speedIs(int interface, const LinkSpeed& speed) {
  const auto found = byInterface_.find(interface);
  if (found == byInterface_.end() || !found->second.fact.carrier) return;
  Link& link = found->second;
  link.fact.speed = speed.megabits;
  link.fact.duplex = speed.duplex;
  sink_.factIs(link.name, link.fact);
}

// The answer to a request for statistics is there as soon as it was sent, or most of it.
void LinkSource::onPoll() {
  if (std::exchange(polling_, true)) return;
  polledAt_ = Zel::System::currentTime();
  runFor(sink_, [this] {
    statistics_.send(*statisticsRequest());
    readStatistics();
  });
}

void LinkSource::readStatistics() {
  for (int i = 0; i < NetlinkSocket::kDatagrams; ++i) {
    const auto received = statistics_.receive([this](nlmsghdr& message) {
      if (message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR) polling_ = false;
      if (message.nlmsg_type == RTM_NEWSTATS) statisticsSeen(message);
    });
    if (received == NetlinkSocket::Received::nothing) return;
  }
}

void LinkSource::statisticsSeen(nlmsghdr& message) {
  if (!nlmsg_valid_hdr(&message, sizeof(if_stats_msg))) return;
  const auto& info = *static_cast<const if_stats_msg*>(nlmsg_data(&message));
  const nlattr* found = nlmsg_find_attr(&message, sizeof(if_stats_msg), IFLA_STATS_LINK_64);
  const auto known = byInterface_.find(static_cast<int>(info.ifindex));
  if (!found || known == byInterface_.end() || !known->second.fact.carrier) return;
  rtnl_link_stats64 counters{};
  std::memcpy(&counters, nla_data(found),
              std::min(sizeof counters, static_cast<std::size_t>(nla_len(found))));
  Link& link = known->second;
  const double seconds = link.polledAt == 0 ? 0 : polledAt_ - link.polledAt;
  link.fact.received = rate(link.received, counters.rx_bytes, seconds);
  link.fact.sent = rate(link.sent, counters.tx_bytes, seconds);
  link.received = counters.rx_bytes;
  link.sent = counters.tx_bytes;
  link.polledAt = polledAt_;
  sink_.factIs(link.name, link.fact);
}

}  // namespace Facts
