// Links of a network namespace of the test's own.
#include <gmock/gmock.h>
#include <linux/if.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/link/bridge.h>
#include <netlink/route/link/veth.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cmath>

#include "facts/linksource.h"
#include "running.h"

namespace {

using Facts::LinkFact;
using Facts::LinkSource;

constexpr int kSmallest = 2048;  // of receive buffers

// As root or in a user namespace.
bool enterNamespace() { return ::unshare(CLONE_NEWNET) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0; }

// The administrator of the links.
class Links {
 public:
  Links() : socket_(NETLINK_ROUTE) {}
  void pair(const std::string& one, const std::string& other) {
    done(rtnl_link_veth_add(socket_.get(), one.c_str(), other.c_str(), ::getpid()));
  }
  void bridge(const std::string& name) { done(rtnl_link_bridge_add(socket_.get(), name.c_str())); }
  void upIs(const std::string& name, bool up) {
    change(name, [&](rtnl_link* link) { (up ? rtnl_link_set_flags : rtnl_link_unset_flags)(link, IFF_UP); });
  }
  void nameIs(const std::string& name, const std::string& to) {
    change(name, [&](rtnl_link* link) { rtnl_link_set_name(link, to.c_str()); });
  }
  void masterIs(const std::string& name, const std::string& master) {
    const int index = master.empty() ? 0 : interface(master);
    change(name, [&](rtnl_link* link) { rtnl_link_set_master(link, index); });
  }
  void del(const std::string& name) { done(rtnl_link_delete(socket_.get(), link(name).get())); }
  int interface(const std::string& name) { return rtnl_link_get_ifindex(link(name).get()); }

 private:
  struct Put {
    void operator()(rtnl_link* link) const { rtnl_link_put(link); }
  };
  using Link = std::unique_ptr<rtnl_link, Put>;

  static void done(int result) { ASSERT_EQ(result, 0) << nl_geterror(result); }
  Link link(const std::string& name) {
    rtnl_link* found = nullptr;
    done(rtnl_link_get_kernel(socket_.get(), 0, name.c_str(), &found));
    return Link(found);
  }
  template <class Change>
  void change(const std::string& name, Change&& make) {
    const Link old = link(name), wanted(rtnl_link_alloc());
    make(wanted.get());
    done(rtnl_link_change(socket_.get(), old.get(), wanted.get(), 0));
  }

  Facts::NetlinkSocket socket_;
};

class LinkSources : public testing::Test, protected Running {
 protected:
  void SetUp() override {
    if (!enterNamespace()) GTEST_SKIP() << "there may be no network namespace here";
    links = std::make_unique<Links>();
  }
  void start(int receiveBuffer = LinkSource::kReceiveBuffer) {
    source.emplace(sink, poll, receiveBuffer);
    ASSERT_TRUE(until([&] { return sink.completions > 0; }));
  }
  bool has(const std::string& name, bool up, bool carrier) const {
    const auto found = sink.facts.find(name);
    return found != sink.facts.end() && found->second.up == up && found->second.carrier == carrier;
  }

  Recorder<LinkFact> sink;
  std::unique_ptr<Links> links;
  std::optional<LinkSource> source;
};

TEST_F(LinkSources, EveryChangeOfALinkIsFollowed) {
  links->pair("v0", "v1");
  start();
  EXPECT_THAT(sink.facts,
              testing::ElementsAre(testing::Pair("v0", LinkFact()), testing::Pair("v1", LinkFact())))
      << "the loopback interface is left out";
  EXPECT_EQ(sink.error, "");
  EXPECT_TRUE(std::isinf(activity.nextWakeUp())) << "nothing to poll";

  links->upIs("v0", true);
  EXPECT_TRUE(until([&] { return has("v0", true, false); }));
  links->upIs("v1", true);
  EXPECT_TRUE(until([&] { return has("v0", true, true) && sink.facts["v0"].speed == 10000; }));
  EXPECT_EQ(sink.facts["v0"].duplex, "full");
  EXPECT_FALSE(std::isinf(activity.nextWakeUp()));

  links->upIs("v1", false);
  LinkFact alone;
  alone.up = true;
  EXPECT_TRUE(until([&] { return sink.facts["v0"] == alone; })) << "without carrier it has no speed";
  EXPECT_TRUE(until([&] { return std::isinf(activity.nextWakeUp()); }));

  links->nameIs("v1", "odd\xff\x01");
  EXPECT_TRUE(until([&] { return sink.facts.contains("odd\\xff\\x01") && !sink.facts.contains("v1"); }));
  links->del("v0");
  EXPECT_TRUE(until([&] { return sink.facts.empty(); }));
  EXPECT_EQ(source->listings(), 1U);
}

TEST_F(LinkSources, APortThatLeavesItsBridgeStays) {
  links->pair("v0", "v1");
  links->bridge("br0");
  start();
  links->masterIs("v0", "br0");
  links->masterIs("v0", "");
  links->upIs("v0", true);
  EXPECT_TRUE(until([&] { return has("v0", true, false); }));
  EXPECT_TRUE(sink.facts.size() == 3 && sink.removals == 0);
}

TEST_F(LinkSources, LostNotificationsAreMadeUpFor) {
  links->pair("v0", "v1");
  links->pair("gone0", "gone1");
  start(kSmallest);
  links->nameIs("v0", "spare");
  links->nameIs("v1", "v0");
  links->nameIs("spare", "v1");
  links->upIs("v0", true);
  links->del("gone0");
  for (int i = 0; i < 499; ++i) links->pair("a" + std::to_string(i), "b" + std::to_string(i));
  EXPECT_TRUE(until([&] { return sink.facts.size() == 1000 && has("v0", true, false); }));
  EXPECT_TRUE(has("v1", false, false) && has("b498", false, false) && !has("gone0", false, false));
  EXPECT_GT(source->listings(), 1U) << "the buffer was full";
}

TEST_F(LinkSources, TrafficIsThatOfTheLastPoll) {
  links->pair("v0", "v1");
  links->upIs("v0", true);
  links->upIs("v1", true);
  start();
  const int sender = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = links->interface("v0");
  to.sll_halen = 6;
  std::array<unsigned char, 1000> frame{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 1, 0x88, 0xb5};
  const auto flows = [&] {
    EXPECT_EQ(::sendto(sender, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
              1000);
    return sink.facts["v0"].sent > 1000 && sink.facts["v1"].received > 1000;
  };
  EXPECT_TRUE(until(flows));
  EXPECT_TRUE(until([&] { return sink.facts["v0"].sent == 0 && sink.facts["v1"].received == 0; }))
      << "it has ended";
  ::close(sender);
}

TEST(Facts, NamesArePrintableAndLimited) {
  EXPECT_EQ(Facts::factName("Ethernet3/1").view(), "Ethernet3/1");
  EXPECT_EQ(Facts::factName("a b\n\xc3\xa4\x7f").view(), "a\\x20b\\x0a\\xc3\\xa4\\x7f");
  EXPECT_EQ(Facts::factName(std::string(300, 'x')).view(), std::string(255, 'x'));
  EXPECT_EQ(Facts::factName(std::string(253, 'x') + "\n").view(), std::string(253, 'x'))
      << "no half of an escape";
}

}  // namespace
