// The upcall parser from crafted buffers: both wire forms, every kind, the
// malformed inputs it must survive, and the four conditions it must not.
#include "MrtNotify/MrtNotifyPam.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "CacheReportBuilder.h"
#include "FakeSys.h"
#include "Kiv/Trace.h"

namespace Routing::Multicast::Notify {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Type = Wirly::MrtMessageType;

Kiv::Ptr<Wirly::Pkt> packet(Bytes const& b) {
  auto p = Wirly::PktManager::global().newPkt(b.size());
  p->headDataIs(b.data(), b.size());
  return p;
}

using CacheReportBuilder::addrBytes;

using Report = CacheReportBuilder::CacheReport;
using CacheReportBuilder::put;

Bytes frame(std::uint16_t nlType, std::size_t len = 16) {
  Bytes b(len, 0);
  put(b, 0, std::uint32_t(len));
  put(b, 4, nlType);
  return b;
}

Bytes cat(Bytes a, Bytes const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// igmpmsg over a 20-byte IPv4 header.
Bytes igmpmsg(std::uint8_t type, std::uint16_t vif, char const* src, char const* grp) {
  Bytes b(20, 0);
  b[0] = 0x45;
  b[8] = type;
  b[10] = std::uint8_t(vif & 0xFF);
  b[11] = std::uint8_t(vif >> 8);
  auto s = addrBytes(src), g = addrBytes(grp);
  std::copy(s.begin(), s.end(), b.begin() + 12);
  std::copy(g.begin(), g.end(), b.begin() + 16);
  return b;
}

Bytes ipv4Packet(char const* src, char const* grp) {
  Bytes b(28, 0);
  b[0] = 0x45;
  b[9] = 17;
  auto s = addrBytes(src), g = addrBytes(grp);
  std::copy(s.begin(), s.end(), b.begin() + 12);
  std::copy(g.begin(), g.end(), b.begin() + 16);
  return b;
}

Bytes ipv6Packet(char const* src, char const* grp) {
  Bytes b(48, 0);
  b[0] = 0x60;
  auto s = addrBytes(src), g = addrBytes(grp);
  std::copy(s.begin(), s.end(), b.begin() + 8);
  std::copy(g.begin(), g.end(), b.begin() + 24);
  return b;
}

// Counts announcements and checks that the message is filled before its
// counter moves.
struct Watch : MrtNotifyPamManager::NotifieeConst {
  explicit Watch(Kiv::Ptr<MrtNotifyPamManager> const& m) : NotifieeConst(m) {}
  void onNoCacheCounter() override {
    seen.push_back(notifier()->noCacheMessage()->group());
    ++noCache;
  }
  void onWrongVifCounter() override {
    seen.push_back(notifier()->wrongVifMessage()->group());
    ++wrongVif;
  }
  void onWholePktCounter() override {
    seen.push_back(notifier()->wholePktMessage()->group());
    ++wholePkt;
  }
  int noCache = 0, wrongVif = 0, wholePkt = 0;
  std::vector<Wirly::IpGenAddr> seen;
  int total() const { return noCache + wrongVif + wholePkt; }
};

class ParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    status->vifIntfIs(0, Wirly::IntfId("Ethernet1"));
    status->vifIntfIs(3, Wirly::IntfId("Ethernet3"));
    status->vifIntfIs(258, Wirly::IntfId("Ethernet258"));
  }
  Kiv::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::Status::statusIs("kernelMfib");
};

