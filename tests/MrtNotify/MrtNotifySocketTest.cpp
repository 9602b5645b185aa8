#include "MrtNotify/MrtNotifySocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "FakeSys.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"

namespace Routing::Multicast::Notify {
namespace {

using MrtNotifyTest::Datagram;
using MrtNotifyTest::FakeSys;
using MrtNotifyTest::rxError;
using Strings = std::vector<std::string>;

class MrtNotifySocketTest : public ::testing::Test {
 protected:
  FakeSys sys;
  Kiv::Ptr<MrtNotifySocketPam> pam = mrtNotifySocketPamFactory("MrtNotify");
};

TEST_F(MrtNotifySocketTest, Ipv4EnableSubscribesEachKindInOrder) {
  pam->optionsIs(wholepkt | nocache | wrongvif);
  EXPECT_TRUE(sys.calls.empty()) << "options of a disabled socket are only stored";
  pam->enabledIs(true);
  EXPECT_EQ(sys.calls, (Strings{"socket(2,3,255)", "setsockopt(0,211)=1", "setsockopt(0,213)=2", "setsockopt(0,213)=1",
                                "setsockopt(0,213)=3"}));
  EXPECT_TRUE(pam->enabled());
  ASSERT_TRUE(pam->fileDesc());
  EXPECT_EQ(pam->fileDesc()->fd(), pam->sd());
  EXPECT_TRUE(::fcntl(pam->sd(), F_GETFL) & O_NONBLOCK);
  EXPECT_THROW(pam->fileDescNew(pam->sd()), Kiv::NameInUseException);

  pam->enabledIs(false);
  EXPECT_EQ(sys.calls.back(), "close");
  EXPECT_FALSE(pam->enabled());
  EXPECT_EQ(pam->sd(), -1);
  EXPECT_FALSE(pam->fileDesc());
  EXPECT_TRUE(sys.openSockets().empty());
}

TEST_F(MrtNotifySocketTest, Ipv4EnableWithoutOptionsSendsOnlyInit) {
  pam->enabledIs(true);
  EXPECT_EQ(sys.calls, (Strings{"socket(2,3,255)", "setsockopt(0,211)=1"}));
  pam->enabledIs(true);
  EXPECT_EQ(sys.calls.size(), 2u) << "enabling an enabled socket does nothing";
}

TEST_F(MrtNotifySocketTest, Ipv4SetupFailureClosesTheSocketAndRaisesTheCall) {
  struct Case {
    std::string failing;
    std::string call;
  };
  Case const cases[] = {
      {"socket(2,3,255)", "socket"},
      {"setsockopt(0,211)", "setsocketopt(MRT_NOTIFY_INIT)"},
      {"setsockopt(0,213)=2", "setsocketopt(MRT_NOTIFY_ADD), WRONGVIF"},
      {"setsockopt(0,213)=1", "setsocketopt(MRT_NOTIFY_ADD), NOCACHE"},
      {"setsockopt(0,213)=3", "setsocketopt(MRT_NOTIFY_ADD), WHOLEPKT"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.failing);
    FakeSys local;
    auto p = mrtNotifySocketPamFactory("MrtNotify");
    p->optionsIs(7);
    local.fail[c.failing] = EOPNOTSUPP;
    try {
      p->enabledIs(true);
      ADD_FAILURE() << "no exception";
    } catch (Kiv::ErrnoException const& e) {
      EXPECT_EQ(e.call(), c.call);
      EXPECT_EQ(e.error(), EOPNOTSUPP);
    }
    EXPECT_TRUE(local.openSockets().empty());
    EXPECT_FALSE(p->enabled());
    EXPECT_EQ(p->sd(), -1);
    EXPECT_FALSE(p->fileDesc());
    // Nothing is left half-open: the next attempt starts from scratch.
    local.fail.clear();
    p->enabledIs(true);
    EXPECT_TRUE(p->enabled());
  }
}

TEST_F(MrtNotifySocketTest, OptionChangeRemovesThenAddsOnlyTheChangedKinds) {
  pam->optionsIs(wrongvif | nocache);
  pam->enabledIs(true);
  std::size_t const before = sys.calls.size();
  pam->optionsIs(nocache | wholepkt);
  EXPECT_EQ(sys.callsAfter(before), (Strings{"setsockopt(0,214)=2", "setsockopt(0,213)=3"}));
  EXPECT_EQ(pam->options(), nocache | wholepkt);

  std::size_t const again = sys.calls.size();
  pam->optionsIs(nocache | wholepkt);
  EXPECT_EQ(sys.calls.size(), again);
}

TEST_F(MrtNotifySocketTest, RefusedOptionChangeRaisesAndKeepsTheOldOptions) {
  pam->optionsIs(wrongvif);
  pam->enabledIs(true);
  struct Case {
    std::uint32_t to;
    std::string failing;
    std::string call;
  };
  Case const cases[] = {{0, "setsockopt(0,214)=2", "setsockopt(IGMP_WRONGVIF)"},
                        {wrongvif | nocache, "setsockopt(0,213)=1", "setsockopt(IGMP_NOCACHE)"},
                        {wrongvif | wholepkt, "setsockopt(0,213)=3", "setsockopt(IGMP_WHOLEPKT)"}};
  for (auto const& c : cases) {
    sys.fail = {{c.failing, EPERM}};
    try {
      pam->optionsIs(c.to);
      ADD_FAILURE() << "no exception for " << c.failing;
    } catch (Kiv::ErrnoException const& e) {
      EXPECT_EQ(e.call(), c.call);
    }
    EXPECT_EQ(pam->options(), std::uint32_t(wrongvif));
    EXPECT_TRUE(pam->enabled()) << "a refused change leaves the socket open";
  }
}

TEST_F(MrtNotifySocketTest, Ipv6WithoutTheRelayVariableStaysDisabled) {
  Kiv::TraceCapture cap("Mroute::MrtNotifySocket/3");
  pam->afIs(Wirly::ipv6);
  pam->sdIs(42);
  pam->enabledIs(true);
  EXPECT_FALSE(pam->enabled());
  EXPECT_EQ(pam->sd(), -1);
  EXPECT_TRUE(sys.calls.empty());
  EXPECT_EQ(cap.count("Environment supports native netlink notifications. Ignoring"), 1u);
}

TEST_F(MrtNotifySocketTest, Ipv6WrapsTheAgentsDescriptorAndNeverClosesIt) {
  sys.env["MCAST_NO_NETLINK"] = "1";
  int const user = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  {
    auto p = mrtNotifySocketPamFactory("MrtIcmpV6");
    p->afIs(Wirly::ipv6);
    p->sdIs(user);
    p->optionsIs(7);
    p->enabledIs(true);
    EXPECT_TRUE(p->enabled());
    EXPECT_TRUE(sys.calls.empty()) << "no options are set on the agent's socket";
    p->enabledIs(false);
    EXPECT_EQ(p->sd(), user);
    p->enabledIs(true);
    EXPECT_TRUE(p->enabled());
  }
  // Destroyed while enabled: still open.
  EXPECT_GE(::fcntl(user, F_GETFL), 0);
  ::close(user);
}

TEST(MrtNotifySocketDeathTest, Ipv6WithoutADescriptorIsAnAssertion) {
  FakeSys sys;
  sys.env["MCAST_NO_NETLINK"] = "1";
  auto p = mrtNotifySocketPamFactory("MrtIcmpV6");
  p->afIs(Wirly::ipv6);
  EXPECT_DEATH(p->enabledIs(true), "Assertion failed: sd_ && \"MrtNotifyPam for IPV6 currently \" \"supports");
}

TEST_F(MrtNotifySocketTest, NamespaceChangeReopensAnEnabledSocketThere) {
  pam->enabledIs(true);
  std::size_t const before = sys.calls.size();
  // A namespace that does not exist: the old socket is gone and the new
  // one cannot be opened.
  try {
    pam->netNsIs(Wirly::NamespaceName("mrtnotify-test-no-such-ns"));
    ADD_FAILURE() << "no exception";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.call(), "socket");
    EXPECT_EQ(e.error(), ENOENT);
  }
  EXPECT_EQ(sys.callsAfter(before), Strings{"close"});
  EXPECT_FALSE(pam->enabled());

