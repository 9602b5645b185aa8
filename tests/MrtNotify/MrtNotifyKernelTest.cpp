// The upcall sockets against the real kernel. Each test builds its own
// network namespaces (names carry the pid, so parallel runs do not meet):
//
//   P (sender) vb ==== va R (router)
//              vd ==== vc              (vc only gives R a second interface)
//
// In R the test plays the routing agent: it opens the multicast routing
// socket, adds interfaces (0 va, 1 vc, 2 register) and forwarding entries,
// and P sends multicast into va:
//   group 1: no entry                     -> no-cache report
//   group 2: entry expecting vc (1)       -> wrong-interface report
//   group 3: entry forwarding to register -> whole-packet report
// The library's sockets in R must see exactly the kinds their options ask
// for. Needs root; without it every test skips with the reason.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>
// The kernel's multicast routing headers after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "KernelTopology.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "MrtNotify/MrtNotifyNetlinkSocket.h"
#include "Wirly/NamespaceSocket.h"
#include "Wirly/Sys.h"

namespace Routing::Multicast::Notify {
namespace {

using namespace MrtNotifyKernel;

// What a test needs of a received cache report, read with every length
// checked.
struct Report {
  int family = -1;
  int type = -1;
  Wirly::IpGenAddr group;
  bool operator==(Report const&) const = default;
};

Report decode(Wirly::Pkt const& p) {
  Report r;
  std::uint8_t const* b = p.data();
  std::size_t const n = p.len();
  if (n < 20) return r;
  std::uint32_t len;
  std::memcpy(&len, b, 4);
  if (len > n) return r;
  r.family = b[16];
  for (std::size_t at = 20; at + 4 <= len;) {
    std::uint16_t alen, atype;
    std::memcpy(&alen, b + at, 2);
    std::memcpy(&atype, b + at + 2, 2);
    if (alen < 4 || at + alen > len) break;
    if (atype == 1 && alen >= 5) r.type = b[at + 4];
    if (atype == 4 && alen == 8) r.group = Wirly::IpGenAddr(*reinterpret_cast<in_addr const*>(b + at + 4));
    if (atype == 4 && alen == 20) r.group = Wirly::IpGenAddr(*reinterpret_cast<in6_addr const*>(b + at + 4));
    at += (alen + 3u) & ~3u;
  }
  return r;
}

// Drains a socket whenever the loop finds it readable.
class Collector : public Wirly::Pam::NotifieeConst {
 public:
  explicit Collector(Kiv::Ptr<MrtNotifyNetlinkSocketPam> const& pam) : NotifieeConst(pam), pam_(pam) {}
  void onReadableCount() override {
    while (auto p = pam_->rxPkt()) reports.push_back(decode(*p));
  }
  std::vector<Report> reports;