TEST_F(ParserTest, RoutingSocketFormPublishesEachKindIntoItsMailbox) {
  auto m = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  Watch w(m);
  auto const noCacheBox = m->noCacheMessage();
  ASSERT_TRUE(noCacheBox && m->wrongVifMessage() && m->wholePktMessage());

  EXPECT_EQ(m->readMrtMessage(packet(igmpmsg(1, 258, "10.0.1.2", "239.1.1.1")), status), Type::igmpNoCache);
  EXPECT_EQ(m->noCacheMessage()->intfId(), Wirly::IntfId("Ethernet258")) << "VIF is 16 bits, little-endian";
  EXPECT_EQ(m->noCacheMessage()->source(), Wirly::IpGenAddr("10.0.1.2"));
  EXPECT_EQ(m->readMrtMessage(packet(igmpmsg(2, 3, "10.0.1.3", "239.1.1.2")), status), Type::igmpWrongVif);
  EXPECT_EQ(m->wrongVifMessage()->intfId(), Wirly::IntfId("Ethernet3"));
  // A second no-cache upcall overwrites the same entity; a VIF the kernel
  // status does not know gives the empty interface.
  EXPECT_EQ(m->readMrtMessage(packet(igmpmsg(1, 7, "10.0.1.4", "239.1.1.4")), status), Type::igmpNoCache);
  EXPECT_EQ(m->noCacheMessage(), noCacheBox);
  EXPECT_EQ(m->noCacheMessage()->intfId(), Wirly::IntfId());
  EXPECT_EQ(m->noCacheCounter(), 2u);
  EXPECT_EQ(m->wrongVifCounter(), 1u);
  EXPECT_EQ(w.seen, (std::vector<Wirly::IpGenAddr>{Wirly::IpGenAddr("239.1.1.1"), Wirly::IpGenAddr("239.1.1.2"),
                                                   Wirly::IpGenAddr("239.1.1.4")}));

  Kiv::TraceCapture cap("Mroute::MrtNotifyPam");
  EXPECT_EQ(m->readMrtMessage(packet(igmpmsg(4, 0, "10.0.1.2", "239.1.1.1")), status), Type::none);
  EXPECT_EQ(m->readMrtMessage(packet(Bytes(19, 0)), status), Type::none);
  Bytes shortWhole = igmpmsg(3, 0, "10.0.1.2", "239.1.1.1");
  shortWhole.resize(30);
  EXPECT_EQ(m->readMrtMessage(packet(shortWhole), status), Type::none);
  EXPECT_EQ(cap.count("MrtNotify Rcv: Invalid MRT Alert"), 3u);
  EXPECT_EQ(w.total(), 3);
}

TEST_F(ParserTest, RoutingSocketWholePacketTakesTheFlowFromTheInnerHeaderWithoutCopying) {
  auto m = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  auto pkt = packet(cat(igmpmsg(3, 0, "0.0.0.0", "0.0.0.0"), ipv4Packet("10.0.1.2", "239.1.1.3")));
  Kiv::TraceCapture cap("Mroute::MrtNotifyPam");
  EXPECT_EQ(m->readMrtMessage(pkt, status), Type::igmpWholePkt);
  auto const& msg = *m->wholePktMessage();
  EXPECT_EQ(msg.source(), Wirly::IpGenAddr("10.0.1.2"));
  EXPECT_EQ(msg.group(), Wirly::IpGenAddr("239.1.1.3"));
  EXPECT_EQ(msg.intfId(), Wirly::IntfId("Ethernet1"));
  EXPECT_EQ(msg.rcvdPkt(), pkt) << "the received buffer itself, its head removed";
  EXPECT_EQ(pkt->len(), 28u);
  EXPECT_EQ(pkt->data()[0], 0x45);
  EXPECT_EQ(m->wholePktCounter(), 1u);
  EXPECT_TRUE(cap.contains("WholePktMessage on intf:Ethernet1 for src: 10.0.1.2 and grp: 239.1.1.3"));
  EXPECT_TRUE(cap.contains("src: 10.0.1.2dst: 239.1.1.3 iif: Ethernet1"));
}

struct Fam {
  Wirly::AddressFamily af;
  std::uint8_t rtnl;
  char const* src;
  char const* grp;
  char const* other;
};
class NetlinkTest : public ParserTest, public ::testing::WithParamInterface<Fam> {
 protected:
  Kiv::Ptr<MrtNotifyPamManager> manager() {
    auto m = mrtNotifyPamManagerFactory(GetParam().af, Wirly::NamespaceName());
    m->useNetlinkIs(true);
    return m;
  }
  Report report(std::uint8_t type) const {
    Fam const f = GetParam();
    Report r(f.rtnl);
    r.msgType(type).mif(3).src(f.src).dst(f.grp);
    return r;
  }
};

