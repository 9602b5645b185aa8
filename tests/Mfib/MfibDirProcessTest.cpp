// The MFIB directory across processes: application processes publish their
// part of the shared directory with MfibDirWriter; the test process is the
// agent, mirrors the directory from its event loop and runs MfibDirSm on it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Kiv/EventLoop.h"
#include "Kiv/Trace.h"
#include "MfibDirTestUtil.h"
#include "Stelo/SharedDir.h"

using namespace MfibTest;

namespace {

std::string readLine(int fd) {
  std::string line;
  char c;
  while (::read(fd, &c, 1) == 1) {
    if (c == '\n') return line;
    line += c;
  }
  return line;
}

void writeLine(int fd, std::string const& s) {
  std::string const line = s + "\n";
  if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
}

// An application process. It answers every command with its own view of
// the directory: "add VRF URL", "del VRF URL", "bm VRF URL", "delbm VRF URL",
// "route URL N PRIORITY", "remove" (its entry), "quit".
[[noreturn]] void application(std::string const& root, std::string const& app, int in, int out) {
  auto em = Stelo::EntityManager::entityManagerIs(nullptr, root);
  KivVorn::Mount mount(em);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf(app));
  auto dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  if (!dir) _exit(2);
  auto vornDir = mfibVornDirFactory();
  auto w = mfibDirWriterFactory(app, dir, vornDir, em);
  writeLine(out, snapshot(*dir));
  for (;;) {
    std::istringstream cmd(readLine(in));
    std::string op, vrf, url;
    cmd >> op;
    if (op == "add") {
      cmd >> vrf >> url;
      w->doAddVorn(vrf, url);
    } else if (op == "del") {
      cmd >> vrf >> url;
      w->doDelVorn(vrf, url);
    } else if (op == "bm") {
      cmd >> vrf >> url;
      w->doAddBitMapperVorn(vrf, url);
    } else if (op == "delbm") {
      cmd >> vrf >> url;
      w->doDelBitMapperVorn(vrf, url);
    } else if (op == "route") {
      unsigned n, priority;
      cmd >> url >> n >> priority;
      w->mfibVorn(url)->routePublish(route(key(n), priority));
    } else if (op == "remove") {
      dir->entryDel(app);
    } else {
      _exit(0);
    }
    writeLine(out, snapshot(*dir));
  }
}

class App {
 public:
  App(std::string const& root, std::string const& name) {
    int toApp[2], fromApp[2];
    if (::pipe(toApp) != 0 || ::pipe(fromApp) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      ::close(toApp[1]);
      ::close(fromApp[0]);
      application(root, name, toApp[0], fromApp[1]);
    }
    ::close(toApp[0]);
    ::close(fromApp[1]);
    in_ = toApp[1];
    out_ = fromApp[0];
    view = readLine(out_);
  }
  ~App() {
    ::close(in_);
    ::close(out_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  // Runs one command; returns the application's view of the directory.
  std::string const& operator()(std::string const& command) {
    writeLine(in_, command);
    view = readLine(out_);
    return view;
  }
  void kill() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  std::string view;

 private:
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
};

class MfibDirAcrossProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    KivVorn::Mount mount(em);
    mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
    dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
    ASSERT_TRUE(dir);
    rec = std::make_unique<DirRecorder>(dir);
    sm = mfibDirSmFactory(dir, vornDir, em);
  }
  // Turns the loop until the mirror shows `view`.
  bool settle(std::string const& view) {
    return loop.runUntil([&] { return snapshot(*dir) == view; }, 5.0);
  }
  // Turns the loop for a while; for checking that nothing comes.
  void idle(double seconds) {
    loop.runUntil([] { return false; }, seconds);
  }
  Stelo::SharedDir& shared() { return *em->sharedDir(MfibDir::sharedDirUrl); }

  VornTest::PrivateRoot root;
  Kiv::EventLoop loop;
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(&loop, root.path());
  Kiv::Ptr<Kiv::Dir> dir;
  std::unique_ptr<DirRecorder> rec;
  Kiv::Ptr<MfibVornDir> vornDir = mfibVornDirFactory();
  Kiv::Ptr<MfibDirSm> sm;
};

