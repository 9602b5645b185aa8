// The kernel subsystem by name: the upcall manager, its mailboxes, the
// review machine, the relay and the kernel MFIB status list their
// attributes in their model's order, and what an operator can do through
// them: move a counter (its observers wake as for an upcall), edit the
// VIF map, and be refused where a packet would be needed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiv/Reflect.h"
#include "MrtNotify/MrtIcmpV6RelaySm.h"
#include "MrtNotify/MrtNotifyPam.h"
#include "MrtNotify/MrtNotifySm.h"
#include "Schema/KernelMfibStatus.h"

namespace Routing::Multicast::Notify {
namespace {

using V = std::vector<std::string>;

V names(Kiv::Entity const& e, bool operations) {
  V out;
  for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs())
    if ((a.kind == Kiv::AttrKind::operation) == operations) out.push_back(a.name);
  return out;
}

class MrtNotifyReflect : public ::testing::Test {
 protected:
  Kiv::Ptr<KernelMfib::Status> status = KernelMfib::Status::statusIs("kernelMfib");
  Kiv::Ptr<MrtNotifyPamManager> manager = mrtNotifyPamManagerFactory(Wirly::ipv4, Wirly::NamespaceName());
};

TEST_F(MrtNotifyReflect, EveryEntityListsItsAttributesInModelOrder) {
  auto sm = mrtNotifySmFactory(manager, status);
  auto relay = mrtIcmpV6RelaySmFactory("relay", Wirly::NamespaceName(), status);
  V const message{"wrongVifAlert", "noCacheAlert", "wholePktAlert", "msgType", "source", "group", "intfId"};
  V wholePkt = message;
  wholePkt.push_back("rcvdPkt");
  struct Case {
    Kiv::Ptr<Kiv::Entity> entity;
    char const* typeName;
    V attrs;
    V operations;
  };
  std::vector<Case> const cases = {
      {manager,
       "Routing::Multicast::Notify::MrtNotifyPamManager",
       {"af", "pam", "netNs", "useNetlink", "wrongVifCounter", "wrongVifMessage", "noCacheCounter", "noCacheMessage",
        "wholePktCounter", "wholePktMessage", "options", "ipv4NativeReports", "trustedUid", "mrtTable"},
       {"handlePamInit", "readMrtMessage"}},
      {manager->noCacheMessage(), "Routing::Multicast::Notify::NoCacheMessage", message, {}},
      {manager->wrongVifMessage(), "Routing::Multicast::Notify::WrongVifMessage", message, {}},
      {manager->wholePktMessage(), "Routing::Multicast::Notify::WholePktMessage", wholePkt, {}},
      {sm,
       "Routing::Multicast::Notify::MrtNotifySm",
       {"pamManager", "vifStatus", "loopQuantum", "initialized"},
       {"handleInitialized", "rxPkt"}},
      {relay,
       "Routing::Multicast::Notify::MrtIcmpV6RelaySm",
       {"name", "netNs", "vifStatus", "loopQuantum", "mrtSkSd", "wrongIfMessage", "noCacheMessage", "wholePktMessage",
        "icmpV6Pam", "netlinkPam"},
       {"rxPkt", "readMrtMessage", "handleMrtSocket"}},
      {status, "Routing::KernelMfib::Status", {"vifIntf", "intfVif"}, {}},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(Kiv::typeInfo(*c.entity).typeName(), c.typeName);
    EXPECT_EQ(c.entity->typeName(), c.typeName);
    EXPECT_EQ(names(*c.entity, false), c.attrs) << c.typeName;
    EXPECT_EQ(names(*c.entity, true), c.operations) << c.typeName;
  }
  EXPECT_EQ(Kiv::attrOf(*manager, "noCacheCounter").kind, Kiv::AttrKind::counter);
  EXPECT_EQ(Kiv::attrOf(*manager, "noCacheMessage").kind, Kiv::AttrKind::pointer);
  EXPECT_EQ(Kiv::attrOf(*manager, "readMrtMessage").valueType,
            "(Ptr<Wirly::Pkt>, Ptr<Routing::KernelMfib::Status>) -> Wirly::MrtMessageType");
  EXPECT_EQ(Kiv::attrGet(*relay, "name"), "'relay'");
  EXPECT_EQ(Kiv::attrGet(*sm, "vifStatus"), "Entity('Routing::KernelMfib::Status', 'kernelMfib')");
}

TEST_F(MrtNotifyReflect, ACounterMovedByNameWakesItsObserversAsAnUpcallWould) {
  struct Watch : MrtNotifyPamManager::NotifieeConst {
    using MrtNotifyPamManager::NotifieeConst::NotifieeConst;
    void onNoCacheCounter() override { seen.push_back(notifier()->noCacheMessage()->group()); }
    std::vector<Wirly::IpGenAddr> seen;
  } watch(manager);
  Kiv::attrSet(*manager->noCacheMessage(), "group", Kiv::valueToStrep(Wirly::IpGenAddr("239.1.1.9")));
  EXPECT_EQ(Kiv::attrInvoke(*manager, "noCacheCounterInc", ""), "1");
  EXPECT_EQ(Kiv::attrInvoke(*manager, "noCacheCounterDec", "2"), "4294967295");
  EXPECT_EQ(manager->noCacheCounter(), 4294967295u);
  EXPECT_EQ(watch.seen, (std::vector<Wirly::IpGenAddr>{Wirly::IpGenAddr("239.1.1.9"), Wirly::IpGenAddr("239.1.1.9")}));
  EXPECT_EQ(Kiv::attrGet(*manager->noCacheMessage(), "msgType"), "'igmpNoCache'");
  EXPECT_EQ(Kiv::attrGet(*manager->wholePktMessage(), "msgType"), "'igmpWholePkt'");
  EXPECT_EQ(Kiv::attrGet(*manager->wholePktMessage(), "rcvdPkt"), "0x0");
}

TEST_F(MrtNotifyReflect, RefusesWhatHasNoTextFormAndWhatIsFixed) {
  // A packet cannot be written as text: the parser is never handed a null.
  EXPECT_THROW(Kiv::attrInvoke(*manager, "readMrtMessage", "None, None"), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrInvoke(*manager, "readMrtMessage", "None"), Kiv::RangeException);
  EXPECT_EQ(manager->noCacheCounter() + manager->wrongVifCounter() + manager->wholePktCounter(), 0u);
  EXPECT_THROW(Kiv::attrSet(*manager, "af", "'ipv6'"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*manager, "noCacheMessage", "None"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*manager->noCacheMessage(), "msgType", "'igmpWrongVif'"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*manager, "options", "8589934592"), Kiv::ParseException);
  Kiv::attrSet(*manager, "options", "6");
  EXPECT_EQ(manager->options(), 6u);

  auto sm = mrtNotifySmFactory(manager, status);
  Kiv::attrSet(*sm, "loopQuantum", "0.25");
  EXPECT_EQ(sm->loopQuantum(), 0.25);
  Kiv::attrSet(*sm, "loopQuantum", "-1.0");
  EXPECT_EQ(Kiv::attrGet(*sm, "loopQuantum"), "0.0");
  EXPECT_THROW(Kiv::attrSet(*sm, "initialized", "True"), Kiv::RangeException);
}

TEST_F(MrtNotifyReflect, TheVifMapIsEditedByNameAndBothDirectionsStayInStep) {
  Kiv::attrEntryIs(*status, "vifIntf", "3", Kiv::valueToStrep(Wirly::IntfId("Ethernet3")));
  Kiv::attrEntryIs(*status, "vifIntf", "4", Kiv::valueToStrep(Wirly::IntfId("Ethernet4")));
  EXPECT_EQ(status->vifIntf(3), Wirly::IntfId("Ethernet3"));
  EXPECT_EQ(Kiv::attrLookup(*status, "intfVif", Kiv::valueToStrep(Wirly::IntfId("Ethernet4"))), "4");
  // Giving index 3 the interface of 4 moves the pairing in both maps.
  Kiv::attrEntryIs(*status, "vifIntf", "3", Kiv::valueToStrep(Wirly::IntfId("Ethernet4")));
  EXPECT_EQ(Kiv::attrEntries(*status, "vifIntf"),
            (std::vector<std::pair<std::string, std::string>>{{"3", Kiv::valueToStrep(Wirly::IntfId("Ethernet4"))}}));
  EXPECT_EQ(Kiv::attrCount(*status, "intfVif"), 1u);
  EXPECT_THROW(Kiv::attrEntryDel(*status, "intfVif", Kiv::valueToStrep(Wirly::IntfId("Ethernet4"))),
               Kiv::RangeException);
  EXPECT_THROW(Kiv::attrEntryIs(*status, "vifIntf", "65536", "None"), Kiv::ParseException);
  Kiv::attrInvoke(*status, "vifIntfDelAll", "");
  EXPECT_EQ(status->vifIntfs(), 0u);
  EXPECT_EQ(status->intfVif(Wirly::IntfId("Ethernet4")), 0u);
}

}  // namespace
}  // namespace Routing::Multicast::Notify
