// The bench's own arithmetic and decoding: a wrong figure here would be
// quoted as the agent's.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
// The kernel's multicast routing header after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include "BurstReport.h"
#include "MfcEvent.h"

namespace FlowBurst {
namespace {

// Builds netlink datagrams the way the kernel lays them out.
class Datagram {
 public:
  // A route message: rtmsg, then the attributes added after it.
  Datagram& route(std::uint16_t type, unsigned char family, unsigned flags) {
    start(type);
    rtmsg r{};
    r.rtm_family = family;
    r.rtm_flags = flags;
    put(&r, sizeof(r));
    return *this;
  }
  Datagram& report(unsigned char family) {
    start(RTM_NEWCACHEREPORT);
    rtgenmsg g{};
    g.rtgen_family = family;
    put(&g, sizeof(g));
    return *this;
  }
  Datagram& attr(std::uint16_t type, void const* data, std::size_t len) {
    rtattr a{};
    a.rta_type = type;
    a.rta_len = std::uint16_t(RTA_LENGTH(len));
    put(&a, sizeof(a));
    put(data, len);
    return *this;
  }
  Datagram& addr(std::uint16_t type, char const* text) {
    in_addr a{};
    ::inet_pton(AF_INET, text, &a);
    return attr(type, &a, sizeof(a));
  }
  Datagram& addr6(std::uint16_t type, char const* text) {
    in6_addr a{};
    ::inet_pton(AF_INET6, text, &a);
    return attr(type, &a, sizeof(a));
  }
  Datagram& u8(std::uint16_t type, unsigned char v) { return attr(type, &v, 1); }
  Datagram& u32(std::uint16_t type, std::uint32_t v) { return attr(type, &v, 4); }

  std::vector<char> const& bytes() const { return buf_; }
  std::size_t decode(std::vector<MfcEvent>* out, std::size_t cut = 0) const {
    return decodeMfcEvents(buf_.data(), buf_.size() - cut, [&](MfcEvent const& e) { out->push_back(e); });
  }

 private:
  void start(std::uint16_t type) {
    head_ = buf_.size();
    nlmsghdr h{};
    h.nlmsg_type = type;
    put(&h, sizeof(h));
  }
  // Appends with the netlink padding and keeps the message length current.
  void put(void const* p, std::size_t n) {
    auto const* c = static_cast<char const*>(p);
    buf_.insert(buf_.end(), c, c + n);
    buf_.resize(head_ + NLMSG_ALIGN(buf_.size() - head_), 0);
    std::uint32_t const len = std::uint32_t(buf_.size() - head_);
    std::memcpy(buf_.data() + head_, &len, sizeof(len));
  }
  std::vector<char> buf_;
  std::size_t head_ = 0;
};

std::uint32_t v4(char const* text) {
  in_addr a{};
  ::inet_pton(AF_INET, text, &a);
  return ntohl(a.s_addr);
}

TEST(MfcEventTest, EachKindOfNotificationDecodesFromOneDatagram) {
  Datagram d;
  d.report(RTNL_FAMILY_IPMR)
      .u8(IPMRA_CREPORT_MSGTYPE, IGMPMSG_NOCACHE)
      .u32(IPMRA_CREPORT_VIF_ID, 1)
      .addr(IPMRA_CREPORT_SRC_ADDR, "10.0.1.2")
      .addr(IPMRA_CREPORT_DST_ADDR, "225.1.0.7")
      .u32(IPMRA_CREPORT_TABLE, RT_TABLE_DEFAULT);
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IPMR, RTNH_F_UNRESOLVED)
      .u32(RTA_TABLE, RT_TABLE_DEFAULT)
      .addr(RTA_SRC, "10.0.1.2")
      .addr(RTA_DST, "225.1.0.7");
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IPMR, 0)
      .u32(RTA_TABLE, RT_TABLE_DEFAULT)
      .addr(RTA_SRC, "10.0.1.2")
      .addr(RTA_DST, "225.1.0.7")
      .u32(RTA_IIF, 5);
  d.route(RTM_DELROUTE, RTNL_FAMILY_IPMR, 0).addr(RTA_SRC, "10.0.1.2").addr(RTA_DST, "225.1.0.7");
  d.route(RTM_DELROUTE, RTNL_FAMILY_IPMR, RTNH_F_UNRESOLVED).addr(RTA_SRC, "10.0.1.2").addr(RTA_DST, "225.1.0.8");