 private:
  Kiv::Ptr<MrtNotifyNetlinkSocketPam> pam_;
};

Kiv::Ptr<MrtNotifyNetlinkSocketPam> receiver(Wirly::AddressFamily af, Wirly::NamespaceName const& ns,
                                             std::uint32_t options, bool ipv4Native = false) {
  auto p = mrtNotifyNetlinkSocketPamFactory("MrtNotify", ns);
  p->afIs(af);
  p->ipv4NativeReportsIs(ipv4Native);
  p->optionsIs(options);
  p->enabledIs(true);
  return p;
}

struct Family {
  Wirly::AddressFamily af;
  char const* src;
  char const* groups[3];  // no cache, wrong interface, whole packet
  int rtnlFamily;
};
void PrintTo(Family const& f, std::ostream* os) { *os << f.af; }

Family const ipv4Family{Wirly::ipv4, "10.0.1.2", {"239.1.1.1", "239.1.1.2", "239.1.1.3"}, 128};
Family const ipv6Family{Wirly::ipv6, "2001:db8:1::2", {"ff0e::1:1", "ff0e::1:2", "ff0e::1:3"}, 129};

class KernelReportTest : public ::testing::TestWithParam<Family> {};

// The kernel's own reports, read natively (IPv6 always, IPv4 on opt-in),
// pass the filter for exactly the kinds each socket asks for.
TEST_P(KernelReportTest, KernelReportsReachOnlyTheKindsAsked) {
  TOPOLOGY(t);
  Family const f = GetParam();
  RelayEnvironment env(false);
  if (f.af == Wirly::ipv4) {
    ASSERT_TRUE(MrtNotifyNetlinkSocketPam::kernelPublishesIpv4Reports(t.router()))
        << "this kernel has no native IPv4 report group";
  }
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  bool const native4 = f.af == Wirly::ipv4;
  auto noCache = receiver(f.af, t.router(), nocache, native4);
  auto wrongVif = receiver(f.af, t.router(), wrongvif, native4);
  auto whole = receiver(f.af, t.router(), wholepkt, native4);
  auto all = receiver(f.af, t.router(), nocache | wrongvif | wholepkt, native4);
  auto none = receiver(f.af, t.router(), 0, native4);
  EXPECT_TRUE(all->isRtnlIpv6MrouteRSupported());
  Collector cNoCache(noCache), cWrongVif(wrongVif), cWhole(whole), cAll(all), cNone(none);

  Router router(f.af, t.router(), f.src, f.groups[1], f.groups[2]);
  ASSERT_TRUE(router.ok()) << "cannot set up the multicast routing socket: " << ::strerror(errno);
  for (auto const* g : f.groups) {
    // A fresh link may take a moment before IPv6 routes through it.
    bool sent = false;
    for (int i = 0; i < 40 && !(sent = sendMulticast(t.sender(), g)) && errno == ENETUNREACH; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(sent) << g << ": " << ::strerror(errno);
  }

  auto const seen = [&](int type) {
    for (auto const& r : cAll.reports)
      if (r.type == type) return true;
    return false;
  };
  loop.runUntil([&] { return seen(1) && seen(2) && seen(3); }, 5.0);
  loop.runUntil([] { return false; }, 0.2);  // anything that should not come

  auto const expectOnly = [&](Collector const& c, int type, char const* group, char const* what) {
    SCOPED_TRACE(what);
    ASSERT_FALSE(c.reports.empty());
    for (auto const& r : c.reports) EXPECT_EQ(r, (Report{f.rtnlFamily, type, Wirly::IpGenAddr(group)}));
  };
  expectOnly(cNoCache, 1, f.groups[0], "nocache");
  expectOnly(cWrongVif, 2, f.groups[1], "wrongvif");
  expectOnly(cWhole, 3, f.groups[2], "wholepkt");
  EXPECT_TRUE(seen(1) && seen(2) && seen(3));
  EXPECT_TRUE(cNone.reports.empty());
  EXPECT_EQ(all->rxErrors(), 0u);
  EXPECT_EQ(all->rxSenderPortId(), 0u) << "the kernel sends from port id 0";
}

INSTANTIATE_TEST_SUITE_P(Families, KernelReportTest, ::testing::Values(ipv4Family, ipv6Family),
                         [](auto const& info) { return std::string(info.param.af == Wirly::ipv4 ? "Ipv4" : "Ipv6"); });

class TestMessage : public Wirly::MrtMessage {
 public:
  TestMessage(Wirly::MrtMessageType t, char const* src, char const* grp) : Wirly::MrtMessage("test", t) {
    sourceIs(Wirly::IpGenAddr(src));
    groupIs(Wirly::IpGenAddr(grp));
  }
};

class RelayTest : public ::testing::TestWithParam<Family> {};

// The relay path on user-socket groups: one sender, several receivers.
TEST_P(RelayTest, RelayedReportsReachEveryReceiverThroughItsFilter) {
  TOPOLOGY(t);
  Family const f = GetParam();
  RelayEnvironment env(true);
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto a = receiver(f.af, t.router(), nocache | wrongvif | wholepkt);
  auto b = receiver(f.af, t.router(), nocache);
  auto other = receiver(f.af == Wirly::ipv4 ? Wirly::ipv6 : Wirly::ipv4, t.router(), 7);
  EXPECT_FALSE(a->isRtnlIpv6MrouteRSupported());
  Collector ca(a), cb(b), cOther(other);

  auto relay = mrtNotifyNetlinkSocketPamFactory("MrtIcmpV6Relay", t.router());
  relay->afIs(f.af);
  relay->enableTxIs(true);
  ASSERT_NE(relay->txPortId(), 0u);
  auto impostor = mrtNotifyNetlinkSocketPamFactory("Impostor", t.router());
  impostor->afIs(f.af);
  impostor->enableTxIs(true);
  auto strict = receiver(f.af, t.router(), nocache);
  strict->acceptedSenderIs(relay->txPortId());
  Collector cStrict(strict);

  Kiv::Ptr<Wirly::MrtMessage> noCacheMsg = new TestMessage(Wirly::MrtMessageType::igmpNoCache, f.src, f.groups[0]);
  Kiv::Ptr<Wirly::MrtMessage> wrongMsg = new TestMessage(Wirly::MrtMessageType::igmpWrongVif, f.src, f.groups[1]);
  relay->txMrtNotification(noCacheMsg, 3);
  relay->txMrtNotification(wrongMsg, 4);
  impostor->txMrtNotification(noCacheMsg, 5);
  // A report of the other family on this family's group.
  {
    auto pkt = Wirly::PktManager::global().newPkt(64);
    std::uint8_t msg[28] = {
        28, 0, 0, 0, 96, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, std::uint8_t(f.rtnlFamily == 128 ? 129 : 128),
        0,  0, 0, 5, 0,  1, 0, 1, 0, 0, 0};
    pkt->headDataIs(msg, sizeof(msg));
    relay->txPktIs(pkt);
  }
  EXPECT_EQ(relay->txErrors(), 0u) << "nobody-listening refusals are not errors";

  Report const nc{f.rtnlFamily, 1, Wirly::IpGenAddr(f.groups[0])};
  Report const wv{f.rtnlFamily, 2, Wirly::IpGenAddr(f.groups[1])};
  loop.runUntil([&] { return ca.reports.size() >= 3 && cb.reports.size() >= 2 && !cStrict.reports.empty(); }, 5.0);
  loop.runUntil([] { return false; }, 0.2);
  EXPECT_EQ(ca.reports, (std::vector<Report>{nc, wv, nc}));
  EXPECT_EQ(cb.reports, (std::vector<Report>{nc, nc}));
  EXPECT_EQ(cStrict.reports, (std::vector<Report>{nc}));
  EXPECT_EQ(strict->rxUntrustedDrops(), 1u);
  EXPECT_TRUE(cOther.reports.empty());
}

INSTANTIATE_TEST_SUITE_P(Families, RelayTest, ::testing::Values(ipv4Family, ipv6Family),
                         [](auto const& info) { return std::string(info.param.af == Wirly::ipv4 ? "Ipv4" : "Ipv6"); });

// With "MCAST_NO_NETLINK" set, IPv6 upcalls are read from the agent's own
// multicast routing socket: the kernel's mrt6msg arrives whole, and the
// ICMPv6 traffic that shares the socket is dropped.
TEST(MrtNotifySocketKernelTest, Ipv6UpcallsAreReadFromTheAgentsRoutingSocket) {
  TOPOLOGY(t);
  RelayEnvironment env(true);
  Family const& f = ipv6Family;
  Router router(f.af, t.router(), f.src, f.groups[1], f.groups[2]);
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto pam = mrtNotifySocketPamFactory("MrtIcmpV6");
  pam->afIs(Wirly::ipv6);
  pam->netNsIs(t.router());
  pam->sdIs(router.sd());
  pam->enabledIs(true);

  std::vector<std::vector<std::uint8_t>> upcalls;
  struct Reader : Wirly::Pam::NotifieeConst {
    Reader(Kiv::Ptr<MrtNotifySocketPam> const& p, std::vector<std::vector<std::uint8_t>>& out)
        : NotifieeConst(p), pam(p), out(out) {}
    void onReadableCount() override {
      while (auto p = pam->rxPkt()) out.emplace_back(p->data(), p->data() + p->len());
    }
    Kiv::Ptr<MrtNotifySocketPam> pam;
    std::vector<std::vector<std::uint8_t>>& out;
  } reader(pam, upcalls);

  bool sent = false;
  for (int i = 0; i < 40 && !(sent = sendMulticast(t.sender(), f.groups[0])) && errno == ENETUNREACH; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_TRUE(sent) << ::strerror(errno);
  loop.runUntil([&] { return !upcalls.empty(); }, 5.0);

  ASSERT_EQ(upcalls.size(), 1u);
  auto const& u = upcalls[0];
  ASSERT_GE(u.size(), 40u);
  EXPECT_EQ(u[0], 0) << "im6_mbz";
  EXPECT_EQ(u[1], 1) << "no-cache";
  in6_addr grp;
  std::memcpy(&grp, u.data() + 24, 16);
  EXPECT_EQ(Wirly::IpGenAddr(grp), Wirly::IpGenAddr(f.groups[0]));
  EXPECT_EQ(pam->rxMrt6msgCount(), 1u);
  EXPECT_GE(pam->rxPktCount(), pam->rxMrt6msgCount());

  pam->enabledIs(false);
  int const flags = ::fcntl(router.sd(), F_GETFL);
  EXPECT_GE(flags, 0) << "the agent's socket stays open";
}

std::size_t openDescriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] auto const& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

// This kernel has no notification options: enabling says so with the
// kernel's errno and leaves no socket behind.
TEST(MrtNotifySocketKernelTest, NotifyInitRaisesTheKernelsErrno) {
  TOPOLOGY(t);
  auto pam = mrtNotifySocketPamFactory("MrtNotify");
  pam->netNsIs(t.router());
  pam->optionsIs(nocache);
  std::size_t const before = openDescriptors();
  try {
    pam->enabledIs(true);
    ADD_FAILURE() << "the kernel accepted MRT_NOTIFY_INIT";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.call(), "setsocketopt(MRT_NOTIFY_INIT)");
    EXPECT_EQ(e.error(), EOPNOTSUPP);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(pam->enabled());
}

// The deliberately small receive buffer overflows under a burst; the next
// read reports ENOBUFS and the socket goes on receiving.
TEST(MrtNotifyNetlinkKernelTest, BurstOverflowIsReportedAndSurvived) {
  TOPOLOGY(t);
  RelayEnvironment env(false);
  auto rx = receiver(Wirly::ipv4, t.router(), nocache);
  int buf = 0;
  socklen_t len = sizeof(buf);
  ASSERT_EQ(::getsockopt(rx->sd(), SOL_SOCKET, SO_RCVBUF, &buf, &len), 0);
  EXPECT_EQ(buf, 2 * int(MrtNotifySocketPam::defaultMaxRxPktData));

  auto relay = mrtNotifyNetlinkSocketPamFactory("Relay", t.router());
  relay->enableTxIs(true);
  Kiv::Ptr<Wirly::MrtMessage> m = new TestMessage(Wirly::MrtMessageType::igmpNoCache, "10.0.1.2", "239.1.1.1");
  for (int i = 0; i < 20; ++i) relay->txMrtNotification(m, std::uint16_t(i));

  std::size_t got = 0;
  {
    Kiv::TraceCapture cap("Mroute::MrtNotifySocket/2");
    for (int i = 0; i < 40; ++i)
      if (rx->rxPkt()) ++got;
    EXPECT_EQ(cap.count("recvmsg failed with " + std::to_string(ENOBUFS)), 1u);
  }
  EXPECT_EQ(rx->rxErrors(), 1u);
  EXPECT_GT(got, 0u);
  EXPECT_LT(got, 20u);
  EXPECT_TRUE(rx->enabled());

  relay->txMrtNotification(m, 99);
  auto p = rx->rxPkt();
  ASSERT_TRUE(p) << "the socket still receives after the overflow";
  EXPECT_EQ(decode(*p).type, 1);
}

}  // namespace
}  // namespace Routing::Multicast::Notify