  // Disabled: only the name changes.
  pam->netNsIs(Wirly::NamespaceName());
  EXPECT_EQ(sys.callsAfter(before), Strings{"close"});
  EXPECT_TRUE(pam->netNs().isDefault());
}

// Ancillary data and addresses of received datagrams.
class MrtNotifySocketRxTest : public MrtNotifySocketTest {
 protected:
  void enable(Wirly::AddressFamily af) {
    if (af == Wirly::ipv6) {
      sys.env["MCAST_NO_NETLINK"] = "1";
      userSd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
      pam->sdIs(userSd);
    }
    pam->afIs(af);
    pam->enabledIs(true);
  }
  ~MrtNotifySocketRxTest() override {
    pam = nullptr;
    if (userSd >= 0) ::close(userSd);
  }
  int userSd = -1;
};

TEST_F(MrtNotifySocketRxTest, Ipv4ControlMessagesFillTheReceiveAttributes) {
  enable(Wirly::ipv4);
  sockaddr_in src{};
  src.sin_family = AF_INET;
  ::inet_pton(AF_INET, "10.0.1.2", &src.sin_addr);
  in_pktinfo info{};
  info.ipi_ifindex = 7;
  ::inet_pton(AF_INET, "239.1.1.1", &info.ipi_addr);
  sockaddr_in orig{};
  orig.sin_family = AF_INET;
  ::inet_pton(AF_INET, "239.9.9.9", &orig.sin_addr);
  std::uint8_t const tos = 0xb8;
  int const ttl = 63;
  Datagram d;
  d.payload.assign(28, 0x11);
  d.from(src)
      .cmsg(IPPROTO_IP, IP_PKTINFO, info)
      .cmsg(IPPROTO_IP, IP_ORIGDSTADDR, orig)
      .cmsg(IPPROTO_IP, IP_TOS, tos)
      .cmsg(IPPROTO_IP, IP_TTL, ttl);
  sys.rx.push_back(d.play());

  auto pkt = pam->rxPkt();
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->len(), 28u);
  EXPECT_EQ(pam->rxSrcIpAddr(), Wirly::IpGenAddr("10.0.1.2"));
  EXPECT_EQ(pam->rxIfIndex(), 7u);
  EXPECT_EQ(pam->rxDstIpAddr(), Wirly::IpGenAddr("239.1.1.1"));
  EXPECT_EQ(pam->rxOrigDstIpAddr(), Wirly::IpGenAddr("239.9.9.9"));
  EXPECT_EQ(pam->rxTOS(), 0xb8);
  EXPECT_EQ(pam->rxTTL(), 63);
  EXPECT_EQ(pam->rxPktCount(), 1u);
  EXPECT_EQ(pam->rxMrt6msgCount(), 0u);
}

