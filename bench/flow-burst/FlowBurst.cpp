// flow-burst: sends one burst of new (S, G) flows through a multicast router
// and measures, from outside the router's routing daemon, how many flows got
// a forwarding entry and how fast. Runs inside the router's namespace; the
// sender and receiver sockets are opened in their own namespaces.
//
//   ip netns exec R flow-burst run --system smcroute --sender S --sender-intf eth0
//       --receiver V --receiver-intf eth0 --source 10.0.1.2 --groups 225.1.0.0 --flows 10000 --out base.txt
//   flow-burst compare base.txt agent.txt
//
// Three things are watched at once: the kernel's MFC notifications in the
// router (an unresolved entry queued, a resolved entry written: whoever
// writes it), packets arriving at the receiver (an AF_PACKET socket, so no
// group needs joining), and at the end the kernel's /proc/net/ip_mr_cache,
// which counts what was installed even if a notification was lost.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <netinet/ip6.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BurstReport.h"
#include "Churn.h"
#include "MfcEvent.h"
#include "MiniDaemon.h"
#include "Wirly/NamespaceName.h"
#include "Wirly/NamespaceSocket.h"

namespace {

using FlowBurst::FlowTimes;

char const* const usage =
    "usage: flow-burst run --system NAME --sender NS --sender-intf IF --receiver NS --receiver-intf IF\n"
    "                      --source ADDR --groups FIRST --flows N [--port P] [--wait S] [--quiet S]\n"
    "                      [--out FILE] [--times FILE]\n"
    "       flow-burst agent-figures TIMES FLOW_LOG SOURCE FIRST_GROUP N FILE\n"
    "       flow-burst daemon IIF OIF [--oldest-first] [--ipv6]\n"
    "       flow-burst compare FILE...\n"
    "       flow-burst mfc-wait|mfc-floor ...   (the churn modes: see Churn.h)\n"
    "run: in the router's namespace, sends one UDP packet from the sender namespace to each of N groups\n"
    "from FIRST up (IPv6 when the addresses are: the groups then differ in their last 32 bits), and\n"
    "waits until every flow has its entry and its packet at the receiver, or nothing changed for\n"
    "--quiet seconds (default 3), or --wait seconds passed after the burst (default 15).\n"
    "Writes the figures to stdout and FILE; --times writes one CSV line per flow (ns, CLOCK_MONOTONIC).\n"
    "agent-figures: joins run's --times with mroute-agent's --flow-log and appends the agent's own\n"
    "timings (agent_* lines) to FILE.\n"
    "daemon: the least routing daemon, as a floor: one entry IIF -> OIF per no-cache upcall, each\n"
    "batch installed newest first (or oldest first); runs until SIGINT or SIGTERM.\n"
    "compare: the figures of runs side by side.\n";

[[noreturn]] void fail(std::string const& what) {
  std::cerr << "flow-burst: " << what << '\n';
  std::exit(2);
}

[[noreturn]] void failErrno(std::string const& what) { fail(what + ": " + std::strerror(errno)); }

std::int64_t clockNs(clockid_t clock) {
  timespec ts;
  ::clock_gettime(clock, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// CLOCK_MONOTONIC: the clock every namespace shares and the agent's flow log uses.
std::int64_t nowNs() { return clockNs(CLOCK_MONOTONIC); }

struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

int ifIndexIn(Wirly::NamespaceName const& ns, std::string const& name) {
  Fd s(Wirly::namespaceSocket(ns, AF_INET, SOCK_DGRAM, 0));
  if (s.fd < 0) failErrno("socket in namespace " + ns.str());
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
  if (::ioctl(s.fd, SIOCGIFINDEX, &ifr) < 0) failErrno("interface " + name + " in namespace " + ns.str());
  return ifr.ifr_ifindex;
}

// Large queues: the watchers must not lose what a whole burst produces at once.
void bigReceiveBuffer(int fd, int bytes) {
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) < 0 &&
      ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) < 0) {
    failErrno("SO_RCVBUF");
  }
}

