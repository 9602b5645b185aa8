#include "Churn.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
// The kernel's multicast routing header after the C library's.
#include <linux/mroute.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

namespace FlowBurst {

namespace {

char const* const usage =
    "usage: flow-burst mfc-wait --source ADDR --groups FIRST --routes N --iif IF --oifs IF[,IF...]\n"
    "                           --since-file FILE [--timeout S] [--dumps yes|no] [--system NAME] [--out FILE]\n"
    "       flow-burst mfc-floor --source ADDR --groups FIRST --routes N --iif IF --oifs IF[,IF...]\n"
    "                            --oifs2 IF[,IF...] [--system NAME] [--out FILE]\n";

[[noreturn]] void fail(std::string const& what) {
  std::cerr << "flow-burst: " << what << '\n';
  std::exit(2);
}

[[noreturn]] void failErrno(std::string const& what) { fail(what + ": " + std::strerror(errno)); }

double realtimeS() {
  timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

double monotonicS() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

struct Args {
  std::map<std::string, std::string> v;
  Args(int argc, char** argv) {
    for (int i = 2; i < argc; i += 2) {
      std::string const k = argv[i];
      if (k.rfind("--", 0) != 0 || i + 1 >= argc) fail(std::string("bad argument: ") + argv[i] + "\n" + usage);
      v[k.substr(2)] = argv[i + 1];
    }
  }
  std::string need(char const* k) const {
    auto it = v.find(k);
    if (it == v.end()) fail(std::string("missing --") + k + "\n" + usage);
    return it->second;
  }
  std::string get(char const* k, std::string const& dflt) const {
    auto it = v.find(k);
    return it == v.end() ? dflt : it->second;
  }
  double number(char const* k, double dflt) const {
    auto it = v.find(k);
    if (it == v.end()) return dflt;
    char* end = nullptr;
    double const d = std::strtod(it->second.c_str(), &end);
    if (!end || *end || d <= 0) fail(std::string("bad --") + k + ": " + it->second);
    return d;
  }
};

std::uint32_t parseV4(std::string const& text) {
  in_addr a{};
  if (::inet_pton(AF_INET, text.c_str(), &a) != 1) fail("bad address: " + text);
  return ntohl(a.s_addr);
}

int ifIndex(std::string const& name) {
  int const i = int(::if_nametoindex(name.c_str()));
  if (i == 0) fail("unknown interface " + name);
  return i;
}

std::vector<int> ifIndexes(std::string const& list) {
  std::vector<int> out;
  std::stringstream ss(list);
  for (std::string n; std::getline(ss, n, ',');) out.push_back(ifIndex(n));
  std::sort(out.begin(), out.end());
  return out;
}

// The routes under watch: source, groups firstGroup.., and what each should be.
struct Target {
  std::uint32_t source = 0, firstGroup = 0;
  unsigned routes = 0;
  int iif = 0;
  std::vector<int> oifs;  // sorted

  void parse(Args const& a) {
    source = parseV4(a.need("source"));
    firstGroup = parseV4(a.need("groups"));
    routes = unsigned(a.number("routes", 0));
    if (routes == 0 || routes > (1u << 24)) fail("--routes must be 1 to 16777216");
    if ((firstGroup >> 28) != 0xE || ((firstGroup + routes - 1) >> 28) != 0xE)
      fail("--groups and --routes must stay inside 224.0.0.0/4");
    iif = ifIndex(a.need("iif"));
    oifs = ifIndexes(a.need("oifs"));
  }
};

class Tracker {
 public:
  explicit Tracker(Target const& t) : t_(t), ok_(t.routes, 0) {}
  // Whether r concerns the watched routes.
  bool apply(MfcRoute const& r) {
    if (r.source != t_.source || r.group - t_.firstGroup >= t_.routes) return false;
    std::vector<int> oifs = r.oifs;
    std::sort(oifs.begin(), oifs.end());
    bool const good = !r.removed && !r.unresolved && r.iif == t_.iif && oifs == t_.oifs;
    std::uint8_t& slot = ok_[r.group - t_.firstGroup];
    if (good != bool(slot)) {
      count_ += good ? 1 : -1;
      slot = good;
    }
    return true;
  }
  void clear() {
    std::fill(ok_.begin(), ok_.end(), 0);
    count_ = 0;
  }
  long count() const { return count_; }
  bool done() const { return count_ == long(t_.routes); }

 private:
  Target const& t_;
  std::vector<std::uint8_t> ok_;
  long count_ = 0;
};

int netlinkSocket() {
  int const fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) failErrno("netlink socket");
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0) failErrno("netlink bind");
  return fd;
}

// The kernel's whole IPv4 forwarding cache, message by message.
void dump(std::function<void(MfcRoute const&)> const& fn) {
  int const fd = netlinkSocket();
  struct {
    nlmsghdr h;
    rtmsg r;
  } req{};
  req.h.nlmsg_len = sizeof req;
  req.h.nlmsg_type = RTM_GETROUTE;
  req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  req.h.nlmsg_seq = 1;
  req.r.rtm_family = RTNL_FAMILY_IPMR;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(fd, &req, sizeof req, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0)
    failErrno("netlink dump request");
  std::vector<char> buf(1 << 20);
  for (bool done = false; !done;) {
    ssize_t const n = ::recv(fd, buf.data(), buf.size(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      failErrno("netlink dump");
    }
    int error = 0;
    decodeMfcRoutes(buf.data(), std::size_t(n), fn, &done, &error);
    if (error != 0) fail(std::string("netlink dump refused: ") + std::strerror(-error));
  }
  ::close(fd);
}

void writeOut(Args const& a, std::string const& text) {
  std::cout << text << std::flush;
  std::string const out = a.get("out", "");
  if (out.empty()) return;
  std::ofstream f(out);
  f << text;
  if (!f) fail("cannot write " + out);
}

}  // namespace

std::size_t decodeMfcRoutes(void const* buf, std::size_t len, std::function<void(MfcRoute const&)> const& fn,
                            bool* done, int* error) {
  std::size_t n = 0;
  auto const* p = static_cast<char const*>(buf);
  for (std::size_t off = 0; off < len && len - off >= sizeof(nlmsghdr);) {
    auto const* h = reinterpret_cast<nlmsghdr const*>(p + off);
    if (h->nlmsg_len < sizeof(nlmsghdr) || h->nlmsg_len > len - off) break;
    off += NLMSG_ALIGN(h->nlmsg_len);
    if (h->nlmsg_type == NLMSG_DONE) {
      if (done) *done = true;
      continue;
    }
    if (h->nlmsg_type == NLMSG_ERROR) {
      if (h->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr)) && error)
        *error = static_cast<nlmsgerr const*>(NLMSG_DATA(h))->error;
      if (done) *done = true;
      continue;
    }
    if (h->nlmsg_type != RTM_NEWROUTE && h->nlmsg_type != RTM_DELROUTE) continue;
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) continue;
    auto const* rtm = static_cast<rtmsg const*>(NLMSG_DATA(h));
    if (rtm->rtm_family != RTNL_FAMILY_IPMR) continue;
    MfcRoute r;
    r.removed = h->nlmsg_type == RTM_DELROUTE;
    r.unresolved = (rtm->rtm_flags & RTNH_F_UNRESOLVED) != 0;
    bool haveSrc = false, haveGrp = false;
    int left = int(h->nlmsg_len - NLMSG_LENGTH(sizeof(rtmsg)));
    for (auto const* a = RTM_RTA(rtm); RTA_OK(a, left); a = RTA_NEXT(a, left)) {
      std::size_t const payload = RTA_PAYLOAD(a);
      if ((a->rta_type == RTA_SRC || a->rta_type == RTA_DST || a->rta_type == RTA_IIF) && payload == 4) {
        std::uint32_t v;
        std::memcpy(&v, RTA_DATA(a), 4);
        if (a->rta_type == RTA_SRC) {
          r.source = ntohl(v);
          haveSrc = true;
        } else if (a->rta_type == RTA_DST) {
          r.group = ntohl(v);
          haveGrp = true;
        } else {
          r.iif = int(v);
        }
      } else if (a->rta_type == RTA_MULTIPATH) {
        auto const* nh = static_cast<char const*>(RTA_DATA(a));
        for (std::size_t at = 0; payload - at >= sizeof(rtnexthop);) {
          rtnexthop hop;
          std::memcpy(&hop, nh + at, sizeof hop);
          if (hop.rtnh_len < sizeof(rtnexthop) || hop.rtnh_len > payload - at) break;
          r.oifs.push_back(hop.rtnh_ifindex);
          at += RTNH_ALIGN(hop.rtnh_len);
        }
      }
    }
    if (!haveSrc || !haveGrp) continue;
    fn(r);
    ++n;
  }
  return n;
}

