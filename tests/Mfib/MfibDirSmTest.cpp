// The directory state machine in one process: an application writes the
// directory through MfibDirWriter, MfibDirSm reads the same Kiv::Dir with
// its own entity manager, as an agent would.
#include <gtest/gtest.h>

#include "Brisklog/Brisklog.h"
#include "Brisklog/Reader.h"
#include "Kiv/Trace.h"
#include "MfibDirTestUtil.h"

using namespace MfibTest;

namespace {

class MfibDirSmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Brisklog::Config c = savedBrisklog;
    c.dir = root.path();
    Brisklog::configIs(c);
  }
  void TearDown() override { Brisklog::configIs(savedBrisklog); }

  Kiv::Ptr<MfibDirWriter> writer(std::string const& app) {
    return mfibDirWriterFactory(app, dir, writerVornDir, writerEm);
  }
  Kiv::Ptr<MfibDirSm> sm() { return mfibDirSmFactory(dir, vornDir, readerEm); }
  Kiv::Ptr<Status> readerTable(std::string const& url) { return Kiv::ptrCast<Status>(readerEm->mounted(url)); }
  std::vector<std::string> records() {
    std::vector<std::string> out;
    Brisklog::Reader reader(Brisklog::path());
    for (Brisklog::Record const& r : reader.read())
      if (r.source() == "MfibDirSm") out.push_back(r.text());
    return out;
  }

  Brisklog::Config const savedBrisklog = Brisklog::config();
  VornTest::PrivateRoot root;
  Kiv::Ptr<Stelo::EntityManager> writerEm = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  Kiv::Ptr<Stelo::EntityManager> readerEm = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  Kiv::Ptr<Kiv::Dir> dir = Kiv::Dir::DirIs("mfib");
  Kiv::Ptr<MfibVornDir> writerVornDir = mfibVornDirFactory();
  Kiv::Ptr<MfibVornDir> vornDir = mfibVornDirFactory();
  Kiv::TraceCapture cap{"Mroute::MfibVorn/0-9"};
};

TEST_F(MfibDirSmTest, FactoryMountsEveryVrfAnnouncedBeforeIt) {
  auto pim = writer("pim");
  pim->doAddVorn("red", "mfib/red/pim")->routePublish(route(key(1), 2));
  pim->doAddVorn("default", "mfib/default/pim");
  cap.clear();

  auto s = sm();
  EXPECT_TRUE(s->initialized());
  ASSERT_EQ(vornDir->vornColls(), 2u);
  for (char const* vrf : {"default", "red"}) {
    auto coll = vornDir->vornColl(vrf);
    ASSERT_TRUE(coll) << vrf;
    ASSERT_EQ(coll->vornPtrs(), 1u);
    Kiv::Ptr<Status> t = readerTable(std::string("mfib/") + vrf + "/pim");
    ASSERT_TRUE(t);
    EXPECT_EQ(t->mode(), Vorn::Status::Mode::reader);  // the agent's own mount, not the writer's table
    EXPECT_EQ(coll->vornPtr(t.ptr()), t);
  }
  EXPECT_EQ(readerTable("mfib/red/pim")->route(key(1)).priority(), RoutePriority(2));
  EXPECT_EQ(s->appDir("pim")->mfibColls(), 2u);

  EXPECT_TRUE(cap.contains("void Vorn::Multicast::Fib::MfibDirSm::handleInitialized()"));
  EXPECT_TRUE(cap.contains("void Vorn::Multicast::Fib::MfibDirSm::handleMfibDir(Kiv::Name)( pim )"));
  EXPECT_TRUE(cap.contains("Created Mfib directory pim"));
  EXPECT_TRUE(
      cap.contains("void Vorn::Multicast::Fib::MfibDirSm::handleMountPoint(Kiv::Name, L3::VrfName) App: pim Vrf: red"));
  EXPECT_TRUE(cap.contains("Mounting mfib/red/pim Mfib vorn table for VRF red"));
  EXPECT_EQ(records(), (std::vector<std::string>{
                           "handleInitialized, Initializing... ",
                           "handleMfibDir, created mfib directory pim containing 2 VRFs",
                           "handleMountPoint Mounting mfib/default/pim Mfib vorn table for VRF default",
                           "handleMountPoint Mounting mfib/red/pim Mfib vorn table for VRF red",
                       }));
}