TEST_P(NetlinkTest, EachKindIsPublishedWithItsInterfaceSourceAndGroup) {
  auto m = manager();
  Watch w(m);
  Fam const f = GetParam();
  for (std::uint8_t type : {1, 2}) {
    ASSERT_EQ(m->readMrtMessage(packet(report(type).done()), status), Type(type));
    Wirly::MrtMessage const& msg =
        type == 1 ? static_cast<Wirly::MrtMessage&>(*m->noCacheMessage()) : *m->wrongVifMessage();
    EXPECT_EQ(msg.intfId(), Wirly::IntfId("Ethernet3"));
    EXPECT_EQ(msg.source(), Wirly::IpGenAddr(f.src));
    EXPECT_EQ(msg.group(), Wirly::IpGenAddr(f.grp));
  }
  EXPECT_EQ(w.noCache, 1);
  EXPECT_EQ(w.wrongVif, 1);
}

TEST_P(NetlinkTest, OnlyTheFirstCacheReportOfADatagramIsUsedAndFramesAreWalked) {
  auto m = manager();
  Watch w(m);
  Fam const f = GetParam();
  Kiv::TraceCapture cap("Mroute::MrtNotifyPam");
  // NOOP and DONE are passed over, an error is traced, the second report is
  // warned about once.
  Bytes const two = cat(cat(cat(frame(1), frame(3)), cat(frame(2, 20), report(1).done())), report(2).done());
  EXPECT_EQ(m->readMrtMessage(packet(two), status), Type::igmpNoCache);
  EXPECT_EQ(cap.count("WARN: More than one message in one pkt. Returning first one, discarding others."), 1u);
  EXPECT_EQ(cap.count("NLMSG_ERROR: 0"), 1u);
  EXPECT_EQ(w.total(), 1);
  EXPECT_EQ(m->noCacheMessage()->group(), Wirly::IpGenAddr(f.grp));

  // Framing that cannot be trusted gives nothing.
  cap.clear();
  Bytes tooLong = report(1).done();
  put(tooLong, 0, std::uint32_t(tooLong.size() + 4));
  Bytes cutFamily = frame(96, 18);
  for (Bytes const& bad : {Bytes(15, 0), tooLong, frame(3), frame(0x77), cutFamily, Bytes{}}) {
    EXPECT_EQ(m->readMrtMessage(packet(bad), status), Type::none);
  }
  EXPECT_EQ(cap.count("MrtNotify Rcv: Invalid MRT Alert"), 6u);
  EXPECT_EQ(cap.count("Unexpected Netlink message type: 119"), 1u);
  EXPECT_EQ(w.total(), 1);
}

TEST_P(NetlinkTest, UnknownAttributesAreSkippedAndMisshapenReportsDroppedWhole) {
  auto m = manager();
  Watch w(m);
  Fam const f = GetParam();
  Kiv::TraceCapture cap("Mroute::MrtNotifyPam");
  // Type 7 is skipped; the report is still published with the VIF's
  // interface. On IPv4 the kernel's 4-byte table id under 6 is no
  // interface id.
  Report r = report(1);
  r.attr(7, Bytes{1, 2, 3, 4});
  if (f.af == Wirly::ipv4) r.attr(6, Bytes{253, 0, 0, 0});
  EXPECT_EQ(m->readMrtMessage(packet(r.done()), status), Type::igmpNoCache);
  EXPECT_EQ(m->noCacheMessage()->intfId(), Wirly::IntfId("Ethernet3"));
  EXPECT_EQ(cap.count("Unexpected Netlink attribute type: 7"), 1u);

  // An address of the other family's size (the 4-byte IPv6 source), an
  // attribute claiming more than the report holds (what follows it in the
  // buffer is a destination), an empty message type: nothing of them is
  // taken, not even the valid attributes before the fault.
  Report shortSrc(f.rtnl);
  shortSrc.msgType(1).mif(3).attr(3, addrBytes(f.af == Wirly::ipv4 ? "2001:db8::1" : "10.0.0.1")).dst(f.grp);
  Report cut(f.rtnl);
  cut.msgType(1).mif(3).src(f.src);
  Bytes cutBytes = cut.done();
  std::size_t const lenAt = cutBytes.size();
  Report tail(f.rtnl);
  tail.dst(f.other);
  cutBytes.insert(cutBytes.end(), tail.b.begin() + 20, tail.b.end());
  put(cutBytes, lenAt, std::uint16_t(200));
  put(cutBytes, 0, std::uint32_t(lenAt + 8));
  Report emptyType(f.rtnl);
  emptyType.attr(1, Bytes{}).mif(3).src(f.src).dst(f.grp);
  cap.clear();
  for (Bytes const& bad : {shortSrc.done(), cutBytes, emptyType.done()})
    EXPECT_EQ(m->readMrtMessage(packet(bad), status), Type::none);
  EXPECT_EQ(cap.count("MrtNotify Rcv: Invalid MRT Alert"), 3u);
  EXPECT_EQ(cap.count("Dropping malformed datagram"), 3u);
  EXPECT_EQ(w.total(), 1);
}

