// The bounded reviews of MrtNotifySm and MrtIcmpV6RelaySm over scripted
// sockets (FakeSys) and a fake clock: no sleeps, no kernel.
#include "MrtNotify/MrtNotifySm.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "FakeSys.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"
#include "MrtNotify/MrtIcmpV6RelaySm.h"

namespace Routing::Multicast::Notify {
namespace {

using Bytes = std::vector<std::uint8_t>;
using MrtNotifyTest::Datagram;
using MrtNotifyTest::FakeSys;

std::function<ssize_t(msghdr*)> datagram(Bytes const& payload) {
  Datagram d;
  d.payload = payload;
  return d.play();
}

// A report as the kernel sends it: from port id 0, with credentials for
// the relay groups (those of root).
std::function<ssize_t(msghdr*)> fromKernel(Bytes const& payload) {
  Datagram d;
  d.payload = payload;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  d.from(kernel);
  d.cmsg(SOL_SOCKET, SCM_CREDENTIALS, ucred{0, 0, 0});
  return d.play();
}

Bytes addrBytes(char const* text) {
  Wirly::IpGenAddr const a(text);
  return Bytes(a.bytes(), a.bytes() + a.byteLength());
}

template <class T>
void append(Bytes& b, T const& v) {
  auto const* p = reinterpret_cast<std::uint8_t const*>(&v);
  b.insert(b.end(), p, p + sizeof(T));
}

void attr(Bytes& b, std::uint16_t type, Bytes const& v) {
  append(b, std::uint16_t(4 + v.size()));
  append(b, type);
  b.insert(b.end(), v.begin(), v.end());
  b.resize((b.size() + 3) & ~std::size_t(3), 0);
}

// A no-cache cache report of one family for VIF/MIF 3.
Bytes noCacheReport(std::uint8_t family, char const* src, char const* grp) {
  Bytes b(20, 0);
  b[4] = 96;
  b[16] = family;
  attr(b, 1, Bytes{1});
  std::uint32_t const vif = 3;
  attr(b, 2, Bytes(reinterpret_cast<std::uint8_t const*>(&vif), reinterpret_cast<std::uint8_t const*>(&vif) + 4));
  attr(b, 3, addrBytes(src));
  attr(b, 4, addrBytes(grp));
  std::uint32_t const len = std::uint32_t(b.size());
  std::memcpy(b.data(), &len, 4);
  return b;
}

// The value of attribute `type` in a cache report, empty when absent.
Bytes attrValue(Bytes const& b, std::uint16_t type) {
  for (std::size_t at = 20; at + 4 <= b.size();) {
    std::uint16_t len, t;
    std::memcpy(&len, b.data() + at, 2);
    std::memcpy(&t, b.data() + at + 2, 2);
    if (len < 4 || at + len > b.size()) break;
    if (t == type) return Bytes(b.begin() + long(at) + 4, b.begin() + long(at) + len);
    at += (len + 3u) & ~3u;
  }
  return {};
}

class ReviewTest : public ::testing::Test {
 protected:
  void SetUp() override { status->vifIntfIs(3, Wirly::IntfId("Ethernet3")); }
  // Queues n reports; reading each one moves the clock by `cost` seconds.
  void burst(int n, double cost = 0) {
    for (int i = 0; i < n; ++i) {
      std::string const grp = "ff0e::" + std::to_string(i + 1);
      auto play = fromKernel(noCacheReport(129, "2001:db8::2", grp.c_str()));
      sys.rx.push_back([this, play, cost](msghdr* m) {
        clock.advance(cost);
        return play(m);
      });
    }
  }
  Kiv::Ptr<MrtNotifySm> initialized(Kiv::Ptr<MrtNotifyPamManager> const& m) {
    auto sm = mrtNotifySmFactory(m, status);
    sm->handleInitialized();
    return sm;
  }

