// Upcalls end to end against the real kernel: traffic between namespaces
// makes the kernel raise each kind, and the manager, driven by MrtNotifySm
// from an event loop, publishes it with the right interface, source and
// group. Also the IPv6 relay, and a storm drained in bounded reviews.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "Brisklog/Brisklog.h"
#include "KernelTopology.h"
#include "Kiv/EventLoop.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"
#include "MrtNotify/MrtIcmpV6RelaySm.h"
#include "MrtNotify/MrtNotifySm.h"

namespace Routing::Multicast::Notify {
namespace {

using namespace MrtNotifyKernel;
using Type = Wirly::MrtMessageType;

struct Flows {
  Wirly::AddressFamily af;
  char const* src;
  char const* groups[3];  // no cache, wrong interface, whole packet
};
void PrintTo(Flows const& f, std::ostream* os) { *os << f.af; }
Flows const ipv4Flows{Wirly::ipv4, "10.0.1.2", {"239.3.1.1", "239.3.1.2", "239.3.1.3"}};
Flows const ipv6Flows{Wirly::ipv6, "2001:db8:1::2", {"ff0e::3:1", "ff0e::3:2", "ff0e::3:3"}};

// The agent's map of the Router's interfaces.
Kiv::Ptr<Routing::KernelMfib::Status> kernelStatus() {
  auto s = Routing::KernelMfib::Status::statusIs("kernelMfib");
  s->vifIntfIs(0, Wirly::IntfId("Ethernet1"));  // va
  s->vifIntfIs(1, Wirly::IntfId("Ethernet2"));  // vc
  s->vifIntfIs(2, Wirly::IntfId("Register0"));
  return s;
}

bool sendWhenRoutable(Wirly::NamespaceName const& ns, std::string const& group) {
  // A fresh link may take a moment before IPv6 routes through it.
  bool sent = false;
  for (int i = 0; i < 40 && !(sent = sendMulticast(ns, group)) && errno == ENETUNREACH; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return sent;
}

// Each kind arrives with what the traffic and the tables say.
void expectPublished(MrtNotifyPamManager const& m, Flows const& f) {
  Wirly::IpGenAddr const src(f.src);
  EXPECT_EQ(m.noCacheCounter(), 1u);
  EXPECT_EQ(m.noCacheMessage()->intfId(), Wirly::IntfId("Ethernet1"));
  EXPECT_EQ(m.noCacheMessage()->source(), src);
  EXPECT_EQ(m.noCacheMessage()->group(), Wirly::IpGenAddr(f.groups[0]));
  EXPECT_EQ(m.wrongVifCounter(), 1u);
  EXPECT_EQ(m.wrongVifMessage()->intfId(), Wirly::IntfId("Ethernet1")) << "where it arrived, not where expected";
  EXPECT_EQ(m.wrongVifMessage()->source(), src);
  EXPECT_EQ(m.wrongVifMessage()->group(), Wirly::IpGenAddr(f.groups[1]));
  EXPECT_EQ(m.wholePktCounter(), 1u);
  EXPECT_EQ(m.wholePktMessage()->intfId(), Wirly::IntfId("Register0"));
  EXPECT_EQ(m.wholePktMessage()->source(), src);
  EXPECT_EQ(m.wholePktMessage()->group(), Wirly::IpGenAddr(f.groups[2]));
  ASSERT_TRUE(m.wholePktMessage()->rcvdPkt());
  EXPECT_EQ(m.wholePktMessage()->rcvdPkt()->data()[0] >> 4, f.af == Wirly::ipv4 ? 4 : 6) << "the data packet";
}

class UpcallKernelTest : public ::testing::TestWithParam<Flows> {};

TEST_P(UpcallKernelTest, EveryKindIsPublishedThroughTheReview) {
  TOPOLOGY(t);
  Flows const f = GetParam();
  RelayEnvironment env(false);
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto status = kernelStatus();
  auto manager = mrtNotifyPamManagerFactory(f.af, t.router());
  if (f.af == Wirly::ipv4) {
    // This kernel has no notification options on the routing socket; it
    // publishes IPv4 reports on netlink itself.
    manager->ipv4NativeReportsIs(true);
    manager->useNetlinkIs(true);
  }
  manager->optionsIs(nocache | wrongvif | wholepkt);
  auto sm = mrtNotifySmFactory(manager, status);
  sm->handleInitialized();
  ASSERT_TRUE(manager->pam()->enabled());

  Router router(f.af, t.router(), f.src, f.groups[1], f.groups[2]);
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  for (auto const* g : f.groups) ASSERT_TRUE(sendWhenRoutable(t.sender(), g)) << g << ": " << ::strerror(errno);
  loop.runUntil([&] { return manager->noCacheCounter() && manager->wrongVifCounter() && manager->wholePktCounter(); },
                5.0);
  loop.runUntil([] { return false; }, 0.1);  // nothing more should come
  expectPublished(*manager, f);
}

INSTANTIATE_TEST_SUITE_P(Families, UpcallKernelTest, ::testing::Values(ipv4Flows, ipv6Flows),
                         [](auto const& i) { return std::string(i.param.af == Wirly::ipv4 ? "Ipv4" : "Ipv6"); });

// The routing socket form: the kernel's igmpmsg as the agent's own IGMP
// socket receives it, parsed by an IPv4 manager that does not use netlink.
TEST(UpcallKernelTest, Ipv4RoutingSocketFormIsParsedFromTheKernelsOwnUpcalls) {
  TOPOLOGY(t);
  Flows const& f = ipv4Flows;
  auto status = kernelStatus();
  auto manager = mrtNotifyPamManagerFactory(Wirly::ipv4, t.router());
  Router router(f.af, t.router(), f.src, f.groups[1], f.groups[2]);
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  for (auto const* g : f.groups) ASSERT_TRUE(sendWhenRoutable(t.sender(), g)) << g << ": " << ::strerror(errno);
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (manager->noCacheCounter() + manager->wrongVifCounter() + manager->wholePktCounter() < 3 &&
         std::chrono::steady_clock::now() < deadline) {
    auto pkt = Wirly::PktManager::global().newPkt(2048);
    pkt->headDataIs(2048);
    ssize_t const n = ::recv(router.sd(), pkt->data(), pkt->len(), MSG_DONTWAIT);
    if (n < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    pkt->trim(std::size_t(n));
    // The IGMP socket also sees IGMP traffic; only upcalls carry protocol 0.
    if (n >= 20 && pkt->data()[9] == 0) manager->readMrtMessage(pkt, status);
  }
  expectPublished(*manager, f);
}

// With "MCAST_NO_NETLINK" set, the relay reads the routing agent's IPv6
// socket and every receiver gets the upcalls over the relay group.
TEST(RelayKernelTest, Ipv6UpcallsReachAReceiverThroughTheRelay) {
  TOPOLOGY(t);
  Flows const& f = ipv6Flows;
  RelayEnvironment env(true);
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto status = kernelStatus();
  auto receiver = mrtNotifyPamManagerFactory(Wirly::ipv6, t.router());
  receiver->optionsIs(nocache | wrongvif | wholepkt);
  auto sm = mrtNotifySmFactory(receiver, status);
  sm->handleInitialized();
  auto* const nl = dynamic_cast<MrtNotifyNetlinkSocketPam*>(receiver->pam().ptr());
  ASSERT_TRUE(nl);
  EXPECT_FALSE(nl->isRtnlIpv6MrouteRSupported()) << "reads the relay group";

  Router router(f.af, t.router(), f.src, f.groups[1], f.groups[2]);
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  auto relay = mrtIcmpV6RelaySmFactory("relay", t.router(), status);
  relay->mrtSkSdIs(router.sd());
  ASSERT_TRUE(relay->icmpV6Pam()->enabled());
  nl->acceptedSenderIs(relay->netlinkPam()->txPortId());

  for (auto const* g : f.groups) ASSERT_TRUE(sendWhenRoutable(t.sender(), g)) << g << ": " << ::strerror(errno);
  loop.runUntil(
      [&] { return receiver->noCacheCounter() && receiver->wrongVifCounter() && receiver->wholePktCounter(); }, 5.0);
  loop.runUntil([] { return false; }, 0.1);
  expectPublished(*receiver, f);
  EXPECT_EQ(relay->netlinkPam()->txErrors(), 0u);
  relay->mrtSkSdIs(0);
  EXPECT_GE(::fcntl(router.sd(), F_GETFL), 0) << "the agent's socket stays open";
}

// The framework clock as this thread's CPU time: a review's length is then
// the work it did, not the time a loaded machine kept it off the CPU.
class ThreadCpuClock : public Kiv::Clock {
 public:
  ThreadCpuClock() : previous_(Kiv::System::clockIs(this)) {}
  ~ThreadCpuClock() override { Kiv::System::clockIs(previous_); }
  double now() const override {
    timespec ts;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }

 private:
  Kiv::Clock* previous_;
};

// Thousands of no-cache upcalls queued at once are drained in reviews that
// each end at the quantum, and every one the kernel raised is counted.
TEST(StormKernelTest, AStormIsDrainedInBoundedReviewsAndNothingIsLost) {
  TOPOLOGY(t);
  RelayEnvironment env(false);
  constexpr int storm = 3000;
  constexpr double quantum = 0.0005;
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto status = kernelStatus();
  auto manager = mrtNotifyPamManagerFactory(Wirly::ipv4, t.router());
  manager->ipv4NativeReportsIs(true);
  manager->useNetlinkIs(true);
  manager->optionsIs(nocache);
  auto sm = mrtNotifySmFactory(manager, status);
  sm->loopQuantumIs(quantum);
  sm->handleInitialized();
  // An agent that expects storms gives the socket room for them; the
  // default holds three reports.
  int const big = 16 << 20;
  ASSERT_EQ(::setsockopt(manager->pam()->sd(), SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)), 0);

  Router router(Wirly::ipv4, t.router(), ipv4Flows.src, "239.9.0.1", "239.9.0.2");
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  // The kernel's own count: every no-cache upcall also reaches the routing socket.
  ASSERT_EQ(::setsockopt(router.sd(), SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)), 0);

  int const vb = ifIndex(t.sender(), "vb");
  Fd s(Wirly::namespaceSocket(t.sender(), AF_INET, SOCK_DGRAM, 0));
  ip_mreqn mreq{};
  mreq.imr_ifindex = vb;
  ASSERT_TRUE(setOpt(s.fd, IPPROTO_IP, IP_MULTICAST_IF, mreq));
  ASSERT_TRUE(setOpt(s.fd, IPPROTO_IP, IP_MULTICAST_TTL, 8));
  for (int i = 0; i < storm; ++i) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(5000);
    to.sin_addr.s_addr = htonl(0xEF0A0000u + std::uint32_t(i) + 1);  // 239.10.x.y, one (S, G) each
    ASSERT_EQ(::sendto(s.fd, "storm", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 5) << ::strerror(errno);
  }

  Kiv::TraceCapture cap("Mroute::MrtPam/3");
  ThreadCpuClock cpuClock;
  Brisklog::open();  // an agent's trace file exists before its first storm
  loop.runUntil([&] { return manager->noCacheCounter() >= std::uint32_t(storm); }, 10.0);
  loop.runUntil([] { return false; }, 0.1);

  int kernelReported = 0;
  std::uint8_t buf[2048];
  for (ssize_t n; (n = ::recv(router.sd(), buf, sizeof(buf), MSG_DONTWAIT)) >= 0;)
    if (n >= 20 && buf[9] == 0 && buf[8] == 1) ++kernelReported;
  EXPECT_EQ(kernelReported, storm);
  EXPECT_EQ(manager->noCacheCounter(), std::uint32_t(kernelReported));
  auto* const nl = dynamic_cast<MrtNotifyNetlinkSocketPam*>(manager->pam().ptr());
  EXPECT_EQ(nl->rxErrors(), 0u) << "no overflow";

  // Every review stopped at the quantum plus the one datagram it was
  // reading, which takes microseconds; 1 ms leaves room for sanitizers.
  int reviews = 0, processed = 0;
  double longest = 0;
  for (auto const& text : cap.texts()) {
    unsigned count;
    double seconds;
    if (std::sscanf(text.c_str(), "Processed %u messages in %lf seconds.", &count, &seconds) != 2) continue;
    ++reviews;
    processed += int(count);
    longest = std::max(longest, seconds);
  }
  EXPECT_EQ(processed, storm);
  EXPECT_GT(reviews, 1) << "one review took the whole storm";
  EXPECT_LE(longest, quantum + 0.001);
}

}  // namespace
}  // namespace Routing::Multicast::Notify

