// The two rtnetlink readers of the agent: link state and the kernel's list
// of unresolved flows. Datagrams are built here byte by byte.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "LinkWatch.h"
#include "UnresolvedScan.h"

namespace MrouteAgentTest {

using MrouteAgent::LinkWatch;
using MrouteAgent::UnresolvedScan;

// Appends one netlink message: header, fixed part, attributes.
class Datagram {
 public:
  template <class Fixed>
  Datagram& msg(std::uint16_t type, Fixed const& fixed,
                std::vector<std::pair<std::uint16_t, std::vector<std::uint8_t>>> attrs = {}) {
    std::size_t const at = bytes.size();
    bytes.resize(at + NLMSG_HDRLEN);
    append(&fixed, sizeof fixed);
    for (auto const& [t, v] : attrs) {
      rtattr a{};
      a.rta_len = static_cast<unsigned short>(RTA_LENGTH(v.size()));
      a.rta_type = t;
      append(&a, sizeof a);
      append(v.data(), v.size());
    }
    nlmsghdr h{};
    h.nlmsg_len = static_cast<std::uint32_t>(bytes.size() - at);
    h.nlmsg_type = type;
    std::memcpy(bytes.data() + at, &h, sizeof h);
    bytes.resize(at + NLMSG_ALIGN(h.nlmsg_len));
    return *this;
  }
  Datagram& done() {
    std::uint32_t const zero = 0;
    return msg(NLMSG_DONE, zero);
  }
  std::vector<std::uint8_t> bytes;

 private:
  void append(void const* p, std::size_t n) {
    std::size_t const at = bytes.size();
    bytes.resize(at + RTA_ALIGN(n));
    std::memcpy(bytes.data() + at, p, n);
  }
};

ifinfomsg link(int index, unsigned flags) {
  ifinfomsg i{};
  i.ifi_index = index;
  i.ifi_flags = flags;
  return i;
}

TEST(LinkWatchTest, UpNeedsBothAdministrativeStateAndCarrierAndADeletedLinkIsDown) {
  Datagram d;
  d.msg(RTM_NEWLINK, link(4, IFF_UP | IFF_RUNNING))
      .msg(RTM_NEWLINK, link(5, IFF_UP))
      .msg(RTM_NEWLINK, link(6, IFF_RUNNING))
      .msg(RTM_DELLINK, link(7, IFF_UP | IFF_RUNNING))
      .msg(RTM_NEWADDR, link(8, IFF_UP | IFF_RUNNING));
  auto const ev = LinkWatch::parse(d.bytes.data(), d.bytes.size());
  ASSERT_EQ(ev.size(), 4u);
  EXPECT_TRUE(ev[0].up);
  EXPECT_EQ(ev[0].ifIndex, 4);
  EXPECT_FALSE(ev[1].up);
  EXPECT_FALSE(ev[2].up);
  EXPECT_FALSE(ev[3].up);
  EXPECT_EQ(ev[3].ifIndex, 7);
}

TEST(LinkWatchTest, AFrameLongerThanTheDatagramEndsTheParseAndCounts) {
  Datagram d;
  d.msg(RTM_NEWLINK, link(4, IFF_UP | IFF_RUNNING)).msg(RTM_NEWLINK, link(5, IFF_UP | IFF_RUNNING));
  std::uint64_t malformed = 0;
  // Cut the second message short: its nlmsg_len now points past the end.
  auto const ev = LinkWatch::parse(d.bytes.data(), d.bytes.size() - 4, &malformed);
  ASSERT_EQ(ev.size(), 1u);
  EXPECT_EQ(malformed, 1u);
  // A message too short for its ifinfomsg is skipped, counted, and the walk goes on.
  Datagram s;
  std::uint32_t const tiny = 0;
  s.msg(RTM_NEWLINK, tiny).msg(RTM_NEWLINK, link(9, IFF_UP | IFF_RUNNING));
  malformed = 0;
  auto const ev2 = LinkWatch::parse(s.bytes.data(), s.bytes.size(), &malformed);
  ASSERT_EQ(ev2.size(), 1u);
  EXPECT_EQ(ev2[0].ifIndex, 9);
  EXPECT_EQ(malformed, 1u);
}

rtmsg mroute(std::uint8_t family, unsigned flags) {
  rtmsg r{};
  r.rtm_family = family;
  r.rtm_flags = flags;
  return r;
}
std::vector<std::uint8_t> v4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) { return {a, b, c, d}; }

