#include "MrtNotify/MrtNotifyNetlinkSocket.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <unistd.h>
#include "CacheReportBuilder.h"
#include "FakeSys.h"

#include <algorithm>

#include "Kiv/Exception.h"
#include "Kiv/Reflect.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"

namespace Routing::Multicast::Notify {
namespace {

using MrtNotifyTest::Datagram;
using MrtNotifyTest::FakeSys;
using MrtNotifyTest::rxError;
using Strings = std::vector<std::string>;

// Key strings of the calls as FakeSys records them.
std::string const attachFilter = "setsockopt(1,26)";
std::string const detachFilter = "setsockopt(1,27)";
std::string const rcvbufForce = "setsockopt(1,33)";
std::string const addMembership = "setsockopt(270,1)";
std::string const dropMembership = "setsockopt(270,2)";
std::string const passCred = "setsockopt(1,16)";

class MrtNotifyNetlinkSocketTest : public ::testing::Test {
 protected:
  Kiv::Ptr<MrtNotifyNetlinkSocketPam> make(Wirly::AddressFamily af) {
    auto p = mrtNotifyNetlinkSocketPamFactory("MrtNotify", Wirly::NamespaceName());
    p->afIs(af);
    return p;
  }
  FakeSys sys;
};

// The program as the filter table reads, written out independently.
std::vector<Wirly::IpFilter> expectedProgram(std::uint32_t family, std::uint32_t options) {
  std::vector<Wirly::IpFilter> p = {
      {0x28, 0, 0, 4},          {0x15, 1, 0, 24576}, {0x06, 0, 0, 0},  {0x30, 0, 0, 16},
      {0x15, 1, 0, family},     {0x06, 0, 0, 0},     {0x00, 0, 0, 20}, {0x01, 0, 0, 1},
      {0x20, 0, 0, 0xFFFFF00C}, {0x07, 0, 0, 0},     {0x50, 0, 0, 4},
  };
  if (options & 2) p.insert(p.end(), {{0x15, 0, 1, 1}, {0x06, 0, 0, 0xFFFFFFFF}});
  if (options & 1) p.insert(p.end(), {{0x15, 0, 1, 2}, {0x06, 0, 0, 0xFFFFFFFF}});
  if (options & 4) p.insert(p.end(), {{0x15, 0, 1, 3}, {0x06, 0, 0, 0xFFFFFFFF}});
  p.push_back({0x06, 0, 0, 0});
  return p;
}

TEST_F(MrtNotifyNetlinkSocketTest, FilterProgramForEveryOptionSetAndFamily) {
  for (auto af : {Wirly::ipv4, Wirly::ipv6}) {
    for (std::uint32_t options = 0; options < 8; ++options) {
      SCOPED_TRACE(testing::Message() << af << " options " << options);
      FakeSys local;
      auto p = make(af);
      p->optionsIs(options);
      p->enabledIs(true);
      auto const want = expectedProgram(af == Wirly::ipv4 ? 128 : 129, options);
      ASSERT_EQ(p->bpfLen(), want.size());
      ASSERT_EQ(p->rxFilter().size(), want.size());
      ASSERT_EQ(local.attached.size(), want.size());
      for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(p->rxFilter(std::uint8_t(i)), want[i]) << "instruction " << i;
        auto const& k = local.attached[i];
        EXPECT_EQ((Wirly::IpFilter{k.code, k.jt, k.jf, k.k}), want[i]) << "attached instruction " << i;
      }
    }
  }
}

TEST_F(MrtNotifyNetlinkSocketTest, SocketKindAndGroupFollowFamilyAndEnvironment) {
  struct Case {
    Wirly::AddressFamily af;
    bool relayVariable;
    bool ipv4Native;
    std::string socket;
    int group;
    bool native;
  };
  Case const cases[] = {
      {Wirly::ipv6, false, false, "socket(16,2,0)", 31, true},
      {Wirly::ipv6, true, false, "socket(16,3,2)", 31, false},
      {Wirly::ipv4, false, false, "socket(16,3,2)", 30, false},
      {Wirly::ipv4, true, true, "socket(16,2,0)", 30, true},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.socket + " group " + std::to_string(c.group));
    FakeSys local;
    if (c.relayVariable) local.env["MCAST_NO_NETLINK"] = "";
    auto p = make(c.af);
    p->ipv4NativeReportsIs(c.ipv4Native);
    p->enabledIs(true);
    Strings want{c.socket, attachFilter + "=12", "bind", rcvbufForce + "=1490",
                 addMembership + "=" + std::to_string(c.group)};
    // A relay group's senders are known by their credentials.
    if (!c.native) want.insert(want.begin() + 3, passCred + "=1");
    EXPECT_EQ(local.calls, want);
    EXPECT_EQ(p->isRtnlIpv6MrouteRSupported(), c.native);
    EXPECT_TRUE(p->enabled());
    std::size_t const before = local.calls.size();
    p->enabledIs(false);
    EXPECT_EQ(local.callsAfter(before), (Strings{dropMembership + "=" + std::to_string(c.group), "close"}));
    EXPECT_TRUE(local.openSockets().empty());
    EXPECT_EQ(p->sd(), -1);
    EXPECT_FALSE(p->fileDesc());
  }
}