TEST_F(MrtNotifySocketRxTest, ShortControlMessagesAreNotRead) {
  enable(Wirly::ipv4);
  Kiv::TraceCapture cap("Mroute::MrtNotifySocket/9");
  in_pktinfo info{};
  info.ipi_ifindex = 7;
  Datagram d;
  d.payload.assign(28, 0);
  // A packet-information message cut to 4 bytes.
  d.cmsg(IPPROTO_IP, IP_PKTINFO, info, 4);
  sys.rx.push_back(d.play());
  ASSERT_TRUE(pam->rxPkt());
  EXPECT_EQ(pam->rxIfIndex(), 0u);
  EXPECT_EQ(cap.count("recvmsg failed to retrieve ifindex"), 1u);
}

TEST_F(MrtNotifySocketRxTest, Ipv6KeepsOnlyUpcallsAndDecodesItsControlMessages) {
  enable(Wirly::ipv6);
  in6_pktinfo info{};
  info.ipi6_ifindex = 9;
  ::inet_pton(AF_INET6, "ff0e::1", &info.ipi6_addr);
  int const tclass = 0x20;
  int const hops = 5;
  sockaddr_in6 src{};
  src.sin6_family = AF_INET6;
  ::inet_pton(AF_INET6, "2001:db8::2", &src.sin6_addr);
  Datagram upcall;
  upcall.payload.assign(80, 0);
  upcall.payload[1] = 1;
  upcall.from(src)
      .cmsg(IPPROTO_IPV6, IPV6_PKTINFO, info)
      .cmsg(IPPROTO_IPV6, IPV6_TCLASS, tclass)
      .cmsg(IPPROTO_IPV6, IPV6_HOPLIMIT, hops);
  Datagram icmp = upcall;
  icmp.payload[0] = 135;  // a neighbour solicitation, not an upcall
  sys.rx.push_back(icmp.play());
  sys.rx.push_back(upcall.play());

  EXPECT_FALSE(pam->rxPkt()) << "the ICMPv6 message is read and dropped";
  auto pkt = pam->rxPkt();
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->data()[0], 0);
  EXPECT_EQ(pkt->len(), 80u);
  EXPECT_EQ(pam->rxPktCount(), 2u);
  EXPECT_EQ(pam->rxMrt6msgCount(), 1u);
  EXPECT_EQ(pam->rxIfIndex(), 9u);
  EXPECT_EQ(pam->rxDstIpAddr(), Wirly::IpGenAddr("ff0e::1"));
  EXPECT_EQ(pam->rxSrcIpAddr(), Wirly::IpGenAddr("2001:db8::2"));
  EXPECT_EQ(pam->rxTOS(), 0x20);
  EXPECT_EQ(pam->rxTTL(), 5);
}

TEST_F(MrtNotifySocketRxTest, FailedEmptyAndTruncatedReadsQueueNothing) {
  enable(Wirly::ipv4);
  Kiv::TraceCapture cap("Mroute::MrtNotifySocket/0-9");
  sys.rx.push_back(rxError(EAGAIN));
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_FALSE(cap.contains("recvmsg failed"));
  sys.rx.push_back(rxError(ENOMEM));
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(cap.count("recvmsg failed with 12"), 1u);
  sys.rx.push_back(Datagram{}.play());
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(cap.count("Discarding empty packet"), 1u);
  Datagram big;
  big.payload.assign(MrtNotifySocketPam::defaultMaxRxPktData + 1, 0x45);
  sys.rx.push_back(big.play());
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(cap.count("Discarding truncated packet"), 1u);
  EXPECT_EQ(pam->rxPktCount(), 2u);
  EXPECT_TRUE(pam->enabled());
}

}  // namespace
}  // namespace Routing::Multicast::Notify