  std::vector<MfcEvent> ev;
  ASSERT_EQ(d.decode(&ev), 5u);
  EXPECT_EQ(ev[0].kind, MfcEvent::noCacheReported);
  EXPECT_EQ(ev[1].kind, MfcEvent::unresolvedAdded);
  EXPECT_EQ(ev[2].kind, MfcEvent::resolvedAdded);
  EXPECT_EQ(ev[2].iifIndex, 5);
  EXPECT_EQ(ev[3].kind, MfcEvent::resolvedRemoved);
  EXPECT_EQ(ev[4].kind, MfcEvent::unresolvedExpired);
  for (auto const& e : ev) EXPECT_EQ(e.source, v4("10.0.1.2"));
  EXPECT_EQ(ev[0].group, v4("225.1.0.7"));
  EXPECT_EQ(ev[4].group, v4("225.1.0.8"));
}

TEST(MfcEventTest, ForeignShortAndIncompleteMessagesAreSkipped) {
  Datagram d;
  // IPv6's family with IPv4's address length, a unicast route, a wrong-VIF report, an
  // address of the wrong length, no group.
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IP6MR, 0).addr(RTA_SRC, "10.0.1.2").addr(RTA_DST, "225.1.0.1");
  d.route(RTM_NEWROUTE, AF_INET, 0).addr(RTA_SRC, "10.0.1.2").addr(RTA_DST, "225.1.0.1");
  d.report(RTNL_FAMILY_IPMR)
      .u8(IPMRA_CREPORT_MSGTYPE, IGMPMSG_WRONGVIF)
      .addr(IPMRA_CREPORT_SRC_ADDR, "10.0.1.2")
      .addr(IPMRA_CREPORT_DST_ADDR, "225.1.0.1");
  std::uint64_t const wide = 0;
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IPMR, 0).attr(RTA_SRC, &wide, sizeof(wide)).addr(RTA_DST, "225.1.0.1");
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IPMR, 0).addr(RTA_SRC, "10.0.1.2");
  // The one good message comes last, cut short by the caller's length: nothing of it is read.
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IPMR, 0).addr(RTA_SRC, "10.0.1.2").addr(RTA_DST, "225.1.0.2");
  std::vector<MfcEvent> ev;
  EXPECT_EQ(d.decode(&ev, 4), 0u);
  EXPECT_EQ(d.decode(&ev), 1u);
  ASSERT_EQ(ev.size(), 1u);
  EXPECT_EQ(ev[0].group, v4("225.1.0.2"));
}

TEST(MfcEventTest, CacheLinesTellResolvedFromUnresolved) {
  // As the kernel prints them on a little-endian machine: group and origin in
  // network byte order read as a native integer, then the incoming VIF (-1
  // while unresolved).
  std::istringstream in(
      "Group    Origin   Iif     Pkts    Bytes    Wrong Oifs\n"
      "070001E1 0201000A 1          1       32        0  2:1   \n"
      "080001E1 0201000A -1         0        0        0\n"
      "garbage\n");
  std::vector<MfcCacheLine> lines;
  EXPECT_EQ(readMfcCache(in, [&](MfcCacheLine const& l) { lines.push_back(l); }), 2u);
  ASSERT_EQ(lines.size(), 2u);
  if (htonl(1) != 1) {  // the sample is little-endian
    EXPECT_EQ(lines[0].group, v4("225.1.0.7"));
    EXPECT_EQ(lines[0].source, v4("10.0.1.2"));
  }
  EXPECT_TRUE(lines[0].resolved);
  EXPECT_FALSE(lines[1].resolved);
}