TEST_F(MrtNotifyNetlinkSocketTest, SetupFailureClosesTheSocketAndRaisesTheCall) {
  struct Case {
    std::string failing;
    std::string call;
  };
  Case const cases[] = {
      {"socket(16,2,0)", "socket"},
      {attachFilter, "setsockopt(SO_ATTACH_FILTER)"},
      {"bind", "MrtNotifyNetlinkSocketPam::doSockInit: bind"},
      {rcvbufForce, "setsocketopt(SO_RCVBUFFORCE)"},
      {addMembership, "setsocketopt(NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)"},
      {passCred, "setsockopt(SO_PASSCRED)"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.failing);
    FakeSys local;
    local.fail[c.failing] = EPERM;
    if (c.failing == passCred) local.env["MCAST_NO_NETLINK"] = "1";
    auto p = make(Wirly::ipv6);
    try {
      p->enabledIs(true);
      ADD_FAILURE() << "no exception";
    } catch (Kiv::ErrnoException const& e) {
      EXPECT_EQ(e.call(), c.call);
      EXPECT_EQ(e.error(), EPERM);
    }
    EXPECT_TRUE(local.openSockets().empty());
    EXPECT_FALSE(p->enabled());
    EXPECT_EQ(p->sd(), -1);
    local.fail.clear();
    p->enabledIs(true);
    EXPECT_TRUE(p->enabled());
  }
}

TEST_F(MrtNotifyNetlinkSocketTest, FailedLeaveClosesAndRaises) {
  auto p = make(Wirly::ipv6);
  p->enabledIs(true);
  sys.fail[dropMembership] = EBADF;
  try {
    p->enabledIs(false);
    ADD_FAILURE() << "no exception";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.call(), "setsocketopt(NETLINK_DROP_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)");
  }
  EXPECT_TRUE(sys.openSockets().empty());
  EXPECT_FALSE(p->enabled());
}

TEST_F(MrtNotifyNetlinkSocketTest, OptionsReplaceTheFilterInPlaceOnlyWhileEnabled) {
  auto p = make(Wirly::ipv4);
  p->optionsIs(nocache);
  EXPECT_TRUE(sys.calls.empty());
  EXPECT_EQ(p->bpfLen(), 0u) << "the filter is built when the socket opens";
  p->enabledIs(true);
  EXPECT_EQ(p->bpfLen(), 14u);
  std::size_t const before = sys.calls.size();
  p->optionsIs(nocache | wrongvif | wholepkt);
  EXPECT_EQ(sys.callsAfter(before), (Strings{detachFilter + "=0", attachFilter + "=18"}));
  EXPECT_EQ(p->bpfLen(), 18u);

  sys.fail[detachFilter] = ENOMEM;
  try {
    p->optionsIs(0);
    ADD_FAILURE() << "no exception";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.call(), "setsockopt(SO_DETACH_FILTER)");
  }
  EXPECT_FALSE(p->enabled());
  EXPECT_TRUE(sys.openSockets().empty());
}