using Events = std::vector<std::string>;

TEST_F(MfibDirAcrossProcesses, ReaderAgreesWithTheWriterAfterEveryStepAndHearsEachChangeInOrder) {
  App pim(root.path(), "pim");  // starts after the reader: found through the root's notifications
  struct Step {
    std::string command;
    Events heard;
  };
  Step const steps[] = {
      {"", {"+app pim", "pim +vrf default"}},
      {"add red mfib/red/pim", {"pim +vrf red", "pim/red vornUrl mfib/red/pim"}},
      {"bm red bm/red/pim", {"pim/red bitMapperVornUrl bm/red/pim"}},
      {"add red mfib/red/pim2", {"pim/red vornUrl mfib/red/pim2"}},
      {"add default mfib/default/pim", {"pim/default vornUrl mfib/default/pim"}},
      {"delbm red bm/red/pim", {"pim/red bitMapperVornUrl "}},
      {"del red mfib/red/pim2", {"pim -vrf red"}},
      {"remove", {"pim -vrf default", "-app pim"}},
  };
  for (Step const& step : steps) {
    SCOPED_TRACE(step.command);
    std::string const view = step.command.empty() ? pim.view : pim(step.command);
    ASSERT_TRUE(settle(view)) << "mirror " << snapshot(*dir) << " writer " << view;
    EXPECT_EQ(rec->take(), step.heard);
    if (step.command == "add red mfib/red/pim") {
      ASSERT_TRUE(vornDir->vornColl("red"));
      EXPECT_EQ(vornDir->vornColl("red")->vornPtrs(), 1u);
    }
    if (step.command == "bm red bm/red/pim") {
      auto t = Kiv::ptrCast<Status>(em->mounted("mfib/red/pim"));
      ASSERT_TRUE(t);
      EXPECT_TRUE(t->bitMapperVornStatus());
    }
  }
  EXPECT_EQ(pim.view, "");
  // The table of red's first URL stays in the collection: a changed URL
  // never unmounts the old table, and the withdrawal names the new one.
  ASSERT_TRUE(vornDir->vornColl("red"));
  EXPECT_EQ(vornDir->vornColl("red")->vornPtrs(), 1u);
  EXPECT_FALSE(vornDir->vornColl("default"));
  EXPECT_EQ(sm->appDirs(), 0u);
  EXPECT_FALSE(shared().table("pim"));
}

TEST_F(MfibDirAcrossProcesses, AKilledWriterLeavesItsAnnouncementsAndItsRestartIsNotAWithdrawal) {
  std::string view;
  {
    App pim(root.path(), "pim");
    pim("add red mfib/red/pim");
    view = pim("route mfib/red/pim 1 2");
    ASSERT_TRUE(settle(view));
    pim.kill();
  }
  rec->take();
  idle(0.2);
  EXPECT_EQ(rec->take(), Events{});
  EXPECT_EQ(snapshot(*dir), view);
  auto coll = vornDir->vornColl("red");
  ASSERT_TRUE(coll);
  EXPECT_EQ(coll->route(key(1)).priority(), RoutePriority(2));  // its tables stay readable

  App again(root.path(), "pim");
  EXPECT_EQ(again.view, view);  // it adopted its part
  EXPECT_EQ(again("add red mfib/red/pim"), view);
  idle(0.2);
  EXPECT_EQ(rec->take(), Events{});
  EXPECT_EQ(vornDir->vornColl("red"), coll);

  // What it changes from now on reaches the reader as before.
  ASSERT_TRUE(settle(again("add red mfib/red/pim2")));
  EXPECT_EQ(rec->take(), Events{"pim/red vornUrl mfib/red/pim2"});
}