// Every cut of a report, its nlmsg_len saying so, in a buffer of exactly
// that size (the sanitizer build sees any read past it): what lies beyond
// the cut is never taken.
TEST_P(NetlinkTest, ACutReportIsReadOnlyUpToItsLength) {
  Fam const f = GetParam();
  auto noCache = noCacheMessageFactory("n");
  auto wrongVif = wrongVifMessageFactory("w");
  auto whole = wholePktMessageFactory("p");
  Report r(f.rtnl);
  r.msgType(1).mif(3);
  std::size_t const keep = r.done().size();  // type and VIF: nothing fatal is missing
  r.src(f.src).dst(f.grp).attr(7, Bytes(5, 1));
  Bytes const full = r.done();
  std::size_t const srcEnd = keep + 4 + (f.af == Wirly::ipv4 ? 4 : 16);
  for (std::size_t len = keep; len <= full.size(); ++len) {
    SCOPED_TRACE(len);
    std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[len]);
    std::memcpy(exact.get(), full.data(), len);
    std::uint32_t const l = std::uint32_t(len);
    std::memcpy(exact.get(), &l, 4);
    auto msg = MrtNotifyPamManager::readNetlinkMrtMessage(f.af, reinterpret_cast<nlmsghdr*>(exact.get()), wrongVif,
                                                          noCache, whole, status);
    ASSERT_EQ(msg, noCache);
    EXPECT_EQ(msg->source().isUnspecified(), len < srcEnd);
    EXPECT_EQ(msg->group().isUnspecified(), len < srcEnd + (srcEnd - keep));
  }
}

