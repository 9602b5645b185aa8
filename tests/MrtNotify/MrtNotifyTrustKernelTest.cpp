// Who is heard, against the real kernel: a process running as uid 65534 in
// the router namespace sends forged, randomly mutated and flooding cache
// reports to a receiver (the library's, and mrtmon) on the relay group and
// straight to the port of a receiver of the kernel's group. The receivers
// stay up and publish none of them; a report of a trusted sender still
// arrives. Needs root; without it every test skips with the reason.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ForgedReports.h"
#include "KernelTopology.h"
#include "Kiv/EventLoop.h"
#include "MrtNotify/MrtNotifySm.h"

namespace Routing::Multicast::Notify {
namespace {

using namespace MrtNotifyKernel;
using ForgedReports::Forger;

constexpr std::uint32_t relayGroup6 = 1u << (rtnlGroupIpv6MrouteR - 1);

Kiv::Ptr<Routing::KernelMfib::Status> oneMif() {
  auto s = Routing::KernelMfib::Status::statusIs("kernelMfib");
  s->vifIntfIs(0, Wirly::IntfId("Ethernet1"));
  return s;
}

std::vector<ForgedReports::Bytes> everything(Wirly::AddressFamily af) {
  auto set = ForgedReports::attackSet(af);
  auto const random = ForgedReports::mutations(ForgedReports::noCache(af, 7), 2000, 20);
  set.insert(set.end(), random.begin(), random.end());
  return set;
}

// Trusted here: this process, as root, through the library's relay.
void sendTrusted(Wirly::NamespaceName const& ns, Wirly::AddressFamily af, char const* src, char const* grp) {
  auto relay = mrtNotifyNetlinkSocketPamFactory("Relay", ns);
  relay->afIs(af);
  relay->enableTxIs(true);
  Kiv::Ptr<Wirly::MrtMessage> m = noCacheMessageFactory("trusted");
  m->sourceIs(Wirly::IpGenAddr(src));
  m->groupIs(Wirly::IpGenAddr(grp));
  relay->txMrtNotification(m, 0);
}

TEST(TrustKernelTest, RelayReceiverSurvivesAnUnprivilegedUserAndPublishesNothingOfIt) {
  TOPOLOGY(t);
  RelayEnvironment env(true);
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto status = oneMif();
  auto manager = mrtNotifyPamManagerFactory(Wirly::ipv6, t.router());
  manager->optionsIs(nocache | wrongvif | wholepkt);
  auto sm = mrtNotifySmFactory(manager, status);
  sm->handleInitialized();
  auto const& nl = static_cast<MrtNotifyNetlinkSocketPam const&>(*manager->pam());
  ASSERT_FALSE(nl.isRtnlIpv6MrouteRSupported()) << "reads the relay group";
  int const big = 4 << 20;  // room for much of the flood: more of it is judged
  ASSERT_EQ(::setsockopt(nl.sd(), SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)), 0);

  Forger forger(t.router().str(), NETLINK_USERSOCK, 0, relayGroup6, everything(Wirly::ipv6), 20000);
  loop.runUntil([&] { return forger.finished(); }, 60);
  loop.runUntil([] { return false; }, 0.3);
  ASSERT_EQ(forger.exitCode(), 0) << "the forger could not send as uid 65534";

  EXPECT_TRUE(nl.enabled());
  EXPECT_EQ(nl.rxSenderUid(), ForgedReports::nobody);
  EXPECT_GT(nl.rxUntrustedDrops(), 2000u);
  EXPECT_EQ(nl.rxMalformedDrops() + nl.rxOtherTableDrops(), 0u) << "the sender is judged first";
  EXPECT_EQ(manager->noCacheCounter() + manager->wrongVifCounter() + manager->wholePktCounter(), 0u);

