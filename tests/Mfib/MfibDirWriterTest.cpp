// The directory writer in one process: what it creates, announces and
// takes back, and in which order.
#include <gtest/gtest.h>
#include <unistd.h>

#include "Kiv/Trace.h"
#include "MfibDirTestUtil.h"

using namespace MfibTest;

namespace {

// Writes the local table directory's changes into the directory recorder's
// list, so one list shows the order across both.
struct VornDirRecorder : MfibVornDir::NotifieeConst {
  VornDirRecorder(Kiv::Ptr<MfibVornDir> const& d, DirRecorder& r) : MfibVornDir::NotifieeConst(d), rec(r) {}
  void onVornColl(L3::VrfName vrf) override {
    rec.events.push_back((notifier()->vornColl(vrf) ? "+vornColl " : "-vornColl ") + vrf.str());
  }
  DirRecorder& rec;
};

class MfibDirWriterTest : public ::testing::Test {
 protected:
  Kiv::Ptr<MfibDirColl> announcement(std::string const& vrf) { return w->appDir()->dirColl(vrf); }
  bool fileExists(std::string const& url) { return ::access(em->pathOfUrl(url).c_str(), F_OK) == 0; }

  VornTest::PrivateRoot root;
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  Kiv::Ptr<Kiv::Dir> dir = Kiv::Dir::DirIs("mfib");
  Kiv::Ptr<MfibVornDir> vornDir = mfibVornDirFactory();
  Kiv::TraceCapture cap{"Mroute::MfibVorn/0-9"};
  Kiv::Ptr<MfibDirWriter> w = mfibDirWriterFactory("pim", dir, vornDir, em);
  DirRecorder rec{dir};
  VornDirRecorder vornRec{vornDir, rec};
};

TEST_F(MfibDirWriterTest, AfterTheFactoryTheDirectoryHoldsOnlyAnEmptyDefaultAnnouncement) {
  EXPECT_TRUE(w->initialized());
  EXPECT_EQ(snapshot(*dir), "pim: default=,;");
  EXPECT_TRUE(cap.contains("void Vorn::Multicast::Fib::MfibDirWriter::handleInitialized() for app pim"));
  EXPECT_TRUE(cap.contains("Created directory collection for default vrf "));
  // A second writer for the same application finds its entry as it is.
  auto again = mfibDirWriterFactory("pim", dir, vornDir, em);
  EXPECT_EQ(again->appDir(), w->appDir());
  EXPECT_TRUE(rec.events.empty());
}

TEST_F(MfibDirWriterTest, AddCreatesTheLocalCollectionThenTheAnnouncementThenSetsTheUrl) {
  cap.clear();
  Kiv::Ptr<Status> red = w->doAddVorn("red", "mfib/red/pim");
  ASSERT_TRUE(red);
  EXPECT_EQ(red->mode(), Vorn::Status::Mode::writer);
  EXPECT_TRUE(fileExists("mfib/red/pim"));
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"+vornColl red", "pim +vrf red", "pim/red vornUrl mfib/red/pim"}));
  EXPECT_EQ(vornDir->vornColl("red")->vornPtr(red.ptr()), red);
  EXPECT_EQ(cap.texts(),
            (std::vector<std::string>{
                "Vorn::Multicast::Fib::Status::Ptr Vorn::Multicast::Fib::MfibDirWriter::doAddVorn(L3::VrfName, "
                "Kiv::String)( red, mfib/red/pim ) for app pim",
                "Mounted mfib/red/pim",
                "Created Vorned directory collection for vrf red",
                "Created directory collection for vrf red",
                "Added url mfib/red/pim into mfibDir collection",
            }));
  EXPECT_EQ(w->mfibVorn("mfib/red/pim"), red);

  Kiv::Ptr<Status> red2 = w->doAddVorn("red", "mfib/red/pim2");
  EXPECT_EQ(vornDir->vornColl("red")->vornPtrs(), 2u);
  EXPECT_EQ(announcement("red")->vornUrl(), "mfib/red/pim2");
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"pim/red vornUrl mfib/red/pim2"}));
}

TEST_F(MfibDirWriterTest, DeleteRemovesTablesAndAnnouncementsButNeverTheDefaultOne) {
  w->doAddVorn("default", "mfib/default/pim");
  w->doAddVorn("red", "mfib/red/pim");
  rec.take();

  w->doDelVorn("default", "mfib/default/pim");
  EXPECT_FALSE(vornDir->vornColl("default"));
  EXPECT_FALSE(fileExists("mfib/default/pim"));
  EXPECT_FALSE(w->mfibVorn("mfib/default/pim"));
  EXPECT_TRUE(announcement("default"));
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"-vornColl default"}));

  w->doDelVorn("red", "mfib/red/pim");
  EXPECT_FALSE(announcement("red"));
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"-vornColl red", "pim -vrf red"}));
  EXPECT_TRUE(cap.contains("Deleted directory collection for vrf red"));
}