using Report = CacheReportBuilder::CacheReport;
using CacheReportBuilder::put;

// What the kernel sends for an IPv4 no-cache upcall of table `table`, in
// its order: type, VIF, source, group, table, packet.
Report kernelIpv4Report(std::uint32_t table = 253) {
  Report r(128);
  r.attr(1, {1}).value(2, std::uint32_t(0)).attr(3, {10, 0, 1, 2}).attr(4, {239, 1, 1, 1});
  r.value(6, table).attr(5, std::vector<std::uint8_t>(8, 0));
  return r;
}
Report relayIpv6Report() {
  Report r(129);
  std::vector<std::uint8_t> addr(16, 0);
  addr[0] = 0x20;
  r.attr(1, {1}).attr(3, addr);
  addr[0] = 0xff;
  r.attr(4, addr).value(2, std::uint32_t(1));
  return r;
}

class MrtNotifyNetlinkRxTest : public MrtNotifyNetlinkSocketTest {
 protected:
  void SetUp() override {
    pam = make(Wirly::ipv4);
    pam->enabledIs(true);
  }
  // A datagram from a port id, with the sender's credentials when uid is given.
  static Datagram from(std::uint32_t portId, std::vector<std::uint8_t> payload, std::int64_t uid = -1) {
    sockaddr_nl a{};
    a.nl_family = AF_NETLINK;
    a.nl_pid = portId;
    Datagram d;
    d.payload = std::move(payload);
    d.from(a);
    if (uid >= 0) d.cmsg(SOL_SOCKET, SCM_CREDENTIALS, ucred{4242, uid_t(uid), 0});
    return d;
  }
  // Plays one datagram; true when it was handed on.
  bool heard(Datagram const& d) {
    sys.rx.push_back(d.play());
    return bool(pam->rxPkt());
  }
  Kiv::Ptr<MrtNotifyNetlinkSocketPam> pam;
};

TEST_F(MrtNotifyNetlinkRxTest, ReadErrorsAreCountedAndTheSocketCarriesOn) {
  Kiv::TraceCapture cap("Mroute::MrtNotifySocket/2");
  auto const report = kernelIpv4Report().done();
  sys.rx.push_back(rxError(EAGAIN));
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(pam->rxErrors(), 0u);
  sys.rx.push_back(rxError(ENOBUFS));
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(pam->rxErrors(), 1u);
  EXPECT_EQ(cap.count("recvmsg failed with 105 (No buffer space available) "), 1u);
  auto big = report;
  big.resize(4000);
  EXPECT_FALSE(heard(from(7, big, 0))) << "a datagram cut short is not handed on";
  EXPECT_EQ(pam->rxErrors(), 2u);
  sys.rx.push_back(from(7, report, 0).play());
  auto pkt = pam->rxPkt();
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->len(), report.size());
  EXPECT_EQ(pam->rxPktCount(), 2u);
  EXPECT_TRUE(pam->enabled());
}

