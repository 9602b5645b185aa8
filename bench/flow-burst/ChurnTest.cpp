// The churn watcher's decoding of the kernel's multicast route messages:
// what it counts must come from whole, well-formed messages only.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <vector>

#include "Churn.h"

namespace {

using FlowBurst::MfcRoute;

// Builds netlink datagrams message by message.
class Datagram {
 public:
  std::size_t begin(std::uint16_t type, std::uint8_t family, std::uint32_t flags = 0) {
    std::size_t const at = buf_.size();
    nlmsghdr h{};
    h.nlmsg_type = type;
    put(&h, sizeof h);
    rtmsg r{};
    r.rtm_family = family;
    r.rtm_flags = flags;
    put(&r, sizeof r);
    return at;
  }
  void attr(std::uint16_t type, void const* data, std::size_t len) {
    rtattr a{};
    a.rta_type = type;
    a.rta_len = std::uint16_t(RTA_LENGTH(len));
    put(&a, sizeof a);
    put(data, len);
    buf_.resize(NLMSG_ALIGN(buf_.size()));
  }
  void addr(std::uint16_t type, char const* text) {
    in_addr a{};
    ::inet_pton(AF_INET, text, &a);
    attr(type, &a, 4);
  }
  void hops(std::vector<int> const& ifindexes, std::uint16_t lastLen = sizeof(rtnexthop)) {
    std::vector<unsigned char> body;
    for (std::size_t i = 0; i < ifindexes.size(); ++i) {
      rtnexthop h{};
      h.rtnh_len = i + 1 == ifindexes.size() ? lastLen : sizeof h;
      h.rtnh_ifindex = ifindexes[i];
      auto const* p = reinterpret_cast<unsigned char const*>(&h);
      body.insert(body.end(), p, p + sizeof h);
    }
    attr(RTA_MULTIPATH, body.data(), body.size());
  }
  void end(std::size_t at) {
    auto* h = reinterpret_cast<nlmsghdr*>(buf_.data() + at);
    h->nlmsg_len = std::uint32_t(buf_.size() - at);
  }
  void control(std::uint16_t type, int error = 0) {
    std::size_t const at = buf_.size();
    nlmsghdr h{};
    h.nlmsg_type = type;
    put(&h, sizeof h);
    nlmsgerr e{};
    e.error = error;
    if (type == NLMSG_ERROR) put(&e, sizeof e);
    end(at);
  }
  std::vector<unsigned char>& bytes() { return buf_; }

 private:
  void put(void const* p, std::size_t n) {
    auto const* c = static_cast<unsigned char const*>(p);
    buf_.insert(buf_.end(), c, c + n);
  }
  std::vector<unsigned char> buf_;
};

std::vector<MfcRoute> decode(std::vector<unsigned char> const& b, bool* done = nullptr, int* error = nullptr) {
  std::vector<MfcRoute> out;
  FlowBurst::decodeMfcRoutes(
      b.data(), b.size(), [&](MfcRoute const& r) { out.push_back(r); }, done, error);
  return out;
}

TEST(ChurnTest, RoutesAreReadWithTheirInterfacesAndForeignOrCutPartsAreLeftOut) {
  Datagram d;
  std::size_t m = d.begin(RTM_NEWROUTE, RTNL_FAMILY_IPMR);
  d.addr(RTA_SRC, "10.0.1.2");
  d.addr(RTA_DST, "225.0.1.2");
  std::uint32_t const iif = 4;
  d.attr(RTA_IIF, &iif, 4);
  d.hops({5, 6});
  d.end(m);
  // A unicast route: another family, not counted.
  m = d.begin(RTM_NEWROUTE, AF_INET);
  d.addr(RTA_SRC, "10.0.1.2");
  d.addr(RTA_DST, "225.0.1.3");
  d.end(m);
  // Unresolved, and a hop whose stated length leaves the attribute.
  m = d.begin(RTM_NEWROUTE, RTNL_FAMILY_IPMR, RTNH_F_UNRESOLVED);
  d.addr(RTA_SRC, "10.0.1.2");
  d.addr(RTA_DST, "225.0.1.4");
  d.hops({7, 8}, 200);
  d.end(m);
  // A removal without a group: no key, not counted.
  m = d.begin(RTM_DELROUTE, RTNL_FAMILY_IPMR);
  d.addr(RTA_SRC, "10.0.1.2");
  d.end(m);
  std::vector<MfcRoute> const got = decode(d.bytes());
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].source, 0x0a000102u);
  EXPECT_EQ(got[0].group, 0xe1000102u);
  EXPECT_EQ(got[0].iif, 4);
  EXPECT_EQ(got[0].oifs, (std::vector<int>{5, 6}));
  EXPECT_FALSE(got[0].unresolved || got[0].removed);
  EXPECT_TRUE(got[1].unresolved);
  EXPECT_EQ(got[1].oifs, std::vector<int>{7});

  // A message cut short by the datagram's end is not read at all.
  Datagram cut;
  m = cut.begin(RTM_NEWROUTE, RTNL_FAMILY_IPMR);
  cut.addr(RTA_SRC, "10.0.1.2");
  cut.addr(RTA_DST, "225.0.1.5");
  cut.end(m);
  cut.bytes().resize(cut.bytes().size() - 3);
  EXPECT_TRUE(decode(cut.bytes()).empty());
}

TEST(ChurnTest, TheEndOfADumpAndARefusalAreTold) {
  Datagram d;
  d.control(NLMSG_DONE);
  bool done = false;
  int error = 0;
  decode(d.bytes(), &done, &error);
  EXPECT_TRUE(done);
  EXPECT_EQ(error, 0);
  Datagram e;
  e.control(NLMSG_ERROR, -EPERM);
  done = false;
  decode(e.bytes(), &done, &error);
  EXPECT_TRUE(done);
  EXPECT_EQ(error, -EPERM);
}

}  // namespace