TEST_F(MfibDirAcrossProcesses, AWriterKilledAfterAnyStepAndStartedAgainConvergesWithoutAWithdrawal) {
  std::vector<std::string> const script = {"add red mfib/red/pim", "bm red bm/red/pim", "add blue mfib/blue/pim",
                                           "add red mfib/red/pim2", "add default mfib/default/pim"};
  std::string finalView;
  for (std::size_t killAfter = 1; killAfter <= script.size(); ++killAfter) {
    SCOPED_TRACE(killAfter);
    {
      App pim(root.path(), "pim");
      for (std::size_t i = 0; i < killAfter; ++i) pim(script[i]);
      ASSERT_TRUE(settle(pim.view));
      pim.kill();
    }
    rec->take();
    App again(root.path(), "pim");
    for (std::string const& step : script) again(step);
    ASSERT_TRUE(settle(again.view)) << snapshot(*dir) << " vs " << again.view;
    for (std::string const& e : rec->take()) EXPECT_TRUE(e.find(" -") == std::string::npos && e[0] != '-') << e;
    if (finalView.empty()) finalView = again.view;
    EXPECT_EQ(again.view, finalView);
    again("remove");
    ASSERT_TRUE(settle(""));
  }
}

TEST_F(MfibDirAcrossProcesses, ATableReplacedUnderItsNameIsFollowedAndTheEntryBroughtInLine) {
  {
    App pim(root.path(), "pim");
    pim("add red mfib/red/pim");
    ASSERT_TRUE(settle(pim("add blue mfib/blue/pim")));
  }
  rec->take();
  // A new table built aside and renamed into place, as a writer does that
  // cannot adopt the old one: it announces default and blue, with another
  // URL for blue.
  std::string const path = em->pathOfUrl("mfibdir/pim");
  Kiv::Ptr<MfibDirStatus> fresh = new MfibDirStatus("fresh");
  fresh->mountIs(path + ".new", Vorn::Status::Mode::writer);
  MfibDirRecord r;
  r.vrfName = "default";
  fresh->dirCollIs(r);
  r.vrfName = "blue";
  r.vornUrl = MfibDirUrl("mfib/blue/pim2");
  fresh->dirCollIs(r);
  ASSERT_EQ(std::rename((path + ".new").c_str(), path.c_str()), 0);

  ASSERT_TRUE(settle("pim: blue=mfib/blue/pim2, default=,;")) << snapshot(*dir);
  EXPECT_EQ(rec->take(), (Events{"pim -vrf red", "pim/blue vornUrl mfib/blue/pim2"}));
  EXPECT_EQ(shared().table("pim")->path(), path);
  EXPECT_FALSE(vornDir->vornColl("red"));
}

// The writer plays here, in this process, so that it can leave a record
// half-written the way a writer killed in the middle of a write does.
TEST_F(MfibDirAcrossProcesses, ATornRecordIsReportedAndLeavesItsVrfAsLastSeen) {
  auto wem = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  KivVorn::Mount mount(wem);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf("pim"));
  auto wdir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  auto w = mfibDirWriterFactory("pim", wdir, mfibVornDirFactory(), wem);
  w->doAddVorn("red", "mfib/red/pim");
  std::string const view = snapshot(*wdir);
  ASSERT_TRUE(settle(view));
  rec->take();

  auto table = Kiv::ptrCast<MfibDirStatus>(wem->sharedDir(MfibDir::sharedDirUrl)->table("pim"));
  ASSERT_TRUE(table);
  Vorn::Region* region = table->region();
  Vorn::TableGeometry const& g = region->table(table->dirCollTable().index());
  L3::VrfName const red("red");
  bool torn = false;
  for (std::uint32_t i = 1; i <= g.capacity() && !torn; ++i) {
    auto* h = reinterpret_cast<Vorn::Layout::EntryHead*>(g.entries + std::size_t(i) * g.entrySize);
    L3::VrfName stored;
    std::memcpy(static_cast<void*>(&stored), g.entries + std::size_t(i) * g.entrySize + g.keyOffset, sizeof stored);
    if (h->live == 1 && stored == red) {
      h->dseq.fetch_add(1);
      torn = true;
    }
  }
  ASSERT_TRUE(torn);
  pid_t const gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  region->header()->writerPid.store(static_cast<std::uint32_t>(gone));  // readers give up on it at once
  region->logChange(table->dirCollTable().index(), &red, sizeof red);

  auto const readerTable = shared().table("pim");
  ASSERT_TRUE(readerTable);
  ASSERT_TRUE(loop.runUntil([&] { return readerTable->corruptions() > 0; }, 5.0));
  EXPECT_EQ(snapshot(*dir), view);
  EXPECT_EQ(rec->take(), Events{});
  ASSERT_TRUE(vornDir->vornColl("red"));
  region->header()->writerPid.store(static_cast<std::uint32_t>(::getpid()));
}

