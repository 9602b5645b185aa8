#include "KernelMfc.h"

#include <gtest/gtest.h>

#include "AgentTestSys.h"
#include "Kiv/Exception.h"

namespace MrouteAgentTest {

using MrouteAgent::KernelMfc;
using Wirly::IpGenAddr;

TEST(KernelMfcTest, OpenTakesTheTableAndFallsBackToAPlainBufferWithoutPrivilege) {
  AgentTestSys sys;
  sys.failOption[SO_RCVBUFFORCE] = EPERM;
  KernelMfc v4(Wirly::ipv4);
  v4.open();
  ASSERT_GE(sys.options.size(), 4u);
  EXPECT_EQ(sys.options[0].name, MRT_INIT);
  EXPECT_EQ(sys.options[0].level, IPPROTO_IP);
  EXPECT_EQ(sys.options[1].name, MRT_ASSERT);
  EXPECT_EQ(sys.options[2].name, SO_RCVBUFFORCE);
  EXPECT_EQ(sys.options[3].name, SO_RCVBUF);
  EXPECT_EQ(v4.rcvBuf(), 4096);
  EXPECT_EQ(sys.openSockets().size(), 1u);
}

TEST(KernelMfcTest, ATakenTableFailsOpenNamingTheCallAndClosesTheSocket) {
  AgentTestSys sys;
  sys.failOption[MRT6_INIT] = EADDRINUSE;
  KernelMfc v6(Wirly::ipv6);
  try {
    v6.open();
    FAIL() << "open succeeded";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_EQ(e.call(), "setsockopt(MRT6_INIT)");
    EXPECT_EQ(e.error(), EADDRINUSE);
  }
  EXPECT_TRUE(sys.openSockets().empty());
  EXPECT_EQ(v6.fd(), -1);
}

TEST(KernelMfcTest, VifsAreAddedByInterfaceIndex) {
  AgentTestSys sys;
  KernelMfc v4(Wirly::ipv4), v6(Wirly::ipv6);
  v4.open();
  v6.open();
  v4.vifIs(3, 17);
  v6.vifIs(2, 9);
  auto const vif = sys.optionsNamed(MRT_ADD_VIF);
  ASSERT_EQ(vif.size(), 2u);  // MRT_ADD_VIF and MRT6_ADD_MIF share the number 202
  vifctl v;
  ASSERT_EQ(vif[0].bytes.size(), sizeof v);
  std::memcpy(&v, vif[0].bytes.data(), sizeof v);
  EXPECT_EQ(v.vifc_vifi, 3);
  EXPECT_EQ(v.vifc_flags, VIFF_USE_IFINDEX);
  EXPECT_EQ(v.vifc_threshold, 1);
  EXPECT_EQ(v.vifc_lcl_ifindex, 17);
  mif6ctl m;
  ASSERT_EQ(vif[1].bytes.size(), sizeof m);
  std::memcpy(&m, vif[1].bytes.data(), sizeof m);
  EXPECT_EQ(m.mif6c_mifi, 2);
  EXPECT_EQ(m.mif6c_pifi, 9);
  EXPECT_EQ(vif[1].level, IPPROTO_IPV6);

  sys.failOption[MRT_ADD_VIF] = EADDRINUSE;
  EXPECT_THROW(v4.vifIs(4, 18), Kiv::ErrnoException);
}

TEST(KernelMfcTest, MfcctlCarriesParentAndATtlPerOutgoingVifButNeverTheParent) {
  AgentTestSys sys;
  KernelMfc v4(Wirly::ipv4);
  v4.open();
  EXPECT_EQ(v4.mfcIs(IpGenAddr("10.1.0.2"), IpGenAddr("239.1.2.3"), 1, {2, 1, 5}), 0);
  auto const add = sys.optionsNamed(MRT_ADD_MFC);
  ASSERT_EQ(add.size(), 1u);
  std::vector<std::uint8_t> const& b = add[0].bytes;
  ASSERT_EQ(b.size(), 60u);
  EXPECT_EQ(std::vector<std::uint8_t>(b.begin(), b.begin() + 8),
            (std::vector<std::uint8_t>{10, 1, 0, 2, 239, 1, 2, 3}));
  EXPECT_EQ(b[8] | b[9] << 8, 1);  // mfcc_parent, host order
  std::vector<std::uint8_t> ttls(b.begin() + 10, b.begin() + 42);
  std::vector<std::uint8_t> want(32, 0);
  want[2] = want[5] = 1;
  EXPECT_EQ(ttls, want);

  EXPECT_EQ(v4.mfcIs(IpGenAddr("10.1.0.2"), IpGenAddr("239.1.2.4"), 1, {}), 0);
  mfcctl drop;
  std::memcpy(&drop, sys.optionsNamed(MRT_ADD_MFC)[1].bytes.data(), sizeof drop);
  for (unsigned char t : drop.mfcc_ttls) EXPECT_EQ(t, 0);

  sys.failOption[MRT_DEL_MFC] = ENOENT;
  EXPECT_EQ(v4.mfcDel(IpGenAddr("10.1.0.2"), IpGenAddr("239.1.2.3"), 1), ENOENT);
  sys.failOption[MRT_ADD_MFC] = ENOBUFS;
  EXPECT_EQ(v4.mfcIs(IpGenAddr("10.1.0.2"), IpGenAddr("239.1.2.3"), 1, {2}), ENOBUFS);
}

TEST(KernelMfcTest, Mf6cctlCarriesBothSocketAddressesAndTheMifSet) {
  AgentTestSys sys;
  KernelMfc v6(Wirly::ipv6);
  v6.open();
  EXPECT_EQ(v6.mfcIs(IpGenAddr("2001:db8::2"), IpGenAddr("ff3e::1:2"), 1, {3, 31}), 0);
  auto const add = sys.optionsNamed(MRT6_ADD_MFC);
  ASSERT_EQ(add.size(), 1u);
  ASSERT_EQ(add[0].bytes.size(), 92u);
  EXPECT_EQ(add[0].level, IPPROTO_IPV6);
  mf6cctl m;
  std::memcpy(&m, add[0].bytes.data(), sizeof m);
  EXPECT_EQ(m.mf6cc_origin.sin6_family, AF_INET6);
  EXPECT_EQ(IpGenAddr(m.mf6cc_origin.sin6_addr), IpGenAddr("2001:db8::2"));
  EXPECT_EQ(IpGenAddr(m.mf6cc_mcastgrp.sin6_addr), IpGenAddr("ff3e::1:2"));
  EXPECT_EQ(m.mf6cc_parent, 1);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(IF_ISSET(i, &m.mf6cc_ifset) != 0, i == 3 || i == 31) << i;
}

TEST(KernelMfcTest, CountersComeFromTheKernelOrAreMarkedInvalid) {
  AgentTestSys sys;
  KernelMfc v4(Wirly::ipv4), v6(Wirly::ipv6);
  v4.open();
  v6.open();
  sys.pktCount = 7;
  sys.byteCount = 700;
  auto c = v4.counters(IpGenAddr("10.1.0.2"), IpGenAddr("239.1.2.3"));
  EXPECT_TRUE(c.valid);
  EXPECT_EQ(c.pkts, 7u);
  EXPECT_EQ(c.bytes, 700u);
  EXPECT_EQ(v6.counters(IpGenAddr("2001:db8::2"), IpGenAddr("ff3e::1")).pkts, 7u);
  sys.ioctlFails = true;
  EXPECT_FALSE(v4.counters(IpGenAddr("10.1.0.2"), IpGenAddr("239.1.2.3")).valid);
}

}  // namespace MrouteAgentTest