  sendTrusted(t.router(), Wirly::ipv6, "2001:db8:1::2", "ff3e::1:1");
  loop.runUntil([&] { return manager->noCacheCounter() > 0; }, 5);
  EXPECT_EQ(manager->noCacheCounter(), 1u);
  EXPECT_EQ(manager->noCacheMessage()->group(), Wirly::IpGenAddr("ff3e::1:1"));
  EXPECT_EQ(manager->noCacheMessage()->intfId(), Wirly::IntfId("Ethernet1"));
  EXPECT_EQ(nl.rxSenderUid(), 0u);
}

// A socket of the kernel's group has a port id other processes may send
// to. The kernel refuses that to an unprivileged user; a second router
// process (root) may, and only port id 0, the kernel, is heard.
TEST(TrustKernelTest, KernelGroupReceiverHearsNobodyButTheKernel) {
  TOPOLOGY(t);
  RelayEnvironment env(false);
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto status = oneMif();
  auto manager = mrtNotifyPamManagerFactory(Wirly::ipv6, t.router());
  manager->optionsIs(nocache);
  auto sm = mrtNotifySmFactory(manager, status);
  sm->handleInitialized();
  auto const& nl = static_cast<MrtNotifyNetlinkSocketPam const&>(*manager->pam());
  ASSERT_TRUE(nl.isRtnlIpv6MrouteRSupported());
  sockaddr_nl self{};
  socklen_t len = sizeof(self);
  ASSERT_EQ(::getsockname(nl.sd(), reinterpret_cast<sockaddr*>(&self), &len), 0);
  ASSERT_NE(self.nl_pid, 0u);

  auto const attack = ForgedReports::attackSet(Wirly::ipv6);
  {
    Forger nobody(t.router().str(), NETLINK_ROUTE, self.nl_pid, 0, attack);
    loop.runUntil([&] { return nobody.finished(); }, 10);
    EXPECT_EQ(nobody.exitCode(), Forger::sendFailed + EPERM);
  }
  Forger forger(t.router().str(), NETLINK_ROUTE, self.nl_pid, 0, attack, 0, Wirly::ipv6, 0);
  loop.runUntil([&] { return forger.finished(); }, 10);
  loop.runUntil([&] { return nl.rxUntrustedDrops() > 0; }, 2);
  ASSERT_EQ(forger.exitCode(), 0);
  // The filter passes only reports whose message type it asks for; what
  // passes comes from the forger's port and goes no further.
  EXPECT_GE(nl.rxUntrustedDrops(), 1u);
  EXPECT_EQ(manager->noCacheCounter(), 0u);

  // The kernel's own report of real traffic is still heard.
  Router router(Wirly::ipv6, t.router(), "2001:db8:1::2", "ff0e::9:2", "ff0e::9:3");
  ASSERT_TRUE(router.ok()) << ::strerror(errno);
  bool sent = false;
  for (int i = 0; i < 40 && !(sent = sendMulticast(t.sender(), "ff0e::9:1")) && errno == ENETUNREACH; ++i)
    loop.runUntil([] { return false; }, 0.05);
  ASSERT_TRUE(sent) << ::strerror(errno);
  loop.runUntil([&] { return manager->noCacheCounter() > 0; }, 5);
  EXPECT_EQ(manager->noCacheCounter(), 1u);
  EXPECT_EQ(manager->noCacheMessage()->group(), Wirly::IpGenAddr("ff0e::9:1"));
}

// Two routers in one namespace, each with its own multicast routing table:
// the kernel's IPv4 report names the table, and each receiver hears only
// its own.
TEST(TrustKernelTest, KernelReportsOfAnotherTableAreNotHeard) {
  TOPOLOGY(t);
  RelayEnvironment env(false);
  ASSERT_TRUE(MrtNotifyNetlinkSocketPam::kernelPublishesIpv4Reports(t.router()));
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto receiver = [&](std::uint32_t table) {
    auto p = mrtNotifyNetlinkSocketPamFactory("MrtNotify", t.router());
    p->ipv4NativeReportsIs(true);
    p->mrtTableIs(table);
    p->optionsIs(nocache);
    p->enabledIs(true);
    return p;
  };
  auto mine = receiver(MrtNotifyNetlinkSocketPam::defaultMrtTable);
  auto other = receiver(10);

  // The second router: table 10 on its own routing socket, and traffic
  // arriving on va looked up there.
  Fd sd(Wirly::namespaceSocket(t.router(), AF_INET, SOCK_RAW, IPPROTO_IGMP));
  std::uint32_t const table = 10;
  int const one = 1;
  ASSERT_TRUE(setOpt(sd.fd, IPPROTO_IP, MRT_TABLE, table)) << ::strerror(errno);
  ASSERT_TRUE(setOpt(sd.fd, IPPROTO_IP, MRT_INIT, one)) << ::strerror(errno);
  vifctl v{};
  v.vifc_vifi = 0;
  v.vifc_flags = VIFF_USE_IFINDEX;
  v.vifc_threshold = 1;
  v.vifc_lcl_ifindex = ifIndex(t.router(), "va");
  ASSERT_TRUE(setOpt(sd.fd, IPPROTO_IP, MRT_ADD_VIF, v)) << ::strerror(errno);
  ASSERT_TRUE(run("ip -n " + t.router().str() + " mrule add iif va lookup 10"));

  ASSERT_TRUE(sendMulticast(t.sender(), "239.5.5.5")) << ::strerror(errno);
  std::vector<Kiv::Ptr<Wirly::Pkt>> heardMine, heardOther;
  loop.runUntil(
      [&] {
        while (auto p = mine->rxPkt()) heardMine.push_back(p);
        while (auto p = other->rxPkt()) heardOther.push_back(p);
        return !heardOther.empty() && mine->rxOtherTableDrops() > 0;
      },
      5);
  EXPECT_EQ(heardOther.size(), 1u) << "the report of table 10";
  EXPECT_TRUE(heardMine.empty());
  EXPECT_EQ(mine->rxOtherTableDrops(), 1u);
  EXPECT_EQ(mine->rxMalformedDrops() + mine->rxUntrustedDrops(), 0u);
  EXPECT_EQ(other->rxOtherTableDrops(), 0u);
}

#ifdef MRTMON
// mrtmon in relay mode: the forger's datagrams are counted and not printed,
// the trusted report is printed, and it exits normally.
TEST(TrustKernelTest, MrtmonInRelayModeSurvivesAndPrintsOnlyTheTrustedReport) {
  TOPOLOGY(t);
  std::string const cmd = std::string(MRTMON) + " --netns " + t.router().str() +
                          " --family ipv6 --source relay --json --count 1 --timeout 30 --vif 0=Ethernet1 2>&1";
  FILE* out = ::popen(cmd.c_str(), "r");
  ASSERT_TRUE(out);
  char line[512];
  ASSERT_TRUE(std::fgets(line, sizeof(line), out));
  ASSERT_TRUE(std::string(line).starts_with("mrtmon: listening for")) << line;

  {
    Forger forger(t.router().str(), NETLINK_USERSOCK, 0, relayGroup6, everything(Wirly::ipv6), 2000);
    while (!forger.finished()) ::usleep(10000);
    ASSERT_EQ(forger.exitCode(), 0);
  }
  ::usleep(200000);
  {
    RelayEnvironment env(true);
    sendTrusted(t.router(), Wirly::ipv6, "2001:db8:1::2", "ff3e::1:1");
  }
  std::vector<std::string> lines;
  while (std::fgets(line, sizeof(line), out)) lines.emplace_back(line);
  EXPECT_EQ(::pclose(out), 0);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], R"({"kind":"nocache","intf":"Ethernet1","src":"2001:db8:1::2","grp":"ff3e::1:1","len":0})"
                      "\n");
  EXPECT_TRUE(lines[1].starts_with("mrtmon: nocache 1 wrongvif 0 wholepkt 0")) << lines[1];
  unsigned untrusted = 0, othertable = 1, malformed = 1;
  std::size_t const at = lines[1].find(" untrusted ");
  ASSERT_NE(at, std::string::npos) << lines[1];
  ASSERT_EQ(std::sscanf(lines[1].c_str() + at, " untrusted %u othertable %u malformed %u", &untrusted, &othertable,
                        &malformed),
            3)
      << lines[1];
  EXPECT_GT(untrusted, 0u);
  EXPECT_EQ(othertable + malformed, 0u);
}
#endif

}  // namespace
}  // namespace Routing::Multicast::Notify