TEST_F(MfibDirAcrossProcesses, ACorruptDirectoryTableIsReportedAndTheOthersCarryOn) {
  Kiv::TraceCapture cap("Vorn::Status/1");
  auto garbage = [&](std::string const& app) {
    std::string const path = em->pathOfUrl(std::string(MfibDir::sharedDirUrl) + "/" + app);
    std::ofstream(path + ".tmp.x") << std::string(8192, 'x');
    ASSERT_EQ(std::rename((path + ".tmp.x").c_str(), path.c_str()), 0);
  };
  garbage("bad");
  App stat(root.path(), "static");
  ASSERT_TRUE(settle(stat("add red mfib/red/static")));
  EXPECT_EQ(shared().corruptions(), 1u);
  EXPECT_TRUE(cap.contains("mfibdir%2Fbad.vorn"));
  EXPECT_FALSE(dir->has("bad"));

  // A reader started now finds both by listing the root.
  auto em2 = Stelo::EntityManager::entityManagerIs(&loop, root.path());
  KivVorn::Mount mount2(em2);
  mount2.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
  auto dir2 = Kiv::ptrCast<Kiv::Dir>(mount2.getEntity(MfibDir::sharedDirUrl));
  EXPECT_EQ(snapshot(*dir2), snapshot(*dir));
  EXPECT_EQ(em2->sharedDir(MfibDir::sharedDirUrl)->corruptions(), 1u);

  garbage("worse");
  App pim(root.path(), "pim");
  pim("add red mfib/red/pim");
  ASSERT_TRUE(settle("pim: default=, red=mfib/red/pim,;static: default=, red=mfib/red/static,;")) << snapshot(*dir);
  EXPECT_EQ(shared().corruptions(), 2u);
  EXPECT_EQ(vornDir->vornColl("red")->vornPtrs(), 2u);
}

TEST(MfibDirMount, FailuresToPublishOrFollowAreRaisedNotSwallowed) {
  VornTest::PrivateRoot root;
  auto em = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  auto expectText = [](auto&& f, std::string const& text) {
    try {
      f();
      ADD_FAILURE() << "no exception for " << text;
    } catch (Kiv::Exception const& e) {
      EXPECT_EQ(e.what(), text);
    }
  };
  expectText([&] { KivVorn::Mount(em).doMount("things", "No::Such", KivVorn::MountInfo::dirWriterOf("a")); },
             "no shared directory entry type 'No::Such' registered");
  expectText(
      [&] {
        KivVorn::Mount(em).doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText,
                                   KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
      },
      "a shared directory reader needs an entity manager with an event loop");
  EXPECT_FALSE(em->sharedDir(MfibDir::sharedDirUrl));

  // One writer per entry: another process publishing "pim" while this one
  // runs is refused.
  KivVorn::Mount(em).doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf("pim"));
  pid_t const child = fork();
  if (child == 0) {
    auto other = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
    try {
      KivVorn::Mount(other).doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText,
                                    KivVorn::MountInfo::dirWriterOf("pim"));
    } catch (Kiv::Exception const& e) {
      _exit(std::string(e.what()).find("is being written by pid " + std::to_string(getppid())) != std::string::npos
                ? 0
                : 2);
    }
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