struct Options {
  std::string system, senderNs, senderIntf, receiverNs, receiverIntf, out, times;
  // IPv4: the addresses; IPv6: the low 32 bits of them, the whole in source6/firstGroup6.
  std::uint32_t source = 0, firstGroup = 0;
  bool v6 = false;
  std::array<std::uint8_t, 16> source6{}, firstGroup6{};
  unsigned flows = 0;
  unsigned port = 5001;
  double waitS = 15, quietS = 3;
};

std::uint32_t parseV4(std::string const& text, char const* what) {
  in_addr a{};
  if (::inet_pton(AF_INET, text.c_str(), &a) != 1) fail(std::string("bad ") + what + " address: " + text);
  return ntohl(a.s_addr);
}

Options parseRun(int argc, char** argv) {
  Options o;
  std::map<std::string, std::string> v;
  for (int i = 2; i < argc; i += 2) {
    std::string const k = argv[i];
    if (k.rfind("--", 0) != 0 || i + 1 >= argc) fail(std::string("bad argument: ") + argv[i] + "\n" + usage);
    v[k.substr(2)] = argv[i + 1];
  }
  auto need = [&](char const* k) {
    auto it = v.find(k);
    if (it == v.end()) fail(std::string("missing --") + k + "\n" + usage);
    return it->second;
  };
  auto number = [&](char const* k, double dflt) {
    auto it = v.find(k);
    if (it == v.end()) return dflt;
    char* end = nullptr;
    double const d = std::strtod(it->second.c_str(), &end);
    if (!end || *end || d <= 0) fail(std::string("bad --") + k + ": " + it->second);
    return d;
  };
  o.system = need("system");
  o.senderNs = need("sender");
  o.senderIntf = need("sender-intf");
  o.receiverNs = need("receiver");
  o.receiverIntf = need("receiver-intf");
  std::string const source = need("source"), groups = need("groups");
  o.v6 = source.find(':') != std::string::npos;
  if (o.v6 != (groups.find(':') != std::string::npos)) fail("--source and --groups must be of one family");
  o.flows = unsigned(number("flows", 0));
  if (o.flows == 0 || o.flows > 1u << 20) fail("--flows must be 1 to 1048576");
  if (o.v6) {
    if (::inet_pton(AF_INET6, source.c_str(), o.source6.data()) != 1) fail("bad source address: " + source);
    if (::inet_pton(AF_INET6, groups.c_str(), o.firstGroup6.data()) != 1) fail("bad group address: " + groups);
    std::uint32_t be;
    std::memcpy(&be, o.source6.data() + 12, sizeof(be));
    o.source = ntohl(be);
    std::memcpy(&be, o.firstGroup6.data() + 12, sizeof(be));
    o.firstGroup = ntohl(be);
    // The flows differ in the group's low 32 bits only.
    if (o.firstGroup6[0] != 0xff || std::uint64_t(o.firstGroup) + o.flows > (1ull << 32))
      fail("--groups and --flows must stay inside ff00::/8 and the group's last 32 bits");
  } else {
    o.source = parseV4(source, "source");
    o.firstGroup = parseV4(groups, "group");
    if ((o.firstGroup >> 28) != 0xE || ((o.firstGroup + o.flows - 1) >> 28) != 0xE) {
      fail("--groups and --flows must stay inside 224.0.0.0/4");
    }
  }
  o.port = unsigned(number("port", 5001));
  o.waitS = number("wait", 15);
  o.quietS = number("quiet", 3);
  if (v.count("out")) o.out = v["out"];
  if (v.count("times")) o.times = v["times"];
  return o;
}

