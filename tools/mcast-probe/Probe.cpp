#include "Probe.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#include "Kiv/Exception.h"

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29
#endif

namespace McastProbe {

namespace {

using Wirly::IpGenAddr;

// Adds n to the address as a big-endian number; false when it leaves the
// family's multicast space.
bool addressPlus(IpGenAddr const& base, std::uint64_t n, IpGenAddr& out) {
  if (base.af() == Wirly::ipv4) {
    std::uint64_t const v = std::uint64_t(base.v4Addr()) + n;
    if (v > 0xefffffffu) return false;
    out = IpGenAddr::v4(static_cast<std::uint32_t>(v));
    return true;
  }
  auto bytes = base.v6Addr();
  std::uint64_t carry = n;
  for (int i = 15; i >= 1 && carry != 0; --i) {
    std::uint64_t const v = bytes[i] + (carry & 0xff);
    bytes[i] = static_cast<std::uint8_t>(v);
    carry = (carry >> 8) + (v >> 8);
  }
  if (carry != 0) return false;
  out = IpGenAddr::v6(bytes);
  return out.isMulticast();
}

int checked(int rc, char const* call) {
  if (rc < 0) throw Kiv::ErrnoException(call, errno);
  return rc;
}

template <class T>
void setOpt(int fd, int level, int name, T const& v, char const* call) {
  checked(::setsockopt(fd, level, name, &v, sizeof v), call);
}

unsigned ifIndexOf(std::string const& intf) {
  unsigned const i = ::if_nametoindex(intf.c_str());
  if (i == 0) throw Kiv::RangeException("no interface " + intf + " in this network namespace");
  return i;
}

struct Socket {
  int fd = -1;
  Socket() = default;
  explicit Socket(int f) : fd(f) {}
  Socket(Socket&& o) noexcept : fd(o.fd) { o.fd = -1; }
  Socket& operator=(Socket&& o) noexcept {
    std::swap(fd, o.fd);
    return *this;
  }
  ~Socket() {
    if (fd >= 0) ::close(fd);
  }
};

volatile sig_atomic_t stopRequested = 0;
void onStop(int) { stopRequested = 1; }

double now() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

}  // namespace

std::vector<IpGenAddr> parseGroups(std::string_view list) {
  std::vector<IpGenAddr> out;
  std::size_t pos = 0;
  while (pos <= list.size()) {
    std::size_t const comma = std::min(list.find(',', pos), list.size());
    std::string const item(list.substr(pos, comma - pos));
    pos = comma + 1;
    std::string addr = item;
    std::uint64_t n = 1;
    if (std::size_t const plus = item.find('+'); plus != std::string::npos) {
      addr = item.substr(0, plus);
      std::string const count = item.substr(plus + 1);
      if (count.empty() || count.size() > 7 || count.find_first_not_of("0123456789") != std::string::npos ||
          std::stoul(count) == 0)
        throw Kiv::ParseException("'" + item + "': a range is GROUP+N with N from 1 to 9999999");
      n = std::stoul(count);
    }
    IpGenAddr base;
    try {
      base = IpGenAddr(addr);
    } catch (Kiv::Exception const&) {
      throw Kiv::ParseException("'" + item + "' is not a multicast group address");
    }
    if (!base.isMulticast()) throw Kiv::ParseException("'" + item + "' is not a multicast group address");
    for (std::uint64_t i = 0; i < n; ++i) {
      IpGenAddr g;
      if (!addressPlus(base, i, g)) throw Kiv::ParseException("'" + item + "' runs out of multicast space");
      out.push_back(g);
    }
  }
  return out;
}

std::uint64_t Counts::total() const {
  std::uint64_t t = 0;
  for (auto c : count) t += c;
  return t;
}

std::string Counts::line(std::string const& word, std::string const& intf, bool summary) const {
  std::ostringstream os;
  os << word;
  if (!intf.empty()) os << ' ' << intf;
  if (summary) {
    os << " groups=" << groups.size()
       << " reached=" << std::count_if(count.begin(), count.end(), [](std::uint64_t c) { return c != 0; });
  } else {
    for (std::size_t i = 0; i < groups.size(); ++i) os << ' ' << groups[i] << '=' << count[i];
  }
  os << " total=" << total();
  return os.str();
}

Counts send(SendOptions const& o) {
  Counts c{o.groups, std::vector<std::uint64_t>(o.groups.size(), 0)};
  unsigned const ifindex = o.intf.empty() ? 0 : ifIndexOf(o.intf);
  IpGenAddr source;
  if (!o.source.empty()) source = IpGenAddr(o.source);
  Socket v4, v6;
  auto need = [&](Wirly::AddressFamily af) {
    return std::any_of(o.groups.begin(), o.groups.end(), [af](IpGenAddr const& g) { return g.af() == af; });
  };
  if (need(Wirly::ipv4)) {
    v4 = Socket(checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket"));
    setOpt(v4.fd, IPPROTO_IP, IP_MULTICAST_TTL, int(o.ttl), "setsockopt(IP_MULTICAST_TTL)");
    setOpt(v4.fd, IPPROTO_IP, IP_MULTICAST_LOOP, 0, "setsockopt(IP_MULTICAST_LOOP)");
    if (ifindex != 0) {
      ip_mreqn m{};
      m.imr_ifindex = int(ifindex);
      setOpt(v4.fd, IPPROTO_IP, IP_MULTICAST_IF, m, "setsockopt(IP_MULTICAST_IF)");
    }
    if (source.af() == Wirly::ipv4) {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_addr = source.inAddr();
      checked(::bind(v4.fd, reinterpret_cast<sockaddr*>(&a), sizeof a), "bind");
    }
  }
  if (need(Wirly::ipv6)) {
    v6 = Socket(checked(::socket(AF_INET6, SOCK_DGRAM, 0), "socket"));
    setOpt(v6.fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, int(o.ttl), "setsockopt(IPV6_MULTICAST_HOPS)");
    setOpt(v6.fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0, "setsockopt(IPV6_MULTICAST_LOOP)");
    if (ifindex != 0) setOpt(v6.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, int(ifindex), "setsockopt(IPV6_MULTICAST_IF)");
    if (source.af() == Wirly::ipv6) {
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      a.sin6_addr = source.in6Addr();
      checked(::bind(v6.fd, reinterpret_cast<sockaddr*>(&a), sizeof a), "bind");
    }
  }
  char payload[64];
  for (unsigned round = 0; round < o.count; ++round) {
    if (round != 0 && o.intervalMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.intervalMs));
    for (std::size_t i = 0; i < o.groups.size(); ++i) {
      IpGenAddr const& g = o.groups[i];
      int const len = std::snprintf(payload, sizeof payload, "mcast-probe %u", round);
      sockaddr_storage to{};
      socklen_t toLen;
      int fd;
      if (g.af() == Wirly::ipv4) {
        auto* a = reinterpret_cast<sockaddr_in*>(&to);
        a->sin_family = AF_INET;
        a->sin_port = htons(o.port);
        a->sin_addr = g.inAddr();
        toLen = sizeof *a;
        fd = v4.fd;
      } else {
        auto* a = reinterpret_cast<sockaddr_in6*>(&to);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(o.port);
        a->sin6_addr = g.in6Addr();
        toLen = sizeof *a;
        fd = v6.fd;
      }
      // A full device queue is the sender outrunning its own link, not a
      // loss to measure: wait and send the datagram again.
      for (;;) {
        if (::sendto(fd, payload, std::size_t(len), 0, reinterpret_cast<sockaddr*>(&to), toLen) == len) break;
        if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) throw Kiv::ErrnoException("sendto", errno);
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
      ++c.count[i];
    }
  }
  return c;
}

Counts receive(RecvOptions const& o, void (*onListening)()) {
  Counts c{o.groups, std::vector<std::uint64_t>(o.groups.size(), 0)};
  unsigned const ifindex = ifIndexOf(o.intf);
  std::map<IpGenAddr, std::size_t> slot;
  for (std::size_t i = 0; i < o.groups.size(); ++i) slot.emplace(o.groups[i], i);

  // A socket holds a limited number of memberships (igmp_max_memberships);
  // past it the groups go to a further socket. Each socket takes only the
  // groups it joined itself (IP_MULTICAST_ALL off), so nothing is counted
  // twice.
  std::vector<Socket> sockets;
  auto open = [&](Wirly::AddressFamily af) -> int {
    int const fd = checked(::socket(af == Wirly::ipv4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK, 0), "socket");
    sockets.emplace_back(fd);
    setOpt(fd, SOL_SOCKET, SO_REUSEADDR, 1, "setsockopt(SO_REUSEADDR)");
    int const buf = 4 << 20;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buf, sizeof buf) != 0)
      setOpt(fd, SOL_SOCKET, SO_RCVBUF, buf, "setsockopt(SO_RCVBUF)");
    if (af == Wirly::ipv4) {
      setOpt(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0, "setsockopt(IP_MULTICAST_ALL)");
      setOpt(fd, IPPROTO_IP, IP_PKTINFO, 1, "setsockopt(IP_PKTINFO)");
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(o.port);
      checked(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), "bind");
    } else {
      setOpt(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1, "setsockopt(IPV6_V6ONLY)");
      setOpt(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0, "setsockopt(IPV6_MULTICAST_ALL)");
      setOpt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, "setsockopt(IPV6_RECVPKTINFO)");
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      a.sin6_port = htons(o.port);
      checked(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), "bind");
    }
    return fd;
  };
  int cur[3] = {-1, -1, -1};
  for (IpGenAddr const& g : o.groups) {
    for (int attempt = 0;; ++attempt) {
      int& fd = cur[g.af()];
      if (fd < 0) fd = open(g.af());
      int rc;
      if (g.af() == Wirly::ipv4) {
        ip_mreqn m{};
        m.imr_multiaddr = g.inAddr();
        m.imr_ifindex = int(ifindex);
        rc = ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m);
      } else {
        ipv6_mreq m{};
        m.ipv6mr_multiaddr = g.in6Addr();
        m.ipv6mr_interface = ifindex;
        rc = ::setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &m, sizeof m);
      }
      if (rc == 0) break;
      if (errno == EADDRINUSE) break;  // listed twice
      if (errno != ENOBUFS || attempt != 0) throw Kiv::ErrnoException("setsockopt(join " + g.str() + ")", errno);
      fd = -1;
    }
  }

  struct sigaction sa = {};
  sa.sa_handler = onStop;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  if (onListening != nullptr) onListening();

  std::vector<pollfd> fds;
  for (Socket const& s : sockets) fds.push_back({s.fd, POLLIN, 0});
  double const end = now() + o.seconds;
  char data[2048];
  alignas(cmsghdr) char control[256];
  while (stopRequested == 0) {
    double const left = end - now();
    if (left <= 0) break;
    int const n = ::poll(fds.data(), fds.size(), int(std::min(left, 0.2) * 1000) + 1);
    if (n < 0 && errno != EINTR) throw Kiv::ErrnoException("poll", errno);
    for (pollfd const& p : fds) {
      if (n <= 0 || !(p.revents & POLLIN)) continue;
      for (;;) {
        iovec iov{data, sizeof data};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        if (::recvmsg(p.fd, &msg, MSG_DONTWAIT) < 0) break;
        IpGenAddr dst;
        unsigned arrivedOn = 0;
        for (cmsghdr* cm = CMSG_FIRSTHDR(&msg); cm != nullptr; cm = CMSG_NXTHDR(&msg, cm)) {
          if (cm->cmsg_level == IPPROTO_IP && cm->cmsg_type == IP_PKTINFO) {
            in_pktinfo pi;
            std::memcpy(&pi, CMSG_DATA(cm), sizeof pi);
            dst = IpGenAddr(pi.ipi_addr);
            arrivedOn = unsigned(pi.ipi_ifindex);
          } else if (cm->cmsg_level == IPPROTO_IPV6 && cm->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo pi;
            std::memcpy(&pi, CMSG_DATA(cm), sizeof pi);
            dst = IpGenAddr(pi.ipi6_addr);
            arrivedOn = pi.ipi6_ifindex;
          }
        }
        if (arrivedOn != ifindex) continue;
        if (auto it = slot.find(dst); it != slot.end()) ++c.count[it->second];
      }
    }
  }
  return c;
}

}  // namespace McastProbe