TEST_P(NetlinkTest, WholePacketTakesInterfaceFromIdAndFlowFromThePacketHeader) {
  auto m = manager();
  Fam const f = GetParam();
  Bytes const inner = f.af == Wirly::ipv4 ? ipv4Packet(f.src, f.grp) : ipv6Packet(f.src, f.grp);
  Report r(f.rtnl);
  r.msgType(3).mif(0).src(f.other).dst(f.other).intfId(Wirly::IntfId("Ethernet9").value()).attr(5, inner);
  Bytes const buf = r.done();
  auto pkt = packet(buf);
  EXPECT_EQ(m->readMrtMessage(pkt, status), Type::igmpWholePkt);
  auto const& msg = *m->wholePktMessage();
  EXPECT_EQ(msg.intfId(), Wirly::IntfId("Ethernet9"));
  EXPECT_EQ(msg.source(), Wirly::IpGenAddr(f.src));
  EXPECT_EQ(msg.group(), Wirly::IpGenAddr(f.grp));
  ASSERT_TRUE(msg.rcvdPkt());
  EXPECT_NE(msg.rcvdPkt(), pkt) << "a copy";
  EXPECT_EQ(Bytes(msg.rcvdPkt()->data(), msg.rcvdPkt()->data() + msg.rcvdPkt()->len()), inner);
  // The copy is the message's own: refilling the receive buffer changes nothing.
  std::memset(pkt->data(), 0xEE, pkt->len());
  EXPECT_EQ(msg.rcvdPkt()->data()[0], inner[0]);
  EXPECT_EQ(m->wholePktCounter(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Families, NetlinkTest,
                         ::testing::Values(Fam{Wirly::ipv4, 128, "10.0.1.2", "239.1.1.1", "10.9.9.9"},
                                           Fam{Wirly::ipv6, 129, "2001:db8:1::2", "ff0e::1:1", "2001:db8::99"}),
                         [](auto const& i) { return std::string(i.param.af == Wirly::ipv4 ? "Ipv4" : "Ipv6"); });

TEST_F(ParserTest, CountersWrapAndAnUnchangedValueNotifiesNobody) {
  auto m = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  Watch w(m);
  m->noCacheCounterIs(0xFFFFFFFFu);
  EXPECT_EQ(w.noCache, 1);
  EXPECT_EQ(m->readMrtMessage(packet(igmpmsg(1, 0, "10.0.1.2", "239.1.1.1")), status), Type::igmpNoCache);
  EXPECT_EQ(m->noCacheCounter(), 0u);
  EXPECT_EQ(w.noCache, 2);
  EXPECT_EQ(m->wholePktCounterInc(0), 0u);
  EXPECT_EQ(m->wrongVifCounterInc(0xFFFFFFFFu), 0xFFFFFFFFu);
  EXPECT_EQ(m->wrongVifCounterInc(1), 0u);
  EXPECT_EQ(w.wholePkt, 0);
  EXPECT_EQ(w.wrongVif, 2);
}

TEST_F(ParserTest, ReplacingTheSocketKeepsTheMailboxesAndTheOptions) {
  auto m = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  m->optionsIs(nocache | wholepkt);
  auto const first = m->pam();
  auto const box = m->wrongVifMessage();
  EXPECT_EQ(dynamic_cast<MrtNotifyNetlinkSocketPam*>(first.ptr()), nullptr);
  m->useNetlinkIs(true);
  ASSERT_NE(m->pam(), first);
  EXPECT_NE(dynamic_cast<MrtNotifyNetlinkSocketPam*>(m->pam().ptr()), nullptr);
  EXPECT_EQ(m->pam()->options(), std::uint32_t(nocache | wholepkt));
  EXPECT_FALSE(m->pam()->enabled()) << "enabling is the user's business";
  EXPECT_EQ(m->wrongVifMessage(), box);
  auto v6 = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName());
  EXPECT_EQ(v6->pam()->af(), Wirly::ipv6);
  EXPECT_NE(dynamic_cast<MrtNotifyNetlinkSocketPam*>(v6->pam().ptr()), nullptr);
}

using ParserDeathTest = ParserTest;

TEST_F(ParserDeathTest, ReportsTheParserRefusesStopTheProcess) {
  auto v4 = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  v4->useNetlinkIs(true);
  auto v6 = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName());
  Report wrongFamily(129);
  wrongFamily.msgType(1).mif(3);
  EXPECT_DEATH(v4->readMrtMessage(packet(wrongFamily.done()), status), "rtgenmsg->rtgen_family == 128");
  Report wrongFamily6(128);
  wrongFamily6.msgType(1).mif(3);
  EXPECT_DEATH(v6->readMrtMessage(packet(wrongFamily6.done()), status), "rtgenmsg->rtgen_family == 129");
  Report noType(128);
  noType.mif(3).src("10.0.1.2");
  EXPECT_DEATH(v4->readMrtMessage(packet(noType.done()), status), "mrtMsg && \"No msgtype found\"");
  Report badType(128);
  badType.msgType(9).mif(3);
  EXPECT_DEATH(v4->readMrtMessage(packet(badType.done()), status), "mrtMsg && \"No msgtype found\"");
  Report unknownVif(129);
  unknownVif.msgType(2).mif(5).src("2001:db8::1").dst("ff0e::1");
  EXPECT_DEATH(v6->readMrtMessage(packet(unknownVif.done()), status), "mrtMsg->intfId\\(\\)");
  Bytes plain = Report(128).msgType(1).done();
  auto* nlh = reinterpret_cast<nlmsghdr*>(plain.data());
  EXPECT_DEATH(
      MrtNotifyPamManager::readNetlinkMrtMessage(Wirly::AddressFamily(7), nlh, nullptr, nullptr, nullptr, status),
      "0 && \"Address Family unknown\"");
  EXPECT_DEATH(mrtNotifyPamManagerFactory(Wirly::AddressFamily(7), Wirly::NamespaceName()),
               "0 && \"Unsupported address family.\"");
}