int mfcWait(int argc, char** argv) {
  Args const a(argc, argv);
  Target t;
  t.parse(a);
  std::string const sinceFile = a.need("since-file");
  double const timeoutS = a.number("timeout", 120);
  std::string const dumps = a.get("dumps", "yes");
  if (dumps != "yes" && dumps != "no") fail("--dumps takes yes or no");
  // The kernel resumes a dump by walking its table from the start, so one
  // dump of a million entries costs about a minute of CPU: without dumps,
  // no entry counts as wanted before the change, and the notifications are
  // the count (an overrun then fails the run).
  bool const useDumps = dumps == "yes";

  int const ev = netlinkSocket();
  int const grp = RTNLGRP_IPV4_MROUTE;
  if (::setsockopt(ev, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &grp, sizeof grp) < 0)
    failErrno("joining the kernel's multicast routing netlink group");
  // A million notifications may wait here while the daemon runs on the other core.
  int const rcvBuf = 1 << 30;
  if (::setsockopt(ev, SOL_SOCKET, SO_RCVBUFFORCE, &rcvBuf, sizeof rcvBuf) < 0 &&
      ::setsockopt(ev, SOL_SOCKET, SO_RCVBUF, &rcvBuf, sizeof rcvBuf) < 0)
    failErrno("SO_RCVBUF");

  Tracker tr(t);
  unsigned dumpCount = 0, overruns = 0;
  auto resync = [&] {
    tr.clear();
    dump([&](MfcRoute const& r) { tr.apply(r); });
    ++dumpCount;
  };
  if (useDumps) resync();
  long const atStart = tr.count();
  std::cout << "watching: " << atStart << " of " << t.routes << " as wanted" << std::endl;

  double const startMono = monotonicS();
  double firstChange = -1, allDone = -1;
  std::vector<char> buf(1 << 20);
  while (!tr.done() && monotonicS() - startMono < timeoutS && (useDumps || overruns == 0)) {
    pollfd p{ev, POLLIN, 0};
    if (::poll(&p, 1, 100) < 0 && errno != EINTR) failErrno("poll");
    for (;;) {
      ssize_t const n = ::recv(ev, buf.data(), buf.size(), MSG_DONTWAIT);
      if (n < 0) {
        if (errno == ENOBUFS) {
          // Notifications were lost: the kernel's table says where things are.
          ++overruns;
          if (firstChange < 0) firstChange = realtimeS();
          if (!useDumps) break;
          resync();
          continue;
        }
        if (errno == EAGAIN || errno == EINTR) break;
        failErrno("netlink recv");
      }
      bool mine = false;
      decodeMfcRoutes(buf.data(), std::size_t(n), [&](MfcRoute const& r) { mine |= tr.apply(r); });
      if (mine && firstChange < 0) firstChange = realtimeS();
      if (tr.done()) break;
    }
  }
  if (tr.done()) allDone = realtimeS();
  long const seen = tr.count();

  // When the change began, as its starter wrote it.
  double since = -1;
  for (int i = 0; i < 100 && since < 0; ++i) {
    std::ifstream f(sinceFile);
    if (!(f >> since)) {
      since = -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  if (since < 0) fail("nothing in " + sinceFile);

  Tracker check(t);
  if (useDumps) dump([&](MfcRoute const& r) { check.apply(r); });
  ::close(ev);
  long const atEnd = useDumps ? check.count() : overruns == 0 ? seen : -1;

  char line[160];
  std::string text = "system " + a.get("system", "watched") + "\n";
  auto add = [&](char const* k, std::string const& v) { text += std::string(k) + " " + v + "\n"; };
  auto secs = [&](double at) {
    if (at < 0) return std::string("-");
    std::snprintf(line, sizeof line, "%.2f", at - since);
    return std::string(line);
  };
  add("routes", std::to_string(t.routes));
  add("as_wanted_before", std::to_string(atStart));
  add("as_wanted_seen", std::to_string(seen));
  add("as_wanted_at_end", atEnd < 0 ? std::string("-") : std::to_string(atEnd));
  add("first_change_s", secs(firstChange));
  add("all_as_wanted_s", secs(allDone));
  add("notification_overruns", std::to_string(overruns));
  writeOut(a, text);
  return atEnd == long(t.routes) ? 0 : 1;
}

int mfcFloor(int argc, char** argv) {
  Args const a(argc, argv);
  Target t;
  t.parse(a);
  std::vector<int> const oifs2 = ifIndexes(a.need("oifs2"));
  int const sd = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP);
  if (sd < 0) failErrno("routing socket");
  int const one = 1;
  if (::setsockopt(sd, IPPROTO_IP, MRT_INIT, &one, sizeof one) < 0) failErrno("MRT_INIT");
  std::map<int, int> vifOf;
  auto vif = [&](int ifindex) {
    auto it = vifOf.find(ifindex);
    if (it != vifOf.end()) return it->second;
    vifctl v{};
    v.vifc_vifi = vifi_t(vifOf.size());
    v.vifc_flags = VIFF_USE_IFINDEX;
    v.vifc_threshold = 1;
    v.vifc_lcl_ifindex = ifindex;
    if (::setsockopt(sd, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof v) < 0) failErrno("MRT_ADD_VIF");
    return vifOf[ifindex] = v.vifc_vifi;
  };
  int const iif = vif(t.iif);
  std::string text = "system " + a.get("system", "floor") + "\nroutes " + std::to_string(t.routes) + "\n";
  // One pass: every entry written once, its wall and CPU time.
  auto pass = [&](std::vector<int> const& oifs, char const* what) {
    mfcctl c{};
    c.mfcc_origin.s_addr = htonl(t.source);
    c.mfcc_parent = vifi_t(iif);
    for (int o : oifs) c.mfcc_ttls[vif(o)] = 1;
    rusage r0, r1;
    ::getrusage(RUSAGE_SELF, &r0);
    double const t0 = monotonicS();
    unsigned refused = 0;
    for (unsigned i = 0; i < t.routes; ++i) {
      c.mfcc_mcastgrp.s_addr = htonl(t.firstGroup + i);
      if (::setsockopt(sd, IPPROTO_IP, MRT_ADD_MFC, &c, sizeof c) < 0) ++refused;
    }
    double const wall = monotonicS() - t0;
    ::getrusage(RUSAGE_SELF, &r1);
    auto us = [](timeval const& tv) { return double(tv.tv_sec) * 1e6 + double(tv.tv_usec); };
    double const cpu = us(r1.ru_utime) - us(r0.ru_utime) + us(r1.ru_stime) - us(r0.ru_stime);
    char line[200];
    std::snprintf(line, sizeof line, "%s_s %.2f\n%s_cpu_s %.2f\n%s_refused %u\n", what, wall, what, cpu / 1e6, what,
                  refused);
    text += line;
  };
  pass(t.oifs, "install");
  pass(oifs2, "churn1");
  rusage ru;
  ::getrusage(RUSAGE_SELF, &ru);
  text += "max_rss_kb " + std::to_string(ru.ru_maxrss) + "\n";
  ::close(sd);
  writeOut(a, text);
  return 0;
}

}  // namespace FlowBurst
