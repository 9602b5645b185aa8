#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../Vorn/VornTestUtil.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Trace.h"
#include "Stelo/Mount.h"

using namespace VornTest;
using KivVorn::MountInfo;
using Vorn::TestKey;
using Vorn::TestStatus;

namespace {

struct Item {
  std::uint32_t id = 0;
  friend bool operator==(Item const&, Item const&) = default;
};

class ForeignStatus : public Vorn::Status {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<ForeignStatus> {
   public:
    virtual void onItem(std::uint32_t) {}
  };
  explicit ForeignStatus(Kiv::Name const& n = Kiv::Name()) : Status(n) {}
  std::string_view typeName() const override { return "Stelo::ForeignStatus"; }
  VORN_TABLE(ForeignStatus, item, Item, std::uint32_t, Item, &Item::id, 8)
};
Vorn::StatusRegistrar<ForeignStatus> const foreignRegistrar("Stelo::ForeignStatus");

class SteloMount : public ::testing::Test {
 protected:
  PrivateRoot root;
  Kiv::EventLoop loop;
  Kiv::Ptr<Stelo::EntityManager> writerEm = Stelo::EntityManager::entityManagerIs(nullptr, root.path() + "/tables");
  Kiv::Ptr<Stelo::EntityManager> readerEm = Stelo::EntityManager::entityManagerIs(&loop, root.path() + "/tables");
  Kiv::Ptr<KivVorn::Mount> writer = new KivVorn::Mount(writerEm);
  Kiv::Ptr<KivVorn::Mount> reader = new KivVorn::Mount(readerEm);
  std::string const url = "mfib/default/pim";

  ~SteloMount() override {
    reader = nullptr;
    writer = nullptr;
    readerEm = nullptr;
    writerEm = nullptr;
  }
  Kiv::Ptr<TestStatus> entity(KivVorn::Mount& m) { return Kiv::ptrCast<TestStatus>(m.getEntity(url)); }
};

}  // namespace

TEST_F(SteloMount, WriterCreatesTheTableAndReadersInAnotherManagerFollowIt) {
  writer->handleInitialized();
  writer->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
  Kiv::Ptr<TestStatus> w = entity(*writer);
  ASSERT_TRUE(w);
  EXPECT_EQ(w->mode(), Vorn::Status::Mode::writer);
  EXPECT_EQ(w->path(), root.path() + "/tables/mfib%2Fdefault%2Fpim.vorn");
  w->entryIs(record(1));
  reader->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::mfibReader));
  Kiv::Ptr<TestStatus> r = entity(*reader);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->mode(), Vorn::Status::Mode::reader);
  EXPECT_EQ(r->entry(TestKey(1)), record(1));
  Recorder heard(r);
  w->entryIs(record(2));
  EXPECT_TRUE(loop.runUntil([&] { return heard.entries.size() == 1; }, 5.0));
  EXPECT_EQ(heard.entries, std::vector<TestKey>{TestKey(2)});
}

TEST_F(SteloMount, OneEntityPerUrlPerManagerUntilUnmounted) {
  writer->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
  Kiv::Ptr<Kiv::Entity> first = writer->getEntity(url);
  writer->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
  EXPECT_EQ(writer->getEntity(url), first);
  KivVorn::Mount another(writerEm);
  EXPECT_EQ(another.getEntity(url), first);
  reader->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  EXPECT_NE(reader->getEntity(url), first);
  writer->doUnmount(url);
  EXPECT_FALSE(writer->getEntity(url));
  EXPECT_FALSE(Kiv::ptrCast<TestStatus>(first)->mounted());
}

