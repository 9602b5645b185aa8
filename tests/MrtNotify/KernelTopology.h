// Kernel test helpers: namespaces the test creates and removes, the routing
// agent's multicast routing socket, traffic between the namespaces.
//
//   P (sender) vb ==== va R (router)
//              vd ==== vc              (vc only gives R a second interface)
//
// In R a test plays the routing agent: Router opens the multicast routing
// socket and adds interfaces (0 va, 1 vc, 2 register) and two forwarding
// entries, and P sends multicast into va:
//   no entry                     -> no-cache report
//   entry expecting vc (1)       -> wrong-interface report
//   entry forwarding to register -> whole-packet report
// Names carry the pid, so parallel runs do not meet. Needs root; without it
// a test skips with the reason.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>
// The kernel's multicast routing headers after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Wirly/AddressFamily.h"
#include "Wirly/NamespaceName.h"
#include "Wirly/NamespaceSocket.h"
#include "Wirly/Pam.h"
#include "Wirly/Sys.h"
#include "tests/TestShell.h"

namespace MrtNotifyKernel {

using TestShell::run;

class Topology {
 public:
  Topology() {
    if (::geteuid() != 0) {
      skip_ = "needs root to create network namespaces";
      return;
    }
    std::string const id = std::to_string(::getpid());
    p_ = "mrtnP" + id;
    r_ = "mrtnR" + id;
    if (!run("ip netns add " + p_) || !run("ip netns add " + r_)) {
      skip_ = "cannot create network namespaces (ip netns add failed)";
      return;
    }
    char const* const sysctls =
        " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0"
        " net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0";
    std::string const r = " -n " + r_, p = " -n " + p_;
    std::vector<std::string> const steps = {
        "ip netns exec " + p_ + sysctls,
        "ip netns exec " + r_ + sysctls,
        "ip link add va netns " + r_ + " type veth peer name vb netns " + p_,
        "ip link add vc netns " + r_ + " type veth peer name vd netns " + p_,
        "ip" + r + " addr add 10.0.1.1/24 dev va",
        "ip" + r + " addr add 2001:db8:1::1/120 dev va nodad",
        "ip" + r + " addr add 10.0.2.1/24 dev vc",
        "ip" + r + " addr add 2001:db8:2::1/120 dev vc nodad",
        "ip" + p + " addr add 10.0.1.2/24 dev vb",
        "ip" + p + " addr add 2001:db8:1::2/120 dev vb nodad",
        "ip" + r + " link set lo up",
        "ip" + r + " link set va up",
        "ip" + r + " link set vc up",
        "ip" + p + " link set lo up",
        "ip" + p + " link set vb up",
        "ip" + p + " link set vd up",
        "ip" + p + " route add default via 10.0.1.1 dev vb",
        "ip" + p + " -6 route add default via 2001:db8:1::1 dev vb",
    };
    for (auto const& s : steps) {
      if (!run(s)) {
        failed_ = "topology step failed: " + s;
        return;
      }
    }
  }
  ~Topology() {
    if (!p_.empty()) run("ip netns del " + p_);
    if (!r_.empty()) run("ip netns del " + r_);
  }

  std::string const& skip() const { return skip_; }
  std::string const& failed() const { return failed_; }
  Wirly::NamespaceName sender() const { return Wirly::NamespaceName(p_); }
  Wirly::NamespaceName router() const { return Wirly::NamespaceName(r_); }

 private:
  std::string p_, r_, skip_, failed_;
};

#define TOPOLOGY(t)                                \
  Topology t;                                      \
  if (!t.skip().empty()) GTEST_SKIP() << t.skip(); \
  ASSERT_TRUE(t.failed().empty()) << t.failed()

// A descriptor closed when it goes.
struct Fd {
  int fd;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

inline int ifIndex(Wirly::NamespaceName const& ns, char const* name) {
  Fd s(Wirly::namespaceSocket(ns, AF_INET, SOCK_DGRAM, 0));
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
  if (s.fd < 0 || ::ioctl(s.fd, SIOCGIFINDEX, &ifr) < 0) return -1;
  return ifr.ifr_ifindex;
}

template <class T>
bool setOpt(int fd, int level, int name, T const& v) {
  return ::setsockopt(fd, level, name, &v, sizeof(v)) == 0;
}

// The routing agent's side: the multicast routing socket of one family in
// the router namespace, with the three interfaces and two entries above.
class Router {
 public:
  Router(Wirly::AddressFamily af, Wirly::NamespaceName const& ns, std::string const& src, std::string const& wrongGroup,
         std::string const& wholeGroup)
      : sd_(Wirly::namespaceSocket(ns, af == Wirly::ipv4 ? AF_INET : AF_INET6, SOCK_RAW,
                                   af == Wirly::ipv4 ? int(IPPROTO_IGMP) : int(IPPROTO_ICMPV6))) {
    int const va = ifIndex(ns, "va"), vc = ifIndex(ns, "vc");
    int const one = 1;
    if (sd_.fd < 0 || va < 0 || vc < 0) return;
    if (af == Wirly::ipv4) {
      ok_ = setOpt(sd_.fd, IPPROTO_IP, MRT_INIT, one) && setOpt(sd_.fd, IPPROTO_IP, MRT_PIM, one) &&
            setOpt(sd_.fd, IPPROTO_IP, MRT_ASSERT, one) && vif(0, VIFF_USE_IFINDEX, va) &&
            vif(1, VIFF_USE_IFINDEX, vc) && vif(2, VIFF_REGISTER, 0) && mfc(src, wrongGroup, 1, -1) &&
            mfc(src, wholeGroup, 0, 2);
    } else {
      ok_ = setOpt(sd_.fd, IPPROTO_IPV6, MRT6_INIT, one) && setOpt(sd_.fd, IPPROTO_IPV6, MRT6_PIM, one) &&
            setOpt(sd_.fd, IPPROTO_IPV6, MRT6_ASSERT, one) && mif(0, 0, va) && mif(1, 0, vc) &&
            mif(2, MIFF_REGISTER, 0) && mfc6(src, wrongGroup, 1, -1) && mfc6(src, wholeGroup, 0, 2);
    }
  }
  bool ok() const { return ok_; }
  int sd() const { return sd_.fd; }

