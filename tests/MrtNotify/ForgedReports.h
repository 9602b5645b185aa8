// Forged cache reports from another local user, for kernel tests: a child
// process enters a network namespace, drops to uid and gid 65534 (no
// groups; or another uid given) and only then opens its netlink socket and
// sends.
//
//   ForgedReports::Forger f("mrtnR123", NETLINK_USERSOCK, 0, 1u << 30, ForgedReports::attackSet(Wirly::ipv6), 20000);
//   loop.runUntil([&] { return f.finished(); }, 30);
//   EXPECT_EQ(f.exitCode(), 0);   // every datagram went out as uid 65534
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <linux/netlink.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "CacheReportBuilder.h"
#include "Wirly/AddressFamily.h"

namespace ForgedReports {

using Bytes = std::vector<std::uint8_t>;

inline constexpr uid_t nobody = 65534;

using Report = CacheReportBuilder::CacheReport;
using CacheReportBuilder::put;

// Source and group of flow n: 10.66.x.y / 239.66.x.y, or 2001:db8:66::n /
// ff3e::66:n.
inline Bytes address(Wirly::AddressFamily af, bool group, std::uint32_t n) {
  if (af == Wirly::ipv4) return {std::uint8_t(group ? 239 : 10), 66, std::uint8_t(n >> 8), std::uint8_t(n)};
  Bytes a(16, 0);
  a[0] = group ? 0xff : 0x20;
  a[1] = group ? 0x3e : 0x01;
  if (!group) {
    a[2] = 0x0d;
    a[3] = 0xb8;
    a[5] = 0x66;
  } else {
    a[13] = 0x66;
  }
  a[14] = std::uint8_t(n >> 8);
  a[15] = std::uint8_t(n);
  return a;
}

// A no-cache report for flow n arriving on MIF/VIF `mif`: what a relay sends.
inline Bytes noCache(Wirly::AddressFamily af, std::uint32_t n, std::uint32_t mif = 0) {
  return Report(af).attr(1, {1}).attr(3, address(af, false, n)).attr(4, address(af, true, n)).mif(mif).done();
}

// Reports each of which stopped a receiver once: an unknown MIF, an empty
// or cut-off message type, a source of the other family's size, and a
// plain no-cache report (which an untrusted sender must not get installed).
inline std::vector<Bytes> attackSet(Wirly::AddressFamily af) {
  Wirly::AddressFamily const other = af == Wirly::ipv4 ? Wirly::ipv6 : Wirly::ipv4;
  std::vector<Bytes> set;
  set.push_back(noCache(af, 1, 77));
  set.push_back(Report(af).attr(1, {}).mif(0).attr(3, address(af, false, 2)).attr(4, address(af, true, 2)).done());
  Bytes cut = noCache(af, 3);
  put(cut, 0, std::uint32_t(22));
  set.push_back(cut);
  set.push_back(Report(af).attr(1, {1}).mif(0).attr(3, address(other, false, 4)).attr(4, address(af, true, 4)).done());
  set.push_back(Report(af).mif(0).attr(3, address(af, false, 5)).done());
  set.push_back(noCache(af, 6));
  return set;
}

// `count` copies of a valid report with 1-4 random bytes changed and, one
// time in four, a random cut.
inline std::vector<Bytes> mutations(Bytes const& base, int count, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Bytes> out;
  for (int i = 0; i < count; ++i) {
    Bytes b = base;
    int const changes = 1 + int(rng() % 4);
    for (int c = 0; c < changes; ++c) b[rng() % b.size()] = std::uint8_t(rng());
    if (rng() % 4 == 0) b.resize(1 + rng() % b.size());
    out.push_back(std::move(b));
  }
  return out;
}

// The child that sends, as `uid` (and the same gid), every datagram of
// `messages` and then `flood` no-cache reports for distinct flows, to
// netlink port `port` and groups mask `groups` of protocol `protocol` in
// namespace `ns`.
class Forger {
 public:
  static constexpr int sendFailed = 100;  // plus the errno

  Forger(std::string const& ns, int protocol, std::uint32_t port, std::uint32_t groups,
         std::vector<Bytes> const& messages, int flood = 0, Wirly::AddressFamily af = Wirly::ipv6, uid_t uid = nobody) {
    pid_ = ::fork();
    if (pid_ != 0) return;
    int const nsFd = ::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (nsFd < 0 || ::setns(nsFd, CLONE_NEWNET) != 0) ::_exit(10);
    if (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0 ||
        ::getuid() != uid || ::geteuid() != uid)
      ::_exit(11);
    int const sd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (sd < 0) ::_exit(12);
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = port;
    to.nl_groups = groups;
    auto send = [&](Bytes const& b) {
      if (::sendto(sd, b.data(), b.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&to), sizeof(to)) >= 0) return;
      // Nobody at the kernel's port, or a full receiver: the datagram is
      // lost, which is the receiver's business.
      if (errno == ECONNREFUSED || errno == EAGAIN) return;
      int const err = errno;
      std::fprintf(stderr, "forger: sendto of %zu bytes: %s\n", b.size(), std::strerror(err));
      ::_exit(sendFailed + (err < 100 ? err : 99));
    };
    for (Bytes const& m : messages) send(m);
    for (int i = 0; i < flood; ++i) send(noCache(af, 1000 + std::uint32_t(i)));
    ::_exit(0);
  }
  ~Forger() {
    if (pid_ > 0 && !finished()) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Forger(Forger const&) = delete;
  Forger& operator=(Forger const&) = delete;

  bool finished() {
    if (pid_ <= 0 || done_) return true;
    int st = 0;
    if (::waitpid(pid_, &st, WNOHANG) != pid_) return false;
    done_ = true;
    code_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return true;
  }
  // 0 when every datagram went out; 10-12 name the step that failed
  // (namespace, privileges, socket), sendFailed + errno a refused send.
  int exitCode() const { return code_; }

 private:
  pid_t pid_ = -1;
  bool done_ = false;
  int code_ = -1;
};

}  // namespace ForgedReports