#ifdef MRTMON
namespace Routing::Multicast::Notify {
namespace {

// mrtmon in the router namespace prints the upcalls of real traffic, one
// JSON line each, and its counters at exit; --vif names override the
// kernel's own.
TEST(MrtmonKernelTest, PrintsTheUpcallsOfAKernelRun) {
  TOPOLOGY(t);
  Flows const& f = ipv6Flows;
  std::string const cmd = std::string(MRTMON) + " --netns " + t.router().str() +
                          " --family ipv6 --json --count 3 --timeout 10 --vif 0=Ethernet1 2>&1";
  FILE* out = ::popen(cmd.c_str(), "r");
  ASSERT_TRUE(out);
  char line[512];
  ASSERT_TRUE(std::fgets(line, sizeof(line), out));
  EXPECT_TRUE(std::string(line).starts_with("mrtmon: listening for")) << line;

  Router router(f.af, t.router(), f.src, f.groups[1], f.groups[2]);
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  for (auto const* g : f.groups) ASSERT_TRUE(sendWhenRoutable(t.sender(), g)) << g << ": " << ::strerror(errno);
  std::vector<std::string> lines;
  while (std::fgets(line, sizeof(line), out)) lines.emplace_back(line);
  int const status = ::pclose(out);
  EXPECT_EQ(status, 0);
  auto const has = [&](std::string const& text) {
    for (auto const& l : lines)
      if (l == text) return true;
    return false;
  };
  EXPECT_TRUE(has(R"({"kind":"nocache","intf":"Ethernet1","src":"2001:db8:1::2","grp":"ff0e::3:1","len":0})"
                  "\n"));
  EXPECT_TRUE(has(R"({"kind":"wrongvif","intf":"Ethernet1","src":"2001:db8:1::2","grp":"ff0e::3:2","len":0})"
                  "\n"));
  // The register MIF has no name given: it is named as the kernel names it
  // in the router's namespace; the data packet is the 6-byte UDP datagram
  // behind a 40-byte IPv6 header.
  EXPECT_TRUE(has(R"({"kind":"wholepkt","intf":"pim6reg","src":"2001:db8:1::2","grp":"ff0e::3:3","len":54})"
                  "\n"));
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines.back().starts_with("mrtmon: nocache 1 wrongvif 1 wholepkt 1")) << lines.back();
}

}  // namespace
}  // namespace Routing::Multicast::Notify
#endif