TEST(UnresolvedScanTest, OnlyUnresolvedFlowsOfTheFamilyAreTakenUpToTheEndOfTheDump) {
  Datagram d;
  d.msg(RTM_NEWROUTE, mroute(128, RTNH_F_UNRESOLVED), {{RTA_SRC, v4(10, 1, 0, 2)}, {RTA_DST, v4(239, 1, 1, 1)}})
      .msg(RTM_NEWROUTE, mroute(128, 0), {{RTA_SRC, v4(10, 1, 0, 3)}, {RTA_DST, v4(239, 1, 1, 2)}})
      .msg(RTM_NEWROUTE, mroute(2, RTNH_F_UNRESOLVED), {{RTA_SRC, v4(10, 1, 0, 4)}, {RTA_DST, v4(239, 1, 1, 3)}})
      // An address of the wrong length is not taken: no flow.
      .msg(RTM_NEWROUTE, mroute(128, RTNH_F_UNRESOLVED), {{RTA_SRC, {10, 1, 0}}, {RTA_DST, v4(239, 1, 1, 4)}})
      .msg(RTM_NEWROUTE, mroute(128, RTNH_F_UNRESOLVED),
           {{RTA_TABLE, {253, 0, 0, 0}}, {RTA_DST, v4(239, 1, 1, 5)}, {RTA_SRC, v4(10, 1, 0, 5)}})
      .done()
      .msg(RTM_NEWROUTE, mroute(128, RTNH_F_UNRESOLVED), {{RTA_SRC, v4(10, 1, 0, 6)}, {RTA_DST, v4(239, 1, 1, 6)}});
  bool done = false;
  auto const flows = UnresolvedScan::parse(Wirly::ipv4, d.bytes.data(), d.bytes.size(), &done);
  EXPECT_TRUE(done);
  ASSERT_EQ(flows.size(), 2u);
  EXPECT_EQ(flows[0].source, Wirly::IpGenAddr("10.1.0.2"));
  EXPECT_EQ(flows[0].group, Wirly::IpGenAddr("239.1.1.1"));
  EXPECT_EQ(flows[1].source, Wirly::IpGenAddr("10.1.0.5"));
}

TEST(UnresolvedScanTest, IPv6FlowsAndAnAttributeOverrunningItsMessage) {
  std::vector<std::uint8_t> src(16, 0), grp(16, 0);
  src[0] = 0x20, src[1] = 0x01, src[15] = 2;
  grp[0] = 0xff, grp[1] = 0x3e, grp[15] = 1;
  Datagram d;
  d.msg(RTM_NEWROUTE, mroute(129, RTNH_F_UNRESOLVED), {{RTA_SRC, src}, {RTA_DST, grp}});
  bool done = false;
  auto flows = UnresolvedScan::parse(Wirly::ipv6, d.bytes.data(), d.bytes.size(), &done);
  EXPECT_FALSE(done);
  ASSERT_EQ(flows.size(), 1u);
  EXPECT_EQ(flows[0].group, Wirly::IpGenAddr("ff3e::1"));
  // The same family number read as IPv4 is not an IPv4 flow.
  EXPECT_TRUE(UnresolvedScan::parse(Wirly::ipv4, d.bytes.data(), d.bytes.size(), &done).empty());

  // rta_len beyond the message: the message yields nothing.
  std::size_t const attr = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg));
  rtattr a;
  std::memcpy(&a, d.bytes.data() + attr, sizeof a);
  a.rta_len = 200;
  std::memcpy(d.bytes.data() + attr, &a, sizeof a);
  EXPECT_TRUE(UnresolvedScan::parse(Wirly::ipv6, d.bytes.data(), d.bytes.size(), &done).empty());
}

}  // namespace MrouteAgentTest