TEST_F(MfibDirWriterTest, BitMapperTableIsAnnouncedAfterItIsMadeAndUnmountedBeforeItIsWithdrawn) {
  Kiv::Ptr<BitMapper::VornStatus> bm = w->doAddBitMapperVorn("blue", "bm/blue/pim");
  ASSERT_TRUE(bm);
  EXPECT_EQ(bm->mode(), Vorn::Status::Mode::writer);
  EXPECT_EQ(w->mfibBitMapperVorn("bm/blue/pim"), bm);
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"pim +vrf blue", "pim/blue bitMapperVornUrl bm/blue/pim"}));

  struct Check : MfibDirColl::NotifieeConst {
    Check(Kiv::Ptr<MfibDirColl> const& c, Kiv::Ptr<Stelo::EntityManager> em) : NotifieeConst(c), em(em) {}
    void onBitMapperVornUrl() override { mountedAtWithdrawal = bool(em->mounted("bm/blue/pim")); }
    Kiv::Ptr<Stelo::EntityManager> em;
    bool mountedAtWithdrawal = true;
  } check(announcement("blue"), em);
  w->doDelBitMapperVorn("blue", "bm/blue/pim");
  EXPECT_FALSE(check.mountedAtWithdrawal);
  EXPECT_EQ(announcement("blue")->bitMapperVornUrl(), "");
  EXPECT_TRUE(cap.contains("Deleted url bm/blue/pim"));
}

TEST_F(MfibDirWriterTest, TheWriterAnswersByNameAndItsOperationsTakeTextArguments) {
  std::vector<std::string> attrs, ops;
  for (Kiv::Attr const& a : Kiv::typeInfo(*w).attrs())
    (a.kind == Kiv::AttrKind::operation ? ops : attrs).push_back(a.name);
  using V = std::vector<std::string>;
  EXPECT_EQ(attrs, (V{"appName", "mfibDir", "mfibVornDir", "entityManager", "initialized"}));
  EXPECT_EQ(ops, (V{"handleInitialized", "mfibVorn", "doAddVorn", "doDelVorn", "mfibBitMapperVorn",
                    "doAddBitMapperVorn", "doDelBitMapperVorn"}));
  EXPECT_EQ(Kiv::attrGet(*w, "appName"), "'pim'");
  EXPECT_EQ(Kiv::attrGet(*w, "mfibDir"), "Entity('Kiv::Dir', 'mfib')");
  EXPECT_THROW(Kiv::attrSet(*w, "initialized", "False"), Kiv::RangeException);

  EXPECT_EQ(Kiv::attrInvoke(*w, "doAddVorn", "'red', 'mfib/red/pim'"),
            "Entity('Vorn::Multicast::Fib::Status', 'mfib/red/pim')");
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"+vornColl red", "pim +vrf red", "pim/red vornUrl mfib/red/pim"}));
  EXPECT_EQ(Kiv::attrInvoke(*w, "mfibVorn", "'mfib/red/pim'"), Kiv::attrInvoke(*w, "mfibVorn", "'mfib/red/pim'"));
  EXPECT_EQ(Kiv::attrInvoke(*w, "mfibVorn", "'mfib/blue/pim'"), "None");
  EXPECT_THROW(Kiv::attrInvoke(*w, "doAddVorn", "'red'"), Kiv::RangeException);
  // Arguments are text forms: a bare word is not a string.
  EXPECT_THROW(Kiv::attrInvoke(*w, "doDelVorn", "red, 'mfib/red/pim'"), Kiv::ParseException);
  EXPECT_TRUE(fileExists("mfib/red/pim"));
  Kiv::attrInvoke(*w, "doDelVorn", "'red', 'mfib/red/pim'");
  EXPECT_FALSE(fileExists("mfib/red/pim"));
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"-vornColl red", "pim -vrf red"}));
}

TEST_F(MfibDirWriterTest, BadArgumentsFailLoudly) {
  EXPECT_DEATH(w->doAddVorn("red", ""), "vornUrl.size\\(\\)");
  try {
    w->doAddVorn(std::string(101, 'v'), "mfib/long/pim");
    FAIL() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "VrfName::bytes > VrfName::maxLength not allowed");
  }
  // A table that cannot be mounted announces nothing.
  EXPECT_THROW(w->doAddVorn("red", "../escape"), Kiv::ParseException);
  EXPECT_EQ(snapshot(*dir), "pim: default=,;");
}

}  // namespace
