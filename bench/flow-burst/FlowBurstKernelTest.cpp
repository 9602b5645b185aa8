// The bench against the real kernel: the notifications it decodes are the
// ones the kernel sends, and the program counts raised, installed and
// delivered flows right while the test itself plays the routing daemon.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include "BurstReport.h"
#include "MfcEvent.h"
#include "MrtNotify/KernelTopology.h"

namespace FlowBurst {
namespace {

using namespace MrtNotifyKernel;

// The router's multicast routing socket with VIF 0 = va (from the sender) and VIF 1 = vc.
class Daemon {
 public:
  explicit Daemon(Wirly::NamespaceName const& r)
      : sd_(Wirly::namespaceSocket(r, AF_INET, SOCK_RAW, IPPROTO_IGMP)), va_(ifIndex(r, "va")) {
    ok_ = sd_.fd >= 0 && setOpt(sd_.fd, IPPROTO_IP, MRT_INIT, 1) && vif(0, va_) && vif(1, ifIndex(r, "vc"));
  }
  bool ok() const { return ok_; }
  int va() const { return va_; }
  bool install(std::uint32_t source, std::uint32_t group) {
    mfcctl m{};
    m.mfcc_origin.s_addr = htonl(source);
    m.mfcc_mcastgrp.s_addr = htonl(group);
    m.mfcc_parent = 0;
    m.mfcc_ttls[1] = 1;
    return setOpt(sd_.fd, IPPROTO_IP, MRT_ADD_MFC, m);
  }
  // Installs an entry for each no-cache upcall until `n` were answered or the time is up.
  int answer(int n, std::chrono::milliseconds within) {
    int done = 0;
    auto const until = std::chrono::steady_clock::now() + within;
    while (done < n && std::chrono::steady_clock::now() < until) {
      pollfd p{sd_.fd, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      char buf[1500];
      ssize_t const len = ::recv(sd_.fd, buf, sizeof(buf), 0);
      if (len < ssize_t(sizeof(igmpmsg))) continue;
      igmpmsg m;
      std::memcpy(&m, buf, sizeof(m));
      if (m.im_mbz != 0 || m.im_msgtype != IGMPMSG_NOCACHE) continue;
      if (install(ntohl(m.im_src.s_addr), ntohl(m.im_dst.s_addr))) ++done;
    }
    return done;
  }

 private:
  bool vif(int i, int ifindex) {
    vifctl v{};
    v.vifc_vifi = vifi_t(i);
    v.vifc_flags = VIFF_USE_IFINDEX;
    v.vifc_threshold = 1;
    v.vifc_lcl_ifindex = ifindex;
    return setOpt(sd_.fd, IPPROTO_IP, MRT_ADD_VIF, v);
  }
  Fd sd_;
  int va_;
  bool ok_ = false;
};

std::uint32_t v4(char const* text) {
  in_addr a{};
  ::inet_pton(AF_INET, text, &a);
  return ntohl(a.s_addr);
}

std::string runIn(Wirly::NamespaceName const& ns, std::string const& cmd) {
  std::string out;
  if (FILE* f = ::popen(("ip netns exec " + ns.str() + " " + cmd + " 2>&1").c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) out.append(buf, n);
    ::pclose(f);
  }
  return out;
}

// Waits for netlink events on `fd` until `enough` says so or a second passes.
template <class Enough>
std::vector<MfcEvent> collect(int fd, Enough enough) {
  std::vector<MfcEvent> ev;
  auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (!enough(ev) && std::chrono::steady_clock::now() < until) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    char buf[8192];
    ssize_t const len = ::recv(fd, buf, sizeof(buf), 0);
    if (len > 0) decodeMfcEvents(buf, std::size_t(len), [&](MfcEvent const& e) { ev.push_back(e); });
  }
  return ev;
}

bool has(std::vector<MfcEvent> const& ev, MfcEvent::Kind k) {
  for (auto const& e : ev) {
    if (e.kind == k) return true;
  }
  return false;
}

TEST(FlowBurstKernelTest, TheKernelsOwnNotificationsDecodeForOneFlowsLife) {
  TOPOLOGY(t);
  Fd nl(Wirly::namespaceSocket(t.router(), AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  ASSERT_EQ(::bind(nl.fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)), 0);
  for (int const g : {int(RTNLGRP_IPV4_MROUTE), int(RTNLGRP_IPV4_MROUTE_R)}) {
    ASSERT_TRUE(setOpt(nl.fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, g));
  }
  {
    Daemon d(t.router());
    ASSERT_TRUE(d.ok());
    ASSERT_TRUE(sendMulticast(t.sender(), "225.9.0.1"));
    auto ev = collect(nl.fd, [](auto const& e) { return e.size() >= 2; });
    ASSERT_TRUE(has(ev, MfcEvent::noCacheReported));
    ASSERT_TRUE(has(ev, MfcEvent::unresolvedAdded));
    for (auto const& e : ev) {
      EXPECT_EQ(e.source, v4("10.0.1.2"));
      EXPECT_EQ(e.group, v4("225.9.0.1"));
    }
    std::istringstream before(runIn(t.router(), "cat /proc/net/ip_mr_cache"));
    int unresolved = 0;
    readMfcCache(before, [&](MfcCacheLine const& l) { unresolved += !l.resolved && l.group == v4("225.9.0.1"); });
    EXPECT_EQ(unresolved, 1);

    ASSERT_TRUE(d.install(v4("10.0.1.2"), v4("225.9.0.1")));
    ev = collect(nl.fd, [](auto const& e) { return !e.empty(); });
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].kind, MfcEvent::resolvedAdded);
    EXPECT_EQ(ev[0].iifIndex, d.va());
    std::istringstream after(runIn(t.router(), "cat /proc/net/ip_mr_cache"));
    int resolved = 0;
    readMfcCache(after, [&](MfcCacheLine const& l) { resolved += l.resolved && l.group == v4("225.9.0.1"); });
    EXPECT_EQ(resolved, 1);
  }
  // Closing the routing socket flushes its entries.
  auto const ev = collect(nl.fd, [](auto const& e) { return !e.empty(); });
  EXPECT_TRUE(has(ev, MfcEvent::resolvedRemoved));
}

std::map<std::string, std::string> figures(std::string const& path) {
  std::ifstream in(path);
  std::map<std::string, std::string> m;
  for (auto const& [k, v] : readFigures(in)) m[k] = v;
  return m;
}

TEST(FlowBurstKernelTest, TheProgramCountsRaisedInstalledAndDeliveredFlows) {
  TOPOLOGY(t);
  Daemon d(t.router());
  ASSERT_TRUE(d.ok());
  // Half the groups have entries before the burst; the other half are answered while it runs.
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(d.install(v4("10.0.1.2"), v4("225.9.0.0") + i));
  std::string const out = "/tmp/flow-burst-test-" + std::to_string(::getpid()) + ".txt";
  std::string const cmd = std::string(FLOW_BURST_PATH) + " run --system test --sender " + t.sender().str() +
                          " --sender-intf vb --receiver " + t.sender().str() +
                          " --receiver-intf vd --source 10.0.1.2 --groups 225.9.0.0 --flows 10"
                          " --quiet 0.5 --wait 3 --out " +
                          out;
  std::string output;
  std::thread burst([&] { output = runIn(t.router(), cmd); });
  int const answered = d.answer(5, std::chrono::seconds(3));
  burst.join();
  auto f = figures(out);
  std::remove(out.c_str());
  EXPECT_EQ(answered, 5) << output;
  EXPECT_EQ(f["flows"], "10") << output;
  EXPECT_EQ(f["upcalls_raised"], "5");
  EXPECT_EQ(f["upcalls_queued"], "5");
  EXPECT_EQ(f["entries_seen"], "5");
  EXPECT_EQ(f["installed"], "10");
  // The five answered flows' queued first packets go out when their entries arrive.
  EXPECT_EQ(f["delivered"], "10");
  EXPECT_NE(f["entry_median_ms"], "-");
  EXPECT_EQ(f["send_failures"], "0");
}

TEST(FlowBurstKernelTest, TheFloorDaemonInstallsEveryFlowInEitherOrder) {
  TOPOLOGY(t);
  for (char const* order : {"", " --oldest-first"}) {
    std::string const log = "/tmp/flow-burst-daemon-" + std::to_string(::getpid()) + ".log";
    std::string const daemon = "ip netns exec " + t.router().str() + " " + FLOW_BURST_PATH + " daemon va vc" + order +
                               " >" + log + " 2>&1 & echo $!";
    FILE* f = ::popen(daemon.c_str(), "r");
    ASSERT_NE(f, nullptr);
    int pid = 0;
    ASSERT_EQ(std::fscanf(f, "%d", &pid), 1);
    ::pclose(f);
    auto const ready = [&] {
      std::ifstream in(log);
      std::string line;
      return std::getline(in, line) && line == "ready";
    };
    for (int i = 0; i < 100 && !ready(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    bool const started = ready();
    std::string const out = "/tmp/flow-burst-test-" + std::to_string(::getpid()) + ".txt";
    std::string output;
    if (started) {
      output = runIn(t.router(), std::string(FLOW_BURST_PATH) + " run --system floor --sender " + t.sender().str() +
                                     " --sender-intf vb --receiver " + t.sender().str() +
                                     " --receiver-intf vd --source 10.0.1.2 --groups 225.9.1.0 --flows 300"
                                     " --quiet 0.5 --wait 3 --out " +
                                     out);
    }
    ::kill(pid, SIGTERM);
    // It says what it did as it ends (not our child: its exit cannot be waited for).
    auto const ended = [&] {
      std::ifstream in(log);
      std::string const text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      return text.find("installed ") != std::string::npos ? text : std::string();
    };
    std::string daemonLog;
    for (int i = 0; i < 100 && (daemonLog = ended()).empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::remove(log.c_str());
    auto fig = figures(out);
    std::remove(out.c_str());
    ASSERT_TRUE(started) << daemonLog;
    EXPECT_EQ(fig["installed"], "300") << order << output;
    EXPECT_EQ(fig["delivered"], "300") << order;
    EXPECT_NE(daemonLog.find("installed 300, failed 0"), std::string::npos) << daemonLog;
  }
}

}  // namespace
}  // namespace FlowBurst