TEST_F(MfibDirSmTest, LiveAnnouncementsMountAndTheLastWithdrawalOfAVrfDeletesItsCollection) {
  auto s = sm();
  auto pim = writer("pim");
  auto stat = writer("static");
  EXPECT_EQ(s->appDirs(), 2u);
  EXPECT_EQ(vornDir->vornColls(), 0u);  // the default announcements carry no URL yet

  pim->doAddVorn("red", "mfib/red/pim");
  stat->doAddVorn("red", "mfib/red/static");
  auto coll = vornDir->vornColl("red");
  ASSERT_TRUE(coll);
  ASSERT_EQ(coll->vornPtrs(), 2u);
  EXPECT_EQ(coll->vornPtrMap().begin()->second, readerTable("mfib/red/pim"));  // entered first

  cap.clear();
  pim->doDelVorn("red", "mfib/red/pim");
  EXPECT_EQ(vornDir->vornColl("red"), coll);
  EXPECT_EQ(coll->vornPtrs(), 1u);
  EXPECT_FALSE(readerEm->mounted("mfib/red/pim"));
  EXPECT_TRUE(
      cap.contains("void Vorn::Multicast::Fib::MfibDirSm::KivAppDir::KivMfibColl::handleDel()( red ) for app pim"));
  EXPECT_TRUE(cap.contains("UnMounting mfib/red/pim Mfib vorn table for VRF red"));

  stat->doDelVorn("red", "mfib/red/static");
  EXPECT_FALSE(vornDir->vornColl("red"));
  EXPECT_EQ(s->appDir("static")->mfibColls(), 1u);  // default only
}

TEST_F(MfibDirSmTest, UrlChangesMountAgainKeepTheOldTableAndHandTheBitMapperTableToTheMfibTable) {
  auto s = sm();
  auto pim = writer("pim");
  pim->doAddVorn("red", "mfib/red/pim");
  pim->doAddBitMapperVorn("red", "bm/red/pim");
  Kiv::Ptr<Status> t = readerTable("mfib/red/pim");
  ASSERT_TRUE(t);
  ASSERT_TRUE(t->bitMapperVornStatus());
  EXPECT_EQ(Kiv::Ptr<Vorn::Status>(t->bitMapperVornStatus()), readerEm->mounted("bm/red/pim"));
  EXPECT_EQ(t->bitMapperVornStatus()->mode(), Vorn::Status::Mode::reader);
  EXPECT_TRUE(cap.contains("Mounting bm/red/pim Bitmapper") == false);  // that text is a ring-buffer record
  EXPECT_EQ(records().back(), "handleMountPoint Mounting bm/red/pim Bitmapper vorn table for VRF red");

  pim->doAddVorn("red", "mfib/red/pim2");
  auto coll = vornDir->vornColl("red");
  EXPECT_EQ(coll->vornPtrs(), 2u);
  EXPECT_TRUE(coll->vornPtr(t.ptr()));

  // The VRF's withdrawal unmounts the MFIB table it names now; the bit
  // mapper table stays mounted.
  pim->doDelVorn("red", "mfib/red/pim2");
  EXPECT_FALSE(readerEm->mounted("mfib/red/pim2"));
  EXPECT_TRUE(readerEm->mounted("bm/red/pim"));
}

TEST_F(MfibDirSmTest, AnAnnouncementWithoutMfibUrlIsIgnoredEvenWithABitMapperUrl) {
  auto s = sm();
  auto solo = writer("solo");
  cap.clear();
  solo->doAddBitMapperVorn("blue", "bm/blue/solo");
  EXPECT_FALSE(vornDir->vornColl("blue"));
  EXPECT_FALSE(readerEm->mounted("bm/blue/solo"));
  EXPECT_TRUE(cap.contains("Ignoring Vorn URL  of size 0"));
}

TEST_F(MfibDirSmTest, RemovingAnApplicationEntryRemovesAllItsReactors) {
  auto pim = writer("pim");
  pim->doAddVorn("red", "mfib/red/pim");
  auto s = sm();
  ASSERT_EQ(s->appDir("pim")->mfibColls(), 2u);
  Kiv::Ptr<MfibDir> appDir = pim->appDir();

  dir->entryDel("pim");
  EXPECT_EQ(s->appDirs(), 0u);
  EXPECT_EQ(s->mfibAppDirs(), 0u);
  EXPECT_TRUE(cap.contains("Deleted Mfib directory pim"));
  cap.clear();
  appDir->dirColl("red")->vornUrlIs("mfib/red/other");  // nobody listens any more
  EXPECT_FALSE(cap.contains("handleMountPoint"));
}