  FakeSys sys;
  Kiv::FakeClock clock;
  Kiv::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::Status::statusIs("kernelMfib");
  Kiv::Ptr<MrtNotifyPamManager> v6 = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName());
};

TEST_F(ReviewTest, QuantumBoundsEachReviewAndTheRestWaitsInTheSocket) {
  auto sm = initialized(v6);
  burst(12, 0.1);
  Kiv::TraceCapture cap("Mroute::MrtPam");
  EXPECT_EQ(sm->rxPkt(), 5u) << "0.5 s at 0.1 s a datagram";
  EXPECT_EQ(sys.rx.size(), 7u);
  EXPECT_TRUE(cap.contains("Processed 5 messages in 0.5 seconds."));
  EXPECT_EQ(sm->rxPkt(), 5u);
  EXPECT_EQ(sm->rxPkt(), 2u);
  EXPECT_EQ(cap.count("RX: Error - No Packet"), 1u) << "only the review that emptied the socket";
  EXPECT_EQ(v6->noCacheCounter(), 12u);
  EXPECT_EQ(v6->noCacheMessage()->group(), Wirly::IpGenAddr("ff0e::12"));

  sm->loopQuantumIs(0);
  burst(3);
  cap.clear();
  EXPECT_EQ(sm->rxPkt(), 0u);
  EXPECT_EQ(sys.rx.size(), 3u);
  EXPECT_TRUE(cap.contains("Processed 0 messages in 0 seconds."));
  EXPECT_FALSE(cap.contains("RX: Error - No Packet"));
}

TEST_F(ReviewTest, AReadableNotificationOnAnEmptySocketEndsAtOnce) {
  auto sm = initialized(v6);
  Kiv::TraceCapture cap("Mroute::MrtPam/1");
  EXPECT_EQ(sm->rxPkt(), 0u);
  EXPECT_EQ(cap.texts(), std::vector<std::string>{"RX: Error - No Packet"});
}

TEST_F(ReviewTest, InitializingTwiceEnablesOnceBufferFirstThenLargePackets) {
  auto sm = mrtNotifySmFactory(v6, status);
  EXPECT_FALSE(v6->pam()->enabled());
  sm->handleInitialized();
  sm->handleInitialized();
  EXPECT_TRUE(sm->initialized());
  EXPECT_TRUE(v6->pam()->enabled());
  EXPECT_EQ(std::count(sys.calls.begin(), sys.calls.end(), "socket(16,2,0)"), 1);
  EXPECT_EQ(std::count(sys.calls.begin(), sys.calls.end(), "setsockopt(1,33)=1490"), 1)
      << "the receive buffer is sized before the packets grow";
  EXPECT_EQ(v6->pam()->maxRxPktData(), 65535u);
}

TEST_F(ReviewTest, ReadableSocketDrivesTheReviewAndAReplacedSocketIsFollowed) {
  auto v4 = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  auto sm = initialized(v4);
  sys.rx.push_back(fromKernel(noCacheReport(128, "10.0.1.2", "239.1.1.1")));
  v4->useNetlinkIs(true);  // an observer of the counters could do this mid-review
  auto const next = v4->pam();
  next->enabledIs(true);
  // The descriptor reactor's read announces the datagram; the review takes
  // it and everything behind it.
  sys.rx.push_back(fromKernel(noCacheReport(128, "10.0.1.2", "239.1.1.2")));
  next->doGetRxPkt();
  EXPECT_EQ(v4->noCacheCounter(), 2u);
  EXPECT_EQ(v4->noCacheMessage()->group(), Wirly::IpGenAddr("239.1.1.2"));
  EXPECT_EQ(v4->noCacheMessage()->intfId(), Wirly::IntfId("Ethernet3"));
}

// mrt6msg: type, MIF, source, group; then the data packet for whole-packet.
Bytes mrt6msg(std::uint8_t type, std::uint16_t mif, char const* src, char const* grp, Bytes const& data = {}) {
  Bytes b(40, 0);
  b[1] = type;
  std::memcpy(b.data() + 2, &mif, 2);
  auto s = addrBytes(src), g = addrBytes(grp);
  std::copy(s.begin(), s.end(), b.begin() + 8);
  std::copy(g.begin(), g.end(), b.begin() + 24);
  b.insert(b.end(), data.begin(), data.end());
  return b;
}

class RelayTest : public ReviewTest {
 protected:
  void SetUp() override {
    ReviewTest::SetUp();
    sys.env["MCAST_NO_NETLINK"] = "1";
  }
  void TearDown() override { ::close(agentSd); }
  int agentSd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  Kiv::Ptr<MrtIcmpV6RelaySm> relay = mrtIcmpV6RelaySmFactory("relay", Wirly::NamespaceName(), status);
};

TEST_F(RelayTest, UpcallsAreResentAsCacheReportsWithTheMifOfTheirInterface) {
  relay->mrtSkSdIs(agentSd);
  ASSERT_TRUE(relay->icmpV6Pam() && relay->icmpV6Pam()->enabled());
  ASSERT_TRUE(relay->netlinkPam() && relay->netlinkPam()->enableTx());
  Bytes inner(48, 0);
  inner[0] = 0x60;
  auto const src = addrBytes("2001:db8::7"), grp = addrBytes("ff0e::77");
  std::copy(src.begin(), src.end(), inner.begin() + 8);
  std::copy(grp.begin(), grp.end(), inner.begin() + 24);
  sys.rx.push_back(datagram(mrt6msg(1, 3, "2001:db8::2", "ff0e::1")));
  sys.rx.push_back(datagram(mrt6msg(2, 9, "2001:db8::2", "ff0e::2")));
  sys.rx.push_back(datagram(mrt6msg(3, 3, "2001:db8::7", "ff0e::77", inner)));
  sys.rx.push_back(datagram(mrt6msg(5, 3, "2001:db8::2", "ff0e::5")));
  std::size_t const before = sys.sent.size();
  relay->icmpV6Pam()->doGetRxPkt();
  ASSERT_EQ(sys.sent.size() - before, 3u) << "an unknown type is not relayed";

  // What the other agents' parser makes of them.
  auto rx = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName());
  auto pkt = [](Bytes const& b) {
    auto p = Wirly::PktManager::global().newPkt(b.size());
    p->headDataIs(b.data(), b.size());
    return p;
  };
  Bytes const& nc = sys.sent[before];
  EXPECT_EQ(attrValue(nc, 2), (Bytes{3, 0, 0, 0}));
  EXPECT_EQ(rx->readMrtMessage(pkt(nc), status), Wirly::MrtMessageType::igmpNoCache);
  EXPECT_EQ(rx->noCacheMessage()->intfId(), Wirly::IntfId("Ethernet3"));
  EXPECT_EQ(rx->noCacheMessage()->group(), Wirly::IpGenAddr("ff0e::1"));
  // A MIF without an interface goes out as MIF 0, not as an assertion.
  EXPECT_EQ(attrValue(sys.sent[before + 1], 2), (Bytes{0, 0, 0, 0}));
  EXPECT_EQ(relay->wrongIfMessage()->intfId(), Wirly::IntfId());
  Bytes const& whole = sys.sent[before + 2];
  EXPECT_EQ(attrValue(whole, 5), inner) << "the data packet without the mrt6msg";
  EXPECT_EQ(rx->readMrtMessage(pkt(whole), status), Wirly::MrtMessageType::igmpWholePkt);
  EXPECT_EQ(rx->wholePktMessage()->group(), Wirly::IpGenAddr("ff0e::77"));
}