TEST_F(SteloMount, ReaderMountWithoutAUsableTableYieldsNoEntityAndSaysWhy) {
  Kiv::TraceCapture trace("Vorn::Mount/0-8");
  reader->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  EXPECT_FALSE(reader->getEntity(url));
  EXPECT_TRUE(trace.contains("doMount: mfib/default/pim: no table at " + root.path() +
                             "/tables/mfib%2Fdefault%2Fpim.vorn (yet)"));
  writer->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
  reader->doMount(url, "Stelo::ForeignStatus", MountInfo(MountInfo::reader));
  EXPECT_FALSE(reader->getEntity(url));
  EXPECT_TRUE(trace.contains("holds type 'Vorn::TestStatus', not 'Stelo::ForeignStatus'"));
  reader->doMount(url, "No::SuchStatus", MountInfo(MountInfo::reader));
  EXPECT_FALSE(reader->getEntity(url));
  EXPECT_TRUE(trace.contains("doMount: mfib/default/pim: unknown type name No::SuchStatus"));
  reader->doMount(url, "Vorn::TestStatus", MountInfo(1));
  EXPECT_FALSE(reader->getEntity(url));
  EXPECT_TRUE(trace.contains("doMount: mfib/default/pim: unknown mount kind 1"));
}

TEST_F(SteloMount, AWriterThatCannotMakeItsTableIsToldWhy) {
  writer->handleInitialized();
  // Something else, not a table, is where the table's file would go.
  ASSERT_EQ(mkdir(writerEm->pathOfUrl(url).c_str(), 0700), 0);
  try {
    writer->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
    ADD_FAILURE() << "a writer mount without its table went on";
  } catch (Kiv::ErrnoException const& e) {
    EXPECT_NE(std::string(e.what()).find(writerEm->pathOfUrl(url)), std::string::npos) << e.what();
  }
  EXPECT_FALSE(writer->getEntity(url));
  rmdir(writerEm->pathOfUrl(url).c_str());
}

TEST_F(SteloMount, UrlsThatCouldLeaveTheRootAreRefused) {
  EXPECT_THROW(writer->doMount("../escape", "Vorn::TestStatus", MountInfo(MountInfo::writer)), Kiv::ParseException);
  EXPECT_THROW(writer->doMount("/etc/x", "Vorn::TestStatus", MountInfo(MountInfo::writer)), Kiv::ParseException);
  EXPECT_THROW(reader->getEntity("a/../../b") ? void() : reader->doMount("a/../../b", "Vorn::TestStatus", MountInfo()),
               Kiv::ParseException);
}

TEST_F(SteloMount, ANewWriterAdoptsAndCleanupRemovesTheTable) {
  writer->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
  entity(*writer)->entryIs(record(7));
  writer->doUnmount(url);
  Kiv::Ptr<Stelo::EntityManager> em2 = Stelo::EntityManager::entityManagerIs(nullptr, writerEm->root());
  KivVorn::Mount second(em2);
  second.doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::writer));
  EXPECT_EQ(Kiv::ptrCast<TestStatus>(second.getEntity(url))->entry(TestKey(7)), record(7));
  reader->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  ASSERT_TRUE(reader->getEntity(url));
  second.doUnmount(url);
  second.cleanup(url);
  EXPECT_NE(access(writerEm->pathOfUrl(url).c_str(), F_OK), 0);
  reader->doUnmount(url);
  reader->doMount(url, "Vorn::TestStatus", MountInfo(MountInfo::reader));
  EXPECT_FALSE(reader->getEntity(url));
}

TEST(SteloRoot, RootComesFromTheCallerElseTheEnvironmentElseTheRuntimeDirectory) {
  char const* saved = getenv("VORN_ROOT");
  std::string const keep = saved ? saved : "";
  setenv("VORN_ROOT", "/tmp/elsewhere", 1);
  EXPECT_EQ(Stelo::EntityManager::entityManagerIs()->root(), "/tmp/elsewhere");
  EXPECT_EQ(Stelo::EntityManager::entityManagerIs(nullptr, "/tmp/mine")->root(), "/tmp/mine");
  unsetenv("VORN_ROOT");
  char const* xdg = getenv("XDG_RUNTIME_DIR");
  std::string const keepXdg = xdg ? xdg : "";
  setenv("XDG_RUNTIME_DIR", "/run/user/4242", 1);
  EXPECT_EQ(Stelo::EntityManager::entityManagerIs()->root(), geteuid() == 0 ? "/run/vorn" : "/run/user/4242/vorn");
  if (xdg) {
    setenv("XDG_RUNTIME_DIR", keepXdg.c_str(), 1);
  } else {
    unsetenv("XDG_RUNTIME_DIR");
  }
  if (saved) setenv("VORN_ROOT", keep.c_str(), 1);
}