TEST_F(MrtNotifyNetlinkRxTest, RelaySendersAreHeardOnlyWithTrustedCredentials) {
  auto const report = kernelIpv4Report().done();
  EXPECT_EQ(pam->trustedUidMap(), (std::map<std::uint32_t, bool>{{0, true}, {::getuid(), true}}))
      << "root and this process's own uid from the start";
  EXPECT_TRUE(heard(from(4711, report, 0)));
  EXPECT_TRUE(heard(from(4711, report, ::getuid())));
  EXPECT_EQ(pam->rxUntrustedDrops(), 0u);

  EXPECT_FALSE(heard(from(4711, report, 65534)));
  EXPECT_EQ(pam->rxSenderUid(), 65534u);
  EXPECT_FALSE(heard(from(4711, report))) << "no credentials";
  EXPECT_EQ(pam->rxSenderUid(), MrtNotifyNetlinkSocketPam::noUid);
  Datagram cut = from(4711, report, 0);
  cut.flags = MSG_CTRUNC;
  EXPECT_FALSE(heard(cut)) << "credentials cut off";
  Datagram anonymous = from(4711, report, 0);
  anonymous.name.clear();
  EXPECT_FALSE(heard(anonymous)) << "no sender address";
  EXPECT_EQ(pam->rxUntrustedDrops(), 4u);

  // Configured: another uid joins, root leaves; port ids narrow further.
  pam->trustedUidIs(1000, true);
  EXPECT_TRUE(heard(from(4711, report, 1000)));
  Kiv::attrEntryDel(*pam, "trustedUid", "0");
  EXPECT_FALSE(heard(from(4711, report, 0)));
  pam->acceptedSenderIs(4711);
  EXPECT_FALSE(heard(from(666, report, 1000)));
  EXPECT_EQ(pam->rxSenderPortId(), 666u);
  EXPECT_TRUE(heard(from(4711, report, 1000)));
  EXPECT_EQ(pam->rxUntrustedDrops(), 6u);
  EXPECT_EQ(pam->rxMalformedDrops(), 0u);
  EXPECT_EQ(pam->rxPktCount(), 10u) << "every datagram read is counted, dropped or not";
}

TEST_F(MrtNotifyNetlinkRxTest, OnTheKernelsGroupOnlyPortIdZeroIsHeard) {
  FakeSys local;
  auto native = make(Wirly::ipv4);
  native->ipv4NativeReportsIs(true);
  native->enabledIs(true);
  EXPECT_EQ(std::count(local.calls.begin(), local.calls.end(), passCred + "=1"), 0);
  auto const report = kernelIpv4Report().done();
  for (std::uint32_t port : {0u, 4711u, 0u}) {
    local.rx.push_back(from(port, report).play());
    EXPECT_EQ(bool(native->rxPkt()), port == 0) << port;
  }
  // Credentials say nothing here: root unicasting to this port is still not the kernel.
  local.rx.push_back(from(99, report, 0).play());
  EXPECT_FALSE(native->rxPkt());
  EXPECT_EQ(native->rxUntrustedDrops(), 2u);
}

TEST_F(MrtNotifyNetlinkRxTest, ReportsOfAnotherTableAreDroppedBeforeParsing) {
  EXPECT_EQ(pam->mrtTable(), 253u);
  EXPECT_TRUE(heard(from(7, kernelIpv4Report(253).done(), 0)));
  EXPECT_FALSE(heard(from(7, kernelIpv4Report(10).done(), 0)));
  EXPECT_EQ(pam->rxOtherTableDrops(), 1u);
  Kiv::attrSet(*pam, "mrtTable", "10");
  EXPECT_TRUE(heard(from(7, kernelIpv4Report(10).done(), 0)));
  EXPECT_FALSE(heard(from(7, kernelIpv4Report(253).done(), 0)));
  // The relay's 8-byte interface id under the same number names no table.
  Report relayed(128);
  relayed.attr(1, {1}).attr(3, {10, 0, 1, 2}).attr(4, {239, 1, 1, 1}).value(6, std::uint64_t(0x0102030405));
  EXPECT_TRUE(heard(from(7, relayed.done(), 0)));
  EXPECT_EQ(pam->rxOtherTableDrops(), 2u);
  EXPECT_EQ(pam->rxMalformedDrops(), 0u);
}