TEST_F(MfibDirSmTest, AnEntryOfAnotherTypeFailsTheFactoryButLaterCountsAsAbsent) {
  dir->entryIs("odd", Kiv::Dir::DirIs("odd"));
  try {
    sm();
    FAIL() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(),
                 "null _mfibAppDir parameter to mutator for Vorn::Multicast::Fib::MfibDirSm::mfibAppDir not allowed\"");
  }
  EXPECT_TRUE(cap.contains("Deleted Mfib directory odd"));

  dir->entryDel("odd");
  auto s = sm();
  cap.clear();
  dir->entryIs("odd", Kiv::Dir::DirIs("odd"));
  EXPECT_TRUE(cap.contains("Deleted Mfib directory odd"));
  EXPECT_EQ(s->appDirs(), 0u);
}

TEST_F(MfibDirSmTest, NullArgumentsToTheCollectionsAreRefusedWithTheirTexts) {
  auto pim = writer("pim");
  auto s = sm();
  auto expectText = [](auto&& f, char const* text) {
    try {
      f();
      ADD_FAILURE() << "no exception for " << text;
    } catch (Kiv::RangeException const& e) {
      EXPECT_STREQ(e.what(), text);
    }
  };
  expectText([&] { s->appDirIs("pim", nullptr); },
             "null _appDir parameter to mutator for Vorn::Multicast::Fib::MfibDirSm::appDir not allowed\"");
  expectText([&] { s->mfibAppDirIs(nullptr); },
             "null _mfibAppDir parameter to mutator for Vorn::Multicast::Fib::MfibDirSm::mfibAppDir not allowed\"");
  expectText([&] { s->appDir("pim")->mfibCollIs("red", nullptr); },
             "null _mfibColl parameter to mutator for Vorn::Multicast::Fib::MfibDirSm::KivAppDir::mfibColl not "
             "allowed\"");
  EXPECT_EQ(s->appDirs(), 1u);
}

TEST_F(MfibDirSmTest, MountingForAnApplicationWithoutDirectoryIsABrokenInvariant) {
  auto s = sm();
  EXPECT_DEATH(s->handleMountPoint("ghost", "red"), "appDir");
  EXPECT_DEATH(s->handleMountPoint(Kiv::Name(), "red"), "Need a valid name supplied");
}

TEST_F(MfibDirSmTest, DirectoryEntitiesAnswerByNameAndAMountIsReplayedByName) {
  auto pim = writer("pim");
  pim->doAddVorn("red", "mfib/red/pim");
  auto s = sm();
  auto names = [](Kiv::Entity const& e) {
    std::vector<std::string> out;
    for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs()) out.push_back(a.name);
    return out;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(names(*s), (V{"mfibDir", "mfibVornDir", "entityManager", "mfibAppDir", "appDir", "initialized",
                          "handleMfibDir", "handleMountPoint", "handleInitialized"}));
  Kiv::Ptr<Kiv::Entity> app = Kiv::attrOf(*s, "mfibAppDir").lookupEntity(*s, "pim");
  ASSERT_TRUE(app);
  EXPECT_EQ(names(*app), (V{"dirColl"}));
  Kiv::Ptr<Kiv::Entity> red = Kiv::attrOf(*app, "dirColl").lookupEntity(*app, "red");
  ASSERT_TRUE(red);
  EXPECT_EQ(names(*red), (V{"vrfName", "vornUrl", "bitMapperVornUrl"}));
  EXPECT_EQ(Kiv::attrGet(*red, "vornUrl"), "'mfib/red/pim'");
  EXPECT_THROW(Kiv::attrSet(*s, "initialized", "False"), Kiv::RangeException);

  // Unmounted by hand, the table comes back when the mount point is run by name.
  vornDir->vornCollDel("red");
  Kiv::attrInvoke(*s, "handleMountPoint", "'pim', 'red'");
  ASSERT_TRUE(vornDir->vornColl("red"));
  EXPECT_EQ(vornDir->vornColl("red")->vornPtrs(), 1u);
  EXPECT_THROW(Kiv::attrInvoke(*s, "handleMountPoint", "'pim'"), Kiv::RangeException);
}

}  // namespace