TEST_F(RelayTest, ANewDescriptorRebuildsTheReaderAndTheAgentsSocketStaysOpen) {
  relay->mrtSkSdIs(agentSd);
  auto const first = relay->icmpV6Pam();
  relay->mrtSkSdIs(agentSd);
  ASSERT_TRUE(relay->icmpV6Pam());
  EXPECT_NE(relay->icmpV6Pam(), first);
  EXPECT_FALSE(first->enabled());
  EXPECT_TRUE(relay->icmpV6Pam()->enabled());
  relay->mrtSkSdIs(0);
  EXPECT_FALSE(relay->icmpV6Pam());
  EXPECT_FALSE(relay->netlinkPam()->enableTx());
  EXPECT_GE(::fcntl(agentSd, F_GETFL), 0) << "never closed by the relay";
  relay = nullptr;
  EXPECT_GE(::fcntl(agentSd, F_GETFL), 0);
}

TEST_F(RelayTest, WithNativeReportsTheRelayStaysIdle) {
  sys.env.clear();
  Kiv::TraceCapture cap("Mroute::MrtNotifySocket");
  relay->mrtSkSdIs(agentSd);
  EXPECT_EQ(cap.count("Environment supports native netlink notifications. Ignoring"), 2u);
  EXPECT_FALSE(relay->icmpV6Pam()->enabled());
  EXPECT_FALSE(relay->netlinkPam()->enableTx());
  sys.rx.push_back(datagram(mrt6msg(1, 3, "2001:db8::2", "ff0e::1")));
  relay->rxPkt();
  EXPECT_TRUE(sys.sent.empty());
}

}  // namespace
}  // namespace Routing::Multicast::Notify
