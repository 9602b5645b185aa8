// libFuzzer target over the upcall receive path: the netlink socket's read
// (sender check, shape check, table check) and then the parser, as an agent
// runs them, with the system calls played by a fake.
//
// Input: byte 0 picks the receiving socket (IPv6 relay group, IPv4 relay
// group, IPv4 kernel group) and the sender (port id, uid or none); byte 1
// picks how the rest is read: as the whole datagram, or as patches (1-byte
// offset, 1-byte value) and a final length applied to one of a few valid
// reports, so the fuzzer spends its time near what passes the first checks.
//
// What is a finding: any crash, sanitizer report or assertion, except the
// parser's deliberate ones (family byte, message type, unresolvable VIF)
// for a datagram whose sender the socket trusts: those are invariants of
// what the kernel and this system's relay send. The same assertion for an
// untrusted sender means the check let it through, and is a finding.
//
//   tests/MrtNotify/fuzz/build.sh && /tmp/MrtNotifyFuzz -max_total_time=60
// `make test` runs it for a few seconds (ctest entry MrtNotifyFuzz).
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "CacheReportBuilder.h"
#include "FakeSys.h"
#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "MrtNotify/MrtNotifyPam.h"

using namespace Routing::Multicast::Notify;

namespace {

struct Deliberate {};
bool senderTrusted = false;

char const* const deliberate[] = {"rtgenmsg->rtgen_family == 128", "rtgenmsg->rtgen_family == 129",
                                  "mrtMsg && \"No msgtype found\"", "mrtMsg->intfId()"};

using Bytes = std::vector<std::uint8_t>;

using Report = CacheReportBuilder::CacheReport;
using CacheReportBuilder::put;

// Valid reports of each form the receivers hear.
std::vector<Bytes> templates() {
  Bytes v6addr(16, 0x20), v6grp(16, 0xff);
  Bytes inner6(48, 0);
  inner6[0] = 0x60;
  Bytes inner4(28, 0);
  inner4[0] = 0x45;
  std::vector<Bytes> t;
  t.push_back(Report(129).attr(1, {1}).attr(3, v6addr).attr(4, v6grp).attr(2, {1, 0, 0, 0}).done());
  t.push_back(Report(129).attr(1, {3}).attr(3, v6addr).attr(4, v6grp).attr(6, Bytes(8, 3)).attr(5, inner6).done());
  t.push_back(Report(128)
                  .attr(1, {1})
                  .attr(2, {0, 0, 0, 0})
                  .attr(3, {10, 0, 1, 2})
                  .attr(4, {239, 1, 1, 1})
                  .attr(6, {253, 0, 0, 0})
                  .attr(5, Bytes(8, 0))
                  .done());
  t.push_back(Report(128).attr(1, {2}).attr(3, {10, 0, 1, 2}).attr(4, {239, 1, 1, 1}).attr(2, {2, 0, 0, 0}).done());
  t.push_back(Report(128).attr(1, {3}).attr(2, {0, 0, 0, 0}).attr(6, {253, 0, 0, 0}).attr(5, inner4).done());
  return t;
}

struct World {
  MrtNotifyTest::FakeSys sys;
  Kiv::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::Status::statusIs("kernelMfib");
  Kiv::Ptr<MrtNotifyPamManager> managers[3];
  std::vector<Bytes> reports = templates();

  World() {
    for (std::uint16_t v = 0; v < 4; ++v) status->vifIntfIs(v, Wirly::IntfId("Ethernet" + std::to_string(v + 1)));
    sys.env["MCAST_NO_NETLINK"] = "1";
    managers[0] = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName());
    managers[1] = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
    managers[1]->useNetlinkIs(true);
    managers[2] = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
    managers[2]->ipv4NativeReportsIs(true);
    managers[2]->useNetlinkIs(true);
    for (auto& m : managers) {
      m->optionsIs(nocache | wrongvif | wholepkt);
      m->trustedUidIs(1000, true);
      m->pam()->enabledIs(true);
    }
  }
};

World& world() {
  static World* w = [] {
    ::setenv("BRISKLOG", "off", 1);
    return new World;
  }();
  return *w;
}

}  // namespace

namespace Kiv {
void assertionFailed(char const* expression, char const* file, int line, char const* function) {
  if (senderTrusted)
    for (char const* d : deliberate)
      if (std::strcmp(expression, d) == 0) throw Deliberate{};
  std::fprintf(stderr, "Assertion failed: %s (%s:%d, %s)%s\n", expression, file, line, function,
               senderTrusted ? "" : " from an untrusted sender");
  std::abort();
}
}  // namespace Kiv

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 2) return 0;
  World& w = world();
  std::uint8_t const mode = data[0], form = data[1];
  data += 2;
  size -= 2;

  Bytes payload;
  if (form & 1) {
    payload = w.reports[(form >> 1) % w.reports.size()];
    std::size_t i = 0;
    for (; i + 2 <= size; i += 2) {
      if (payload.empty()) break;
      payload[data[i] % payload.size()] = data[i + 1];
    }
    if (i < size) payload.resize(std::size_t(data[i]) * payload.size() / 255);
  } else {
    payload.assign(data, data + size);
  }

  auto& manager = *w.managers[mode % 3];
  auto const& pam = static_cast<MrtNotifyNetlinkSocketPam const&>(*manager.pam());
  bool const kernelGroup = mode % 3 == 2;
  // Sender: port id 0 or not; uid root, trusted 1000, untrusted 65534, or none.
  std::uint32_t const port = (mode & 0x10) ? 0 : 5150;
  int const uidPick = (mode >> 5) & 3;
  std::int64_t const uid = uidPick == 0 ? 0 : uidPick == 1 ? 1000 : uidPick == 2 ? 65534 : -1;
  senderTrusted = kernelGroup ? port == 0 : (uid == 0 || uid == 1000);

  MrtNotifyTest::Datagram d;
  d.payload = payload;
  sockaddr_nl from{};
  from.nl_family = AF_NETLINK;
  from.nl_pid = port;
  d.from(from);
  if (uid >= 0) d.cmsg(SOL_SOCKET, SCM_CREDENTIALS, ucred{1, uid_t(uid), 0});
  w.sys.calls.clear();  // the fake keeps a record of every call
  w.sys.rx.push_back(d.play());

  // The sender is judged before the shape: an untrusted datagram is never
  // handed on, nor counted as anything but untrusted (an empty or cut one
  // is dropped by the read before any judgement).
  std::uint32_t const shapeDrops = pam.rxMalformedDrops() + pam.rxOtherTableDrops();
  auto pkt = manager.pam()->rxPkt();
  if (!senderTrusted && (pkt || pam.rxMalformedDrops() + pam.rxOtherTableDrops() != shapeDrops)) {
    std::fprintf(stderr, "an untrusted datagram was not dropped as such\n");
    std::abort();
  }
  if (!pkt) return 0;
  try {
    manager.readMrtMessage(pkt, w.status);
  } catch (Deliberate const&) {
  }
  return 0;
}