 private:
  bool vif(int i, unsigned char flags, int ifindex) {
    vifctl v{};
    v.vifc_vifi = vifi_t(i);
    v.vifc_flags = flags;
    v.vifc_threshold = 1;
    v.vifc_lcl_ifindex = ifindex;
    return setOpt(sd_.fd, IPPROTO_IP, MRT_ADD_VIF, v);
  }
  bool mfc(std::string const& s, std::string const& g, int parent, int oif) {
    mfcctl m{};
    ::inet_pton(AF_INET, s.c_str(), &m.mfcc_origin);
    ::inet_pton(AF_INET, g.c_str(), &m.mfcc_mcastgrp);
    m.mfcc_parent = vifi_t(parent);
    if (oif >= 0) m.mfcc_ttls[oif] = 1;
    return setOpt(sd_.fd, IPPROTO_IP, MRT_ADD_MFC, m);
  }
  bool mif(int i, unsigned char flags, int ifindex) {
    mif6ctl m{};
    m.mif6c_mifi = mifi_t(i);
    m.mif6c_flags = flags;
    m.vifc_threshold = 1;
    m.mif6c_pifi = (unsigned short)ifindex;
    return setOpt(sd_.fd, IPPROTO_IPV6, MRT6_ADD_MIF, m);
  }
  bool mfc6(std::string const& s, std::string const& g, int parent, int oif) {
    mf6cctl m{};
    m.mf6cc_origin.sin6_family = AF_INET6;
    m.mf6cc_mcastgrp.sin6_family = AF_INET6;
    ::inet_pton(AF_INET6, s.c_str(), &m.mf6cc_origin.sin6_addr);
    ::inet_pton(AF_INET6, g.c_str(), &m.mf6cc_mcastgrp.sin6_addr);
    m.mf6cc_parent = mifi_t(parent);
    if (oif >= 0) IF_SET(oif, &m.mf6cc_ifset);
    return setOpt(sd_.fd, IPPROTO_IPV6, MRT6_ADD_MFC, m);
  }

  Fd sd_;
  bool ok_ = false;
};

// Sends one UDP datagram from P's vb to a group.
inline bool sendMulticast(Wirly::NamespaceName const& ns, std::string const& group) {
  int const vb = ifIndex(ns, "vb");
  if (group.find(':') == std::string::npos) {
    Fd s(Wirly::namespaceSocket(ns, AF_INET, SOCK_DGRAM, 0));
    ip_mreqn m{};
    m.imr_ifindex = vb;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(5000);
    ::inet_pton(AF_INET, group.c_str(), &to.sin_addr);
    return s.fd >= 0 && setOpt(s.fd, IPPROTO_IP, IP_MULTICAST_IF, m) && setOpt(s.fd, IPPROTO_IP, IP_MULTICAST_TTL, 8) &&
           ::sendto(s.fd, "upcall", 6, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 6;
  }
  Fd s(Wirly::namespaceSocket(ns, AF_INET6, SOCK_DGRAM, 0));
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(5000);
  ::inet_pton(AF_INET6, group.c_str(), &to.sin6_addr);
  return s.fd >= 0 && setOpt(s.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, vb) &&
         setOpt(s.fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 8) &&
         ::sendto(s.fd, "upcall", 6, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 6;
}

// Makes `loop` the loop of every socket enabled while it lives.
struct DefaultLoop {
  explicit DefaultLoop(Kiv::EventLoop* loop) { Wirly::Pam::defaultEventLoopIs(loop); }
  ~DefaultLoop() { Wirly::Pam::defaultEventLoopIs(nullptr); }
};

// The real system calls, with "MCAST_NO_NETLINK" set or not as the test says.
class RelayEnvironment : public Wirly::Sys {
 public:
  explicit RelayEnvironment(bool set) : set_(set), use_(this) {}
  char const* getenv(char const* name) override {
    if (std::string_view(name) == "MCAST_NO_NETLINK") return set_ ? "1" : nullptr;
    return Wirly::Sys::real().getenv(name);
  }

 private:
  bool set_;
  Wirly::SysOverride use_;
};

}  // namespace MrtNotifyKernel