// The receive path in front of the parser: what an untrusted sender sends
// never reaches it, so the parser's invariants are the trusted senders'.
class ReceivePathTest : public ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    sys.env["MCAST_NO_NETLINK"] = "1";
    manager->optionsIs(nocache | wrongvif | wholepkt);
    manager->pam()->enabledIs(true);
  }
  // Plays one datagram from `uid` through the socket and the parser.
  Type deliver(Bytes const& b, uid_t uid) {
    MrtNotifyTest::Datagram d;
    d.payload = b;
    sockaddr_nl from{};
    from.nl_family = AF_NETLINK;
    from.nl_pid = 5150;
    d.from(from).cmsg(SOL_SOCKET, SCM_CREDENTIALS, ucred{1, uid, uid});
    sys.rx.push_back(d.play());
    auto pkt = manager->pam()->rxPkt();
    return pkt ? manager->readMrtMessage(pkt, status) : Type::none;
  }
  MrtNotifyNetlinkSocketPam& socket() { return static_cast<MrtNotifyNetlinkSocketPam&>(*manager->pam()); }
  MrtNotifyTest::FakeSys sys;
  Kiv::Ptr<MrtNotifyPamManager> manager = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName());
};

using ReceivePathDeathTest = ReceivePathTest;

TEST_F(ReceivePathDeathTest, AnUnknownMifStopsTheProcessOnlyFromATrustedSender) {
  Report unknownMif(129);
  unknownMif.msgType(1).mif(77).src("2001:db8::1").dst("ff0e::1");
  Report noType(129);
  noType.mif(3).src("2001:db8::1");
  for (Bytes const& b : {unknownMif.done(), noType.done()}) EXPECT_EQ(deliver(b, 65534), Type::none);
  EXPECT_EQ(socket().rxUntrustedDrops(), 2u);
  EXPECT_EQ(manager->noCacheCounter(), 0u);
  EXPECT_DEATH(deliver(unknownMif.done(), 0), "mrtMsg->intfId\\(\\)");
}

TEST_F(ReceivePathTest, TrustAndTableFollowTheManagerIntoEverySocket) {
  Report r(129);
  r.msgType(1).mif(3).src("2001:db8::1").dst("ff0e::1");
  EXPECT_EQ(deliver(r.done(), 0), Type::igmpNoCache);
  EXPECT_EQ(deliver(r.done(), 1000), Type::none);
  manager->trustedUidIs(1000, true);
  EXPECT_TRUE(socket().trustedUid(1000)) << "reaches the socket in use";
  EXPECT_EQ(deliver(r.done(), 1000), Type::igmpNoCache);
  Kiv::attrSet(*manager, "mrtTable", "10");
  EXPECT_EQ(socket().mrtTable(), 10u);

  auto v4 = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
  v4->trustedUidIs(1000, true);
  v4->trustedUidDel(0);
  v4->mrtTableIs(10);
  v4->useNetlinkIs(true);
  auto& nl = static_cast<MrtNotifyNetlinkSocketPam&>(*v4->pam());
  EXPECT_EQ(nl.trustedUidMap().count(1000), 1u) << "and a socket made later";
  EXPECT_FALSE(nl.trustedUid(0));
  EXPECT_EQ(nl.mrtTable(), 10u);
}

TEST_F(ParserTest, UnknownMsgtypeByteIsTracedAsARawCharacter) {
  Kiv::TraceCapture cap("Mroute::MrtNotifyPam");
  Bytes r = Report(128).msgType('Z').done();
  Wirly::MrtMessage::Ptr msg;
  auto* rta = reinterpret_cast<rtattr*>(r.data() + 20);
  EXPECT_EQ(MrtNotifyPamManager::readCreportMsgType(rta, &msg, nullptr, nullptr, nullptr), Type('Z'));
  EXPECT_FALSE(msg);
  EXPECT_TRUE(cap.contains("Unexpected MSGTYPE attribute: Z"));
}

}  // namespace
}  // namespace Routing::Multicast::Notify
