#include "facts/ethtool.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>

namespace Facts {

namespace {

NetlinkMessage request(int family, int interface) {
  auto message = owned(nlmsg_alloc());
  genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_REQUEST, ETHTOOL_MSG_LINKMODES_GET,
              ETHTOOL_GENL_VERSION);
  nlattr* header = nla_nest_start(message.get(), ETHTOOL_A_LINKMODES_HEADER);
  nla_put_u32(message.get(), ETHTOOL_A_HEADER_DEV_INDEX, static_cast<std::uint32_t>(interface));
  nla_put_u32(message.get(), ETHTOOL_A_HEADER_FLAGS, ETHTOOL_FLAG_COMPACT_BITSETS);
  nla_nest_end(message.get(), header);
  return message;
}

nlattr* find(nlmsghdr& message, int attribute) {
  const auto* header = static_cast<const genlmsghdr*>(nlmsg_data(&message));
  return nla_find(genlmsg_attrdata(header, 0), genlmsg_attrlen(header, 0), attribute);
}

LinkSpeed speedIn(nlmsghdr& message) {
  LinkSpeed speed;
  if (const nlattr* found = find(message, ETHTOOL_A_LINKMODES_SPEED))
    if (const std::uint32_t value = nla_get_u32(found); value != std::uint32_t(SPEED_UNKNOWN))
      speed.megabits = value;
  if (const nlattr* found = find(message, ETHTOOL_A_LINKMODES_DUPLEX))
    if (const std::uint8_t value = nla_get_u8(found); value != DUPLEX_UNKNOWN)
      speed.duplex = value == DUPLEX_FULL ? "full" : "half";
  return speed;
}

// The interface that a notification is about; 0 where it is of another kind.
int interfaceIn(nlmsghdr& message, int family) {
  if (message.nlmsg_type != family || !genlmsg_valid_hdr(&message, 0)) return 0;
  if (static_cast<const genlmsghdr*>(nlmsg_data(&message))->cmd != ETHTOOL_MSG_LINKMODES_NTF) return 0;
  nlattr* header = find(message, ETHTOOL_A_LINKMODES_HEADER);
  const nlattr* index =
      header ? nla_find(static_cast<nlattr*>(nla_data(header)), nla_len(header), ETHTOOL_A_HEADER_DEV_INDEX)
             : nullptr;
  return index ? static_cast<int>(nla_get_u32(index)) : 0;
}

}  // namespace

Ethtool::Ethtool()
    : socket_(NETLINK_GENERIC),
      family_(genl_ctrl_resolve(socket_.get(), ETHTOOL_GENL_NAME)),
      group_(genl_ctrl_resolve_grp(socket_.get(), ETHTOOL_GENL_NAME, ETHTOOL_MCGRP_MONITOR_NAME)) {
  if (family_ < 0 || group_ < 0)
    throw SourceError("speed and duplex are not known: the kernel has no netlink family 'ethtool'");
}

LinkSpeed Ethtool::speed(int interface) {
  const auto message = request(family_, interface);
  const std::uint32_t sequence = socket_.send(*message);
  LinkSpeed speed;
  bool answered = false;
  while (!answered) {
    const auto received = socket_.receive([&](nlmsghdr& answer) {
      if (answer.nlmsg_seq != sequence) return;
      answered = true;
      if (answer.nlmsg_type == family_ && genlmsg_valid_hdr(&answer, 0)) speed = speedIn(answer);
    });
    if (received != NetlinkSocket::Received::messages) break;
  }
  return speed;
}

SpeedLookup::SpeedLookup(Handler found, std::function<void(int)> changed)
    : found_(std::move(found)),
      changed_(std::move(changed)),
      notifications_(NETLINK_GENERIC),
      watch_(notifications_.fd(), Zel::FdWatch::kReadable, [this](unsigned) { read(); }) {
  notifications_.nonBlockingIs();
  notifications_.join(ethtool_.group());
}

void SpeedLookup::ask(int interface) {
  wanted_.insert(interface);
  if (!busy_) start();
}

void SpeedLookup::start() {
  busy_ = true;
  worker_.run([this, sender = inbox_.sender(), interfaces = std::exchange(wanted_, {})] {
    Speeds speeds;
    for (const int interface : interfaces) {
      try {
        speeds.emplace_back(interface, ethtool_.speed(interface));
      } catch (const SourceError&) {
        speeds.emplace_back(interface, LinkSpeed());
      }
    }
    sender.post([this, speeds] { finish(speeds); });
  });
}

void SpeedLookup::finish(const Speeds& speeds) {
  busy_ = false;
  if (!wanted_.empty()) start();
  for (const auto& [interface, speed] : speeds) found_(interface, speed);
}

// Without notifications, speeds are looked up when a link gets its carrier alone.
void SpeedLookup::read() {
  try {
    readNotifications();
  } catch (const SourceError&) {
    watch_.eventsIs(0);
  }
}

void SpeedLookup::readNotifications() {
  for (int i = 0; i < NetlinkSocket::kDatagrams; ++i) {
    const auto received = notifications_.receive([this](nlmsghdr& message) {
      if (const int interface = interfaceIn(message, ethtool_.family())) changed_(interface);
    });
    if (received == NetlinkSocket::Received::nothing) return;
    if (received == NetlinkSocket::Received::lost) changed_(0);
  }
}

}  // namespace Facts