TEST_F(MrtNotifyNetlinkRxTest, MalformedDatagramsAreDroppedAndCounted) {
  FakeSys local;
  local.env["MCAST_NO_NETLINK"] = "1";
  auto v6 = make(Wirly::ipv6);
  v6->enabledIs(true);
  auto const good = relayIpv6Report().done();
  struct Case {
    char const* what;
    std::vector<std::uint8_t> bytes;
  };
  auto with = [](Report r, auto edit) {
    edit(r);
    return r.done();
  };
  std::vector<Case> cases = {
      {"4-byte source", with(Report(129),
                             [](Report& r) {
                               r.attr(1, {1}).attr(3, {10, 0, 0, 1}).value(2, 1u);
                             })},
      {"empty message type", with(Report(129), [](Report& r) { r.attr(1, {}).value(2, 1u); })},
      {"2-byte MIF", with(Report(129),
                          [](Report& r) {
                            r.attr(1, {1}).attr(2, {1, 0});
                          })},
      {"message type twice", with(Report(129), [](Report& r) { r.attr(1, {1}).attr(1, {3}).value(2, 1u); })},
      {"4-byte attribute 6", with(Report(129), [](Report& r) { r.attr(1, {1}).value(6, 253u); })},
      {"shorter than a header", std::vector<std::uint8_t>(good.begin(), good.begin() + 12)},
      {"no cache report", std::vector<std::uint8_t>{16, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
  };
  // The message type cut off by the report's length, though its byte is in the datagram.
  auto cutType = good;
  put(cutType, 0, std::uint32_t(22));
  cases.push_back({"message type cut off", cutType});
  auto longer = good;
  put(longer, 0, std::uint32_t(good.size() + 4));
  cases.push_back({"report longer than the datagram", longer});
  auto reach = good;
  put(reach, 20, std::uint16_t(200));
  cases.push_back({"attribute beyond the report", reach});
  auto tail = good;
  tail.insert(tail.end(), {1, 2, 3, 4, 5});
  cases.push_back({"bytes after the last message", tail});
  std::uint32_t n = 0;
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    local.rx.push_back(from(7, c.bytes, 0).play());
    EXPECT_FALSE(v6->rxPkt());
    EXPECT_EQ(v6->rxMalformedDrops(), ++n);
  }
  // Still heard: the relay's report, one followed by DONE, one with an attribute type unknown here.
  auto done = good;
  done.insert(done.end(), {16, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  auto extra = relayIpv6Report();
  extra.attr(9, {1, 2, 3});
  for (auto const& b : {good, done, extra.done()}) {
    local.rx.push_back(from(7, b, 0).play());
    EXPECT_TRUE(v6->rxPkt());
  }
  EXPECT_EQ(v6->rxMalformedDrops(), n);
  EXPECT_EQ(v6->rxUntrustedDrops() + v6->rxOtherTableDrops(), 0u);
}

TEST_F(MrtNotifyNetlinkRxTest, DropsAreTracedEachAtDetailAndSummedAtMostOncePerSecond) {
  Kiv::FakeClock clock;
  auto const report = kernelIpv4Report().done();
  Kiv::TraceCapture cap("Mroute::MrtNotifySocket/0-6");
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(heard(from(7, report, 65534)));
  clock.advance(0.5);
  EXPECT_FALSE(heard(from(7, report, 65534)));
  EXPECT_FALSE(heard(from(7, kernelIpv4Report(9).done(), 0)));
  clock.advance(0.6);
  EXPECT_FALSE(heard(from(7, report, 65534)));
  auto const level2 = [&](std::string const& needle) {
    std::size_t k = 0;
    for (auto const& l : cap.lines()) k += l.level == 2 && l.text.find(needle) != std::string::npos;
    return k;
  };
  EXPECT_EQ(level2("Dropped 1 datagram(s) (untrusted sender) since the last such line; last: uid not trusted"), 1u);
  EXPECT_EQ(level2("Dropped 6 datagram(s) (untrusted sender)"), 1u);
  EXPECT_EQ(level2("Dropped 1 datagram(s) (other table)"), 1u);
  EXPECT_EQ(level2("Dropped"), 3u);
  EXPECT_EQ(cap.count("Report from uid 65534 port id 7"), 7u);
  EXPECT_EQ(pam->rxUntrustedDrops(), 7u);
}

// A message of the kinds the relay sends.
class TestMessage : public Wirly::MrtMessage {
 public:
  TestMessage(Wirly::MrtMessageType t, Kiv::Ptr<Wirly::Pkt> pkt = nullptr)
      : Wirly::MrtMessage("test", t), pkt_(std::move(pkt)) {}
  Kiv::Ptr<Wirly::Pkt> rcvdPkt() const override { return pkt_; }

 private:
  Kiv::Ptr<Wirly::Pkt> pkt_;
};

std::vector<std::uint8_t> bytes(std::initializer_list<int> b) { return std::vector<std::uint8_t>(b.begin(), b.end()); }

TEST_F(MrtNotifyNetlinkSocketTest, RelayedIpv4ReportLayout) {
  auto p = make(Wirly::ipv4);
  p->enableTxIs(true);
  EXPECT_TRUE(p->enableTx());
  Kiv::Ptr<Wirly::MrtMessage> m = new TestMessage(Wirly::MrtMessageType::igmpNoCache);
  m->sourceIs(Wirly::IpGenAddr("10.0.1.2"));
  m->groupIs(Wirly::IpGenAddr("239.1.2.3"));
  p->txMrtNotification(m, 0x0102);
  ASSERT_EQ(sys.sent.size(), 1u);
  auto const want = bytes({
      52,  0, 0, 0, 96,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // nlmsghdr
      128, 0, 0, 0,                                        // rtgenmsg
      5,   0, 1, 0, 1,   0, 0, 0,                          // MSGTYPE
      8,   0, 3, 0, 10,  0, 1, 2,                          // SRC_ADDR
      8,   0, 4, 0, 239, 1, 2, 3,                          // DST_ADDR
      8,   0, 2, 0, 2,   1, 0, 0,                          // VIF_ID
  });
  EXPECT_EQ(sys.sent[0], want);
  EXPECT_EQ(p->txErrors(), 0u);
}

TEST_F(MrtNotifyNetlinkSocketTest, RelayedIpv6WholePacketWithInterfaceId) {
  sys.env["MCAST_NO_NETLINK"] = "1";
  auto p = make(Wirly::ipv6);
  p->enableTxIs(true);
  auto data = Wirly::PktManager::global().newPkt(3);
  std::uint8_t const payload[3] = {0x60, 0xaa, 0xbb};
  data->headDataIs(payload, 3);
  Kiv::Ptr<Wirly::MrtMessage> m = new TestMessage(Wirly::MrtMessageType::igmpWholePkt, data);
  m->sourceIs(Wirly::IpGenAddr("2001:db8::2"));
  m->groupIs(Wirly::IpGenAddr("ff0e::1"));
  std::uint64_t const intf = Wirly::IntfId("Ethernet1").value();
  p->txMrtNotificationWithIntfId(m, intf);
  ASSERT_EQ(sys.sent.size(), 1u);
  auto const& s = sys.sent[0];
  ASSERT_EQ(s.size(), 88u);
  EXPECT_EQ(s[0], 88);
  EXPECT_EQ(s[16], 129);
  EXPECT_EQ(std::vector<std::uint8_t>(s.begin() + 20, s.begin() + 25), bytes({5, 0, 1, 0, 3}));
  EXPECT_EQ(std::vector<std::uint8_t>(s.begin() + 28, s.begin() + 32), bytes({20, 0, 3, 0}));
  EXPECT_EQ(std::vector<std::uint8_t>(s.begin() + 32, s.begin() + 34), bytes({0x20, 0x01}));
  EXPECT_EQ(std::vector<std::uint8_t>(s.begin() + 48, s.begin() + 52), bytes({20, 0, 4, 0}));
  EXPECT_EQ(s[52], 0xff);
  EXPECT_EQ(std::vector<std::uint8_t>(s.begin() + 68, s.begin() + 72), bytes({12, 0, 6, 0}));
  std::uint64_t got;
  std::memcpy(&got, s.data() + 72, 8);
  EXPECT_EQ(got, intf);
  EXPECT_EQ(std::vector<std::uint8_t>(s.begin() + 80, s.begin() + 88), bytes({7, 0, 5, 0, 0x60, 0xaa, 0xbb, 0}));
}

TEST_F(MrtNotifyNetlinkSocketTest, SendFailuresAreCountedExceptNobodyListening) {
  auto p = make(Wirly::ipv4);
  Kiv::Ptr<Wirly::MrtMessage> m = new TestMessage(Wirly::MrtMessageType::igmpWrongVif);
  p->txMrtNotification(m, 1);
  EXPECT_EQ(p->txErrors(), 1u) << "sending without a send side";
  p->enableTxIs(true);
  sys.sendErrno = ECONNREFUSED;
  p->txMrtNotification(m, 1);
  EXPECT_EQ(p->txErrors(), 1u);
  sys.sendErrno = EPERM;
  p->txMrtNotification(m, 1);
  EXPECT_EQ(p->txErrors(), 2u);
  p->enableTxIs(false);
  EXPECT_TRUE(sys.openSockets().empty());

  // The send side moves with a namespace change; here into one that does
  // not exist.
  p->enableTxIs(true);
  try {
    p->netNsIs(Wirly::NamespaceName("mrtnotify-test-no-such-ns"));
    ADD_FAILURE() << "no exception";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.error(), ENOENT);
  }
  EXPECT_FALSE(p->enableTx());
  EXPECT_TRUE(sys.openSockets().empty());
  p->netNsIs(Wirly::NamespaceName());

  sys.fail["bind"] = EADDRINUSE;
  try {
    p->enableTxIs(true);
    ADD_FAILURE() << "no exception";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.call(), "MrtNotifyNetlinkSocketPam::enableTxIs: bind");
  }
  EXPECT_FALSE(p->enableTx());
  EXPECT_TRUE(sys.openSockets().empty());
}

TEST_F(MrtNotifyNetlinkSocketTest, AnswersByNameWithTheBaseSocketsAttributesFirst) {
  auto p = make(Wirly::ipv4);
  std::vector<std::string> names;
  for (Kiv::Attr const& a : Kiv::typeInfo(*p).attrs()) names.push_back(a.name);
  EXPECT_EQ(names, (Strings{"af",
                            "netNs",
                            "options",
                            "enabled",
                            "sd",
                            "maxRxPktData",
                            "rxIfIndex",
                            "rxDstIpAddr",
                            "rxOrigDstIpAddr",
                            "rxTOS",
                            "rxTTL",
                            "rxSrcIpAddr",
                            "rxFlags",
                            "rxPktCount",
                            "rxMrt6msgCount",
                            "fileDesc",
                            "handleNetNs",
                            "handleCleanup",
                            "isRtnlIpv6MrouteRSupported",
                            "rxFilter",
                            "bpfLen",
                            "enableTx",
                            "ipv4NativeReports",
                            "rxErrors",
                            "txErrors",
                            "rxSenderPortId",
                            "rxSenderUid",
                            "trustedUid",
                            "mrtTable",
                            "rxUntrustedDrops",
                            "rxMalformedDrops",
                            "rxOtherTableDrops",
                            "txPortId"}));
  // Enabled by name, the socket builds and attaches the same program.
  Kiv::attrSet(*p, "options", "7");
  Kiv::attrSet(*p, "enabled", "True");
  ASSERT_TRUE(p->enabled());
  auto const want = expectedProgram(128, 7);
  EXPECT_EQ(Kiv::attrCount(*p, "rxFilter"), want.size());
  EXPECT_EQ(Kiv::attrGet(*p, "bpfLen"), std::to_string(want.size()));
  EXPECT_EQ(Kiv::attrLookup(*p, "rxFilter", "1"),
            "Value('Wirly::IpFilter', ** {'code': 21, 'jt': 1, 'jf': 0, 'k': 24576})");
  EXPECT_EQ(Wirly::IpFilter::fromStrep(Kiv::attrLookup(*p, "rxFilter", "1")), want[1]);
  EXPECT_THROW(Kiv::attrSet(*p, "rxErrors", "0"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*p, "af", "3"), Kiv::Exception);
  EXPECT_EQ(Kiv::attrGet(*p, "af"), Kiv::valueToStrep(Wirly::ipv4));
}

}  // namespace
}  // namespace Routing::Multicast::Notify
