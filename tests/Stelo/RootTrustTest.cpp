// Tables under a root or in a file that another local user controls are
// never read or written as this process's own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../Kiv/OtherUser.h"
#include "../Vorn/VornTestUtil.h"
#include "Kiv/PathTrust.h"
#include "Kiv/Trace.h"
#include "Stelo/Mount.h"

using KivTest::asUser;
using KivTest::kNobody;
using KivTest::Scratch;
using KivVorn::MountInfo;

namespace {

#define NEEDS_ROOT() \
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files to another user"

std::string const url = "mfib/default/pim";

std::string refusal(std::function<void()> const& fn) {
  try {
    fn();
    return "";
  } catch (Kiv::UntrustedPathException const& e) {
    return e.what();
  }
}

}  // namespace

TEST(SteloRootTrust, ATableRootMadeFirstByAnotherUserIsRefusedForEveryKindOfMount) {
  NEEDS_ROOT();
  Scratch s;
  std::string const root = s / "vorn";
  // The other user was first, and left a table of theirs to be read.
  ASSERT_EQ(asUser(kNobody,
                   [&] {
                     ::mkdir(root.c_str(), 0755);
                     VornTest::mounted(root + "/mfib%2Fdefault%2Fpim.vorn", Vorn::Status::Mode::writer)
                         ->entryIs(VornTest::record(1));
                     return std::string("made");
                   }),
            "made");
  std::string const line = "table root " + root +
                           " is owned by uid 65534 (nobody), not by root: remove it or set VORN_ROOT to a "
                           "directory you own";
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root);
  KivVorn::Mount mount(em);
  EXPECT_EQ(refusal([&] { mount.handleInitialized(); }), line);
  EXPECT_EQ(refusal([&] { mount.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader)); }), line);
  EXPECT_EQ(refusal([&] { mount.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer)); }), line);
  EXPECT_FALSE(mount.getEntity(url));
  // Nothing of ours went in.
  struct stat st {};
  ASSERT_EQ(::stat((root + "/mfib%2Fdefault%2Fpim.vorn").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, kNobody);
}

TEST(SteloRootTrust, ATableFileOfAnotherUserIsRefusedByWritersAndAbsentForReaders) {
  NEEDS_ROOT();
  Scratch s;
  std::string const root = s / "tables";
  {
    Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root);
    KivVorn::Mount writer(em);
    writer.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
    Kiv::ptrCast<Vorn::TestStatus>(writer.getEntity(url))->entryIs(VornTest::record(1));
    writer.doUnmount(url);
  }
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root);
  std::string const file = em->pathOfUrl(url);
  ASSERT_EQ(::chown(file.c_str(), kNobody, kNobody), 0);
  Kiv::TraceCapture trace("Vorn::Mount/0-8");
  KivVorn::Mount reader(em);
  reader.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  EXPECT_FALSE(reader.getEntity(url));
  EXPECT_EQ(em->untrustedTables(), 1u);
  std::string const line = "table file " + file + " is owned by uid 65534 (nobody), not by root: remove it";
  EXPECT_TRUE(trace.contains("doMount: " + url + ": " + line));

  // A writer neither adopts nor replaces it.
  Kiv::Ptr<Stelo::EntityManager> wem = Stelo::EntityManager::entityManagerIs(nullptr, root);
  KivVorn::Mount writer(wem);
  EXPECT_EQ(refusal([&] { writer.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer)); }), line);
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, kNobody);

  // Ours, but others may write it: the same.
  ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
  ASSERT_EQ(::chmod(file.c_str(), 0664), 0);
  reader.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  EXPECT_FALSE(reader.getEntity(url));
  EXPECT_EQ(em->untrustedTables(), 2u);
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  reader.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  ASSERT_TRUE(reader.getEntity(url));
  EXPECT_EQ(Kiv::ptrCast<Vorn::TestStatus>(reader.getEntity(url))->entry(Vorn::TestKey(1)), VornTest::record(1));
}