// IPv6 flows are told apart by the group's last 32 bits; the whole
// addresses come along so that the bench can check the rest.
TEST(MfcEventTest, IPv6ReportsRoutesAndCacheLines) {
  Datagram d;
  d.report(RTNL_FAMILY_IP6MR)
      .u8(IP6MRA_CREPORT_MSGTYPE, 1)
      .u32(IP6MRA_CREPORT_MIF_ID, 0)
      .addr6(IP6MRA_CREPORT_SRC_ADDR, "2001:db8:1::2")
      .addr6(IP6MRA_CREPORT_DST_ADDR, "ff3e::100:7");
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IP6MR, 0).addr6(RTA_SRC, "2001:db8:1::2").addr6(RTA_DST, "ff3e::100:7");
  // An IPv4 address under the IPv6 family is not taken.
  d.route(RTM_NEWROUTE, RTNL_FAMILY_IP6MR, 0).addr6(RTA_SRC, "2001:db8:1::2").addr(RTA_DST, "225.1.0.1");
  std::vector<MfcEvent> ev;
  ASSERT_EQ(d.decode(&ev), 2u);
  EXPECT_EQ(ev[0].kind, MfcEvent::noCacheReported);
  EXPECT_EQ(ev[1].kind, MfcEvent::resolvedAdded);
  for (auto const& e : ev) {
    EXPECT_TRUE(e.v6);
    EXPECT_EQ(e.group, 0x01000007u);
    EXPECT_EQ(e.source, 2u);
    EXPECT_EQ(e.group6[0], 0xff);
    EXPECT_EQ(e.source6[1], 0x01);
  }

  std::istringstream in(
      "Group                            Origin                           Iif      Pkts  Bytes     Wrong  Oifs\n"
      "ff3e:0000:0000:0000:0000:0000:0100:0007 2001:0db8:0001:0000:0000:0000:0000:0002 1         1       32"
      "        0  2:1\n"
      "ff3e:0000:0000:0000:0000:0000:0100:0008 2001:0db8:0001:0000:0000:0000:0000:0002 -1        0        0"
      "        0\n");
  std::vector<MfcCacheLine> lines;
  EXPECT_EQ(readMfc6Cache(in, [&](MfcCacheLine const& l) { lines.push_back(l); }), 2u);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].group, 0x01000007u);
  EXPECT_EQ(lines[0].source6[15], 2);
  EXPECT_TRUE(lines[0].resolved);
  EXPECT_FALSE(lines[1].resolved);

  std::istringstream log(
      "ipv6 2001:db8:1::2 ff3e::100:1 1000000 2000000 upcall\n"
      "ipv6 2001:db8:1::2 ff3e::1:0:0 1 2 upcall\n");  // before the burst's first group
  auto const agent = readAgentFlowLog(log, "2001:db8:1::2", 0x01000000u, 2);
  EXPECT_EQ(agent[1].installedNs, 2000000);
  EXPECT_EQ(agent[0].installedNs, -1);
}

TEST(BurstReportTest, PercentilesTakeTheNearestRank) {
  EXPECT_EQ(percentile({}, 50), -1);
  EXPECT_EQ(percentile({7}, 99), 7);
  std::vector<double> v;
  for (int i = 100; i >= 1; --i) v.push_back(i);
  EXPECT_EQ(percentile(v, 50), 50);
  EXPECT_EQ(percentile(v, 99), 99);
  EXPECT_EQ(percentile(v, 100), 100);
  EXPECT_EQ(percentile({1, 2, 3}, 50), 2);
}

TEST(BurstReportTest, FiguresCountOnlyWhatHappenedAndTimeFromTheFirstPacket) {
  std::int64_t const ms = 1000000;
  std::vector<FlowTimes> flows(4);
  for (int i = 0; i < 4; ++i) flows[i].sentNs = 1000 * ms + i * ms;
  flows[0] = {1000 * ms, 1000 * ms, 1000 * ms, 1002 * ms, 1003 * ms};
  flows[1] = {1001 * ms, 1001 * ms, 1001 * ms, 1005 * ms, -1};
  flows[2].reportedNs = 1002 * ms;  // raised, never queued: the socket was full
  Figures f = summarize(flows, 2);
  EXPECT_EQ(f.flows, 4u);
  EXPECT_EQ(f.reported, 3u);
  EXPECT_EQ(f.upcallsQueued, 2u);
  EXPECT_EQ(f.entriesSeen, 2u);
  EXPECT_EQ(f.installed, 2u);
  EXPECT_EQ(f.delivered, 1u);
  EXPECT_DOUBLE_EQ(f.entryMedianMs, 2);
  EXPECT_DOUBLE_EQ(f.entryP99Ms, 4);
  EXPECT_DOUBLE_EQ(f.deliveryMedianMs, 3);
  EXPECT_DOUBLE_EQ(f.sendSeconds, 0.003);
  EXPECT_EQ(f.allEntriesSeconds, -1) << "not every flow got its entry";
  EXPECT_DOUBLE_EQ(f.installRate, 2 / 0.005);

  flows.resize(2);
  f = summarize(flows, 2);
  EXPECT_DOUBLE_EQ(f.allEntriesSeconds, 0.005);
}