// Reads MFC notifications in the router and first packets at the receiver
// until told to stop; owns the per-flow watch times.
class Watcher {
 public:
  Watcher(Options const& o, std::vector<FlowTimes>* flows)
      : o_(o),
        flows_(flows),
        nl_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)),
        pkt_(Wirly::namespaceSocket(Wirly::NamespaceName(o.receiverNs), AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC,
                                    htons(o.v6 ? ETH_P_IPV6 : ETH_P_IP))) {
    if (nl_.fd < 0) failErrno("netlink socket");
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (::bind(nl_.fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0) failErrno("netlink bind");
    int const groups4[] = {RTNLGRP_IPV4_MROUTE, RTNLGRP_IPV4_MROUTE_R};
    int const groups6[] = {RTNLGRP_IPV6_MROUTE, RTNLGRP_IPV6_MROUTE_R};
    for (int const grp : o.v6 ? groups6 : groups4) {
      if (::setsockopt(nl_.fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &grp, sizeof(grp)) < 0) {
        failErrno("joining the kernel's multicast routing netlink groups");
      }
    }
    bigReceiveBuffer(nl_.fd, 64 << 20);

    if (pkt_.fd < 0) failErrno("packet socket in namespace " + o.receiverNs);
    sockaddr_ll ll{};
    ll.sll_family = AF_PACKET;
    ll.sll_protocol = htons(o.v6 ? ETH_P_IPV6 : ETH_P_IP);
    ll.sll_ifindex = ifIndexIn(Wirly::NamespaceName(o.receiverNs), o.receiverIntf);
    if (::bind(pkt_.fd, reinterpret_cast<sockaddr*>(&ll), sizeof(ll)) < 0) failErrno("packet bind");
    bigReceiveBuffer(pkt_.fd, 64 << 20);
    int const on = 1;
    if (::setsockopt(pkt_.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) < 0) failErrno("SO_TIMESTAMPNS");
    // Receive stamps are CLOCK_REALTIME; nothing steps the clock within one burst.
    realtimeOffsetNs_ = clockNs(CLOCK_REALTIME) - nowNs();
  }

  // The burst's last packet left at `burstEndNs`; returns when the run is over.
  void run(std::atomic<std::int64_t> const& burstEndNs) {
    std::int64_t lastProgress = nowNs();
    for (;;) {
      pollfd p[2] = {{nl_.fd, POLLIN, 0}, {pkt_.fd, POLLIN, 0}};
      int const n = ::poll(p, 2, 50);
      if (n < 0 && errno != EINTR) failErrno("poll");
      bool progress = false;
      if (n > 0 && (p[0].revents & POLLIN)) progress |= drainNetlink();
      if (n > 0 && (p[1].revents & POLLIN)) progress |= drainPackets();
      std::int64_t const now = nowNs();
      if (progress) lastProgress = now;
      std::int64_t const end = burstEndNs.load(std::memory_order_acquire);
      if (end < 0) continue;
      if (entries_ == o_.flows && delivered_ == o_.flows) break;
      if (now - std::max(lastProgress, end) > std::int64_t(o_.quietS * 1e9)) break;
      if (now - end > std::int64_t(o_.waitS * 1e9)) break;
    }
  }

  unsigned netlinkOverruns() const { return overruns_; }
  unsigned removals() const { return removals_; }
  unsigned expired() const { return expired_; }

 private:
  FlowTimes* flow(std::uint32_t source, std::uint32_t group) {
    if (source != o_.source || group - o_.firstGroup >= o_.flows) return nullptr;
    return &(*flows_)[group - o_.firstGroup];
  }
  FlowTimes* flow6(std::uint8_t const* source, std::uint8_t const* group) {
    if (std::memcmp(source, o_.source6.data(), 16) != 0 || std::memcmp(group, o_.firstGroup6.data(), 12) != 0)
      return nullptr;
    std::uint32_t s, g;
    std::memcpy(&s, source + 12, 4);
    std::memcpy(&g, group + 12, 4);
    return flow(ntohl(s), ntohl(g));
  }

  bool drainNetlink() {
    bool progress = false;
    alignas(nlmsghdr) char buf[64 * 1024];
    for (;;) {
      ssize_t const len = ::recv(nl_.fd, buf, sizeof(buf), MSG_DONTWAIT);
      if (len < 0) {
        // The queue overflowed: notifications were lost; /proc still counts the entries.
        if (errno == ENOBUFS) {
          ++overruns_;
          continue;
        }
        if (errno == EAGAIN || errno == EINTR) return progress;
        failErrno("netlink recv");
      }
      std::int64_t const t = nowNs();
      FlowBurst::decodeMfcEvents(buf, std::size_t(len), [&](FlowBurst::MfcEvent const& e) {
        if (e.v6 != o_.v6) return;
        FlowTimes* f = e.v6 ? flow6(e.source6.data(), e.group6.data()) : flow(e.source, e.group);
        if (!f) return;
        switch (e.kind) {
          case FlowBurst::MfcEvent::noCacheReported:
            if (f->reportedNs < 0) f->reportedNs = t;
            break;
          case FlowBurst::MfcEvent::unresolvedAdded:
            if (f->unresolvedNs < 0) f->unresolvedNs = t;
            break;
          case FlowBurst::MfcEvent::resolvedAdded:
            if (f->entryNs < 0) {
              f->entryNs = t;
              ++entries_;
              progress = true;
            }
            break;
          case FlowBurst::MfcEvent::unresolvedExpired:
            ++expired_;
            break;
          case FlowBurst::MfcEvent::resolvedRemoved:
            ++removals_;
            break;
        }
      });
    }
  }

  bool drainPackets() {
    bool progress = false;
    char buf[2048];
    alignas(cmsghdr) char control[256];
    for (;;) {
      iovec iov{buf, sizeof(buf)};
      msghdr m{};
      m.msg_iov = &iov;
      m.msg_iovlen = 1;
      m.msg_control = control;
      m.msg_controllen = sizeof(control);
      ssize_t const len = ::recvmsg(pkt_.fd, &m, MSG_DONTWAIT);
      if (len < 0) {
        if (errno == EAGAIN || errno == EINTR) return progress;
        failErrno("packet recv");
      }
      std::int64_t t = -1;
      for (cmsghdr* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
          timespec ts;
          std::memcpy(&ts, CMSG_DATA(c), sizeof(ts));
          t = std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec - realtimeOffsetNs_;
        }
      }
      if (t < 0) t = nowNs();
      if (o_.v6) {
        // The burst's packets carry no extension header: UDP follows at once.
        if (len < ssize_t(sizeof(ip6_hdr) + sizeof(udphdr))) continue;
        ip6_hdr ip;
        std::memcpy(&ip, buf, sizeof(ip));
        if ((ip.ip6_vfc >> 4) != 6 || ip.ip6_nxt != IPPROTO_UDP) continue;
        udphdr udp;
        std::memcpy(&udp, buf + sizeof(ip), sizeof(udp));
        if (ntohs(udp.dest) != o_.port) continue;
        FlowTimes* f = flow6(ip.ip6_src.s6_addr, ip.ip6_dst.s6_addr);
        if (f && f->deliveredNs < 0) {
          f->deliveredNs = t;
          ++delivered_;
          progress = true;
        }
        continue;
      }
      if (len < ssize_t(sizeof(iphdr) + sizeof(udphdr))) continue;
      iphdr ip;
      std::memcpy(&ip, buf, sizeof(ip));
      std::size_t const ihl = std::size_t(ip.ihl) * 4;
      if (ip.version != 4 || ip.protocol != IPPROTO_UDP || ihl < sizeof(iphdr) ||
          std::size_t(len) < ihl + sizeof(udphdr)) {
        continue;
      }
      udphdr udp;
      std::memcpy(&udp, buf + ihl, sizeof(udp));
      if (ntohs(udp.dest) != o_.port) continue;
      FlowTimes* f = flow(ntohl(ip.saddr), ntohl(ip.daddr));
      if (f && f->deliveredNs < 0) {
        f->deliveredNs = t;
        ++delivered_;
        progress = true;
      }
    }
  }

  Options const& o_;
  std::vector<FlowTimes>* flows_;
  Fd nl_;
  Fd pkt_;
  std::int64_t realtimeOffsetNs_ = 0;
  unsigned entries_ = 0, delivered_ = 0, overruns_ = 0, removals_ = 0, expired_ = 0;
};

