#include "Schema/KernelMfibStatus.h"

#include <gtest/gtest.h>

namespace {

using Routing::KernelMfib::Status;
using Wirly::IntfId;

TEST(KernelMfibStatusTest, BothDirectionsStayInStepThroughReassignment) {
  auto s = Status::statusIs("kernelMfib");
  IntfId const e1("Ethernet1"), e2("Ethernet2");
  struct Watch : Status::NotifieeConst {
    using Status::NotifieeConst::NotifieeConst;
    void onVifIntf(std::uint16_t v) override { seen.push_back(v); }
    std::vector<std::uint16_t> seen;
  } w{Kiv::Ptr<Status const>(s)};

  s->vifIntfIs(1, e1);
  s->vifIntfIs(1, e1);
  EXPECT_EQ(w.seen, (std::vector<std::uint16_t>{1})) << "the same pairing again notifies nobody";
  // Ethernet1 moves to index 2: index 1 loses it.
  s->vifIntfIs(2, e1);
  EXPECT_EQ(s->vifIntf(1), IntfId());
  EXPECT_EQ(s->intfVif(e1), 2);
  // Index 2 gets another interface: Ethernet1 has no index any more.
  s->vifIntfIs(2, e2);
  EXPECT_EQ(s->intfVif(e1), 0);
  EXPECT_EQ(s->intfVif(e2), 2);
  EXPECT_EQ(s->vifIntfs(), 1u);
  s->vifIntfIs(2, IntfId());
  EXPECT_EQ(s->vifIntfs(), 0u);
  EXPECT_EQ(s->intfVif(e2), 0);
}

}  // namespace