TEST(BurstReportTest, FiguresRoundTripAndStandSideBySide) {
  std::vector<FlowTimes> flows(1);
  flows[0] = {0, 1, 2, 3000000, 4000000};
  std::stringstream a, b;
  writeFigures(a, "smcroute", summarize(flows, 1));
  b << "system mroute-agent\ninstalled 1\nagent_only 7\n";
  FigureList const fa = readFigures(a), fb = readFigures(b);
  ASSERT_FALSE(fa.empty());
  EXPECT_EQ(fa[0], (std::pair<std::string, std::string>("system", "smcroute")));
  std::ostringstream table;
  printSideBySide(table, {fa, fb});
  std::string const t = table.str();
  EXPECT_NE(t.find("entry_median_ms"), std::string::npos);
  EXPECT_NE(t.find("3.000"), std::string::npos);
  // A key only one side has gets "-" on the other, after the first side's keys.
  auto const only = t.find("agent_only");
  ASSERT_NE(only, std::string::npos);
  EXPECT_GT(only, t.find("entries_per_s"));
  EXPECT_NE(t.find('-', only), std::string::npos);
}

TEST(BurstReportTest, TheAgentsFlowLogJoinsTheBurstsTimesByGroup) {
  std::int64_t const ms = 1000000;
  std::vector<FlowTimes> flows(3);
  for (int i = 0; i < 3; ++i) flows[i].sentNs = 100 * ms + i * ms;
  std::stringstream csv;
  writeTimes(csv, flows);
  auto const back = readTimes(csv);
  ASSERT_EQ(back.size(), 3u);
  EXPECT_EQ(back[2].sentNs, 102 * ms);
  EXPECT_EQ(back[2].deliveredNs, -1);

  std::istringstream log(
      "ipv4 10.0.1.2 225.1.0.2 103000000 104000000 upcall\n"
      "ipv4 10.0.1.2 225.1.0.0 101000000 101500000 recovered\n"
      "ipv4 10.0.1.2 225.1.0.0 900000000 900000000 upcall\n"  // a later entry for the same flow
      "ipv4 10.0.9.9 225.1.0.1 101000000 101000000 upcall\n"  // another source
      "ipv6 2001:db8::1 ff0e::1 1 2 upcall\n"
      "ipv4 10.0.1.2 225.1.0.3 1 2 upcall\n"  // past the burst's groups
      "truncated line\n");
  auto const agent = readAgentFlowLog(log, "10.0.1.2", v4("225.1.0.0"), 3);
  ASSERT_EQ(agent.size(), 3u);
  EXPECT_EQ(agent[0].installedNs, 101500000);
  EXPECT_TRUE(agent[0].recovered);
  EXPECT_EQ(agent[1].installedNs, -1);
  EXPECT_EQ(agent[2].learnedNs, 103000000);

  std::stringstream out;
  writeAgentFigures(out, back, agent);
  std::map<std::string, std::string> f;
  for (auto const& [k, v] : readFigures(out)) f[k] = v;
  EXPECT_EQ(f["agent_logged"], "2");
  EXPECT_EQ(f["agent_recovered"], "1");
  // Sent -> learned: 1 ms and 1 ms; learned -> installed: 0.5 and 1 ms; sent -> installed: 1.5 and 2 ms.
  EXPECT_EQ(f["agent_learn_median_ms"], "1.000");
  EXPECT_EQ(f["agent_install_median_ms"], "0.500");
  EXPECT_EQ(f["agent_entry_median_ms"], "1.500");
  EXPECT_EQ(f["agent_entry_p99_ms"], "2.000");
  EXPECT_EQ(f["agent_all_installed_s"], "-") << "one flow has no entry";
  EXPECT_EQ(f["agent_installed_per_s"], "500");
}

}  // namespace
}  // namespace FlowBurst