// One packet to each group, as fast as one socket's sendto goes.
unsigned sendBurst6(Options const& o, std::vector<FlowTimes>* flows) {
  Wirly::NamespaceName const ns(o.senderNs);
  Fd s(Wirly::namespaceSocket(ns, AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (s.fd < 0) failErrno("sender socket in namespace " + o.senderNs);
  int const ifIndex = ifIndexIn(ns, o.senderIntf), hops = 8;
  if (::setsockopt(s.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifIndex, sizeof(ifIndex)) < 0 ||
      ::setsockopt(s.fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof(hops)) < 0) {
    failErrno("sender socket options");
  }
  sockaddr_in6 local{};
  local.sin6_family = AF_INET6;
  std::memcpy(local.sin6_addr.s6_addr, o.source6.data(), 16);
  if (::bind(s.fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0) failErrno("bind to --source");
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(std::uint16_t(o.port));
  std::memcpy(to.sin6_addr.s6_addr, o.firstGroup6.data(), 16);
  char payload[32] = "flow-burst";
  unsigned failed = 0;
  for (unsigned i = 0; i < o.flows; ++i) {
    std::uint32_t const g = htonl(o.firstGroup + i);
    std::memcpy(to.sin6_addr.s6_addr + 12, &g, 4);
    std::memcpy(payload + 16, &i, sizeof(i));
    std::int64_t const t = nowNs();
    if (::sendto(s.fd, payload, sizeof(payload), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) < 0) {
      ++failed;
      continue;
    }
    (*flows)[i].sentNs = t;
  }
  return failed;
}

unsigned sendBurst(Options const& o, std::vector<FlowTimes>* flows) {
  if (o.v6) return sendBurst6(o, flows);
  Wirly::NamespaceName const ns(o.senderNs);
  Fd s(Wirly::namespaceSocket(ns, AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (s.fd < 0) failErrno("sender socket in namespace " + o.senderNs);
  ip_mreqn m{};
  m.imr_ifindex = ifIndexIn(ns, o.senderIntf);
  int const ttl = 8;
  if (::setsockopt(s.fd, IPPROTO_IP, IP_MULTICAST_IF, &m, sizeof(m)) < 0 ||
      ::setsockopt(s.fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) < 0) {
    failErrno("sender socket options");
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(o.source);
  if (::bind(s.fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0) failErrno("bind to --source");
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(std::uint16_t(o.port));
  char payload[32] = "flow-burst";
  unsigned failed = 0;
  for (unsigned i = 0; i < o.flows; ++i) {
    to.sin_addr.s_addr = htonl(o.firstGroup + i);
    std::memcpy(payload + 16, &i, sizeof(i));
    std::int64_t const t = nowNs();
    if (::sendto(s.fd, payload, sizeof(payload), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) < 0) {
      ++failed;
      continue;
    }
    (*flows)[i].sentNs = t;
  }
  return failed;
}

unsigned countInstalled(Options const& o) {
  char const* const path = o.v6 ? "/proc/net/ip6_mr_cache" : "/proc/net/ip_mr_cache";
  std::ifstream in(path);
  if (!in) failErrno(path);
  unsigned n = 0;
  auto const count = [&](FlowBurst::MfcCacheLine const& l) {
    if (o.v6 && (l.source6 != o.source6 || std::memcmp(l.group6.data(), o.firstGroup6.data(), 12) != 0)) return;
    if (l.resolved && l.source == o.source && l.group - o.firstGroup < o.flows) ++n;
  };
  if (o.v6)
    FlowBurst::readMfc6Cache(in, count);
  else
    FlowBurst::readMfcCache(in, count);
  return n;
}

int run(Options const& o) {
  std::vector<FlowTimes> flows(o.flows);
  Watcher watcher(o, &flows);
  std::atomic<std::int64_t> burstEnd{-1};
  std::thread watch([&] { watcher.run(burstEnd); });
  unsigned const sendFailures = sendBurst(o, &flows);
  burstEnd.store(nowNs(), std::memory_order_release);
  watch.join();

  FlowBurst::Figures const f = FlowBurst::summarize(flows, countInstalled(o));
  auto const write = [&](std::ostream& out) {
    FlowBurst::writeFigures(out, o.system, f);
    out << "send_failures " << sendFailures << '\n'
        << "unresolved_expired " << watcher.expired() << '\n'
        << "netlink_overruns " << watcher.netlinkOverruns() << '\n';
  };
  write(std::cout);
  if (!o.out.empty()) {
    std::ofstream out(o.out);
    write(out);
    if (!out) fail("cannot write " + o.out);
  }
  if (!o.times.empty()) {
    std::ofstream out(o.times);
    FlowBurst::writeTimes(out, flows);
    if (!out) fail("cannot write " + o.times);
  }
  return 0;
}

// The agent's own record of the burst, appended to a figures file.
int agentFigures(int argc, char** argv) {
  if (argc != 8) fail(std::string("agent-figures needs 6 arguments\n") + usage);
  std::ifstream times(argv[2]), log(argv[3]);
  if (!times) fail(std::string("cannot read ") + argv[2]);
  if (!log) fail(std::string("cannot read ") + argv[3]);
  std::string const source = argv[4];
  std::string const firstText = argv[5];
  std::uint32_t first;
  if (firstText.find(':') != std::string::npos) {
    std::array<std::uint8_t, 16> g{};
    if (::inet_pton(AF_INET6, firstText.c_str(), g.data()) != 1) fail("bad group address: " + firstText);
    std::uint32_t be;
    std::memcpy(&be, g.data() + 12, sizeof(be));
    first = ntohl(be);
  } else {
    first = parseV4(argv[5], "group");
  }
  char* end = nullptr;
  unsigned long const flows = std::strtoul(argv[6], &end, 10);
  if (!end || *end || flows == 0) fail(std::string("bad flow count: ") + argv[6]);
  auto const t = FlowBurst::readTimes(times);
  if (t.size() != flows) fail(std::string(argv[2]) + " does not hold " + argv[6] + " flows");
  std::ofstream out(argv[7], std::ios::app);
  FlowBurst::writeAgentFigures(out, t, FlowBurst::readAgentFlowLog(log, source, first, flows));
  if (!out) fail(std::string("cannot write ") + argv[7]);
  return 0;
}

int compare(int argc, char** argv) {
  std::vector<FlowBurst::FigureList> runs;
  for (int i = 2; i < argc; ++i) {
    std::ifstream in(argv[i]);
    if (!in) fail(std::string("cannot read ") + argv[i]);
    runs.push_back(FlowBurst::readFigures(in));
  }
  FlowBurst::printSideBySide(std::cout, runs);
  return 0;
}

volatile std::sig_atomic_t stopRequested = 0;
void onSignal(int) { stopRequested = 1; }

int daemon(int argc, char** argv) {
  namespace Mini = FlowBurst::MiniDaemon;
  Mini::Options o{argv[argc > 3 ? 2 : 0], argv[argc > 3 ? 3 : 0], Mini::newestFirst, false};
  for (int i = 4; i < argc; ++i) {
    std::string const a = argv[i];
    if (a == "--oldest-first")
      o.order = Mini::oldestFirst;
    else if (a == "--ipv6")
      o.v6 = true;
    else
      fail(std::string("bad daemon arguments\n") + usage);
  }
  if (argc < 4) fail(std::string("bad daemon arguments\n") + usage);
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  return Mini::run(o, stopRequested);
}

}  // namespace

int main(int argc, char** argv) {
  std::string const cmd = argc > 1 ? argv[1] : "";
  if (cmd == "run") return run(parseRun(argc, argv));
  if (cmd == "compare" && argc >= 3) return compare(argc, argv);
  if (cmd == "daemon") return daemon(argc, argv);
  if (cmd == "agent-figures") return agentFigures(argc, argv);
  if (cmd == "mfc-wait") return FlowBurst::mfcWait(argc, argv);
  if (cmd == "mfc-floor") return FlowBurst::mfcFloor(argc, argv);
  if (cmd == "--help" || cmd == "-h") {
    std::cout << usage;
    return 0;
  }
  std::cerr << usage;
  return 2;
}
