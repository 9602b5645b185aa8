// The decoder tool as an operator runs it: a real process, its exit status,
// its standard output and standard error.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Brisklog/Layout.h"
#include "TraceDir.h"

namespace {

using Brisklog::Test::TraceDir;

struct ToolRun {
  int status = -1;  // exit status, or -1 when the tool died of a signal
  std::string out;
  std::string err;
};

ToolRun brisklogCat(std::string const& args, std::string const& errFile) {
  std::string cmd = std::string(BRISKLOG_CAT) + " " + args + " 2>" + errFile;
  ToolRun r;
  FILE* p = popen(cmd.c_str(), "r");
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream e(errFile);
  std::stringstream ss;
  ss << e.rdbuf();
  r.err = ss.str();
  return r;
}

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// The text after "<time> ", which is all a test can know in advance.
std::string afterTime(std::string const& line) { return line.substr(line.find(' ') + 1); }

TEST(BrisklogCat, HelpDescribesTheTool) {
  TraceDir dir;
  ToolRun r = brisklogCat("--help", dir.dir() + "/err");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("Usage: brisklog-cat [options] FILE...", 0), 0u);
  for (char const* option : {"--follow", "--source", "--since", "--until", "--last", "--list"})
    EXPECT_NE(r.out.find(option), std::string::npos) << option;
  EXPECT_EQ(brisklogCat("--bogus", dir.dir() + "/err").status, 2);
}

TEST(BrisklogCat, PrintsRecordsInOrderFilteredBySourceAndTime) {
  TraceDir dir;
  BRISKLOG("MrtNotifySm", "Start review of kernel upcalls");
  BRISKLOG("MfibDirSm", "handleMountPoint Mounting %s Mfib vorn table for VRF %s", "mfib-red", "red");
  BRISKLOG("MrtNotifySm", "Finished review of %d kernel upcalls in %g seconds", 3, 0.5);
  std::string const file = Brisklog::path();
  std::string const err = dir.dir() + "/err";

  ToolRun all = brisklogCat(file, err);
  EXPECT_EQ(all.status, 0) << all.err;
  std::vector<std::string> got = lines(all.out);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(afterTime(got[0]), "MrtNotifySm Start review of kernel upcalls");
  EXPECT_EQ(afterTime(got[1]), "MfibDirSm handleMountPoint Mounting mfib-red Mfib vorn table for VRF red");
  EXPECT_EQ(afterTime(got[2]), "MrtNotifySm Finished review of 3 kernel upcalls in 0.5 seconds");

  ToolRun one = brisklogCat("-s 'Mrt*' -l " + file, err);
  got = lines(one.out);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_NE(got[1].find("in 0.5 seconds  [BrisklogCatTest.cpp:"), std::string::npos) << got[1];

  EXPECT_EQ(lines(brisklogCat("--since -1h --last 1h " + file, err).out).size(), 3u);
  EXPECT_TRUE(brisklogCat("--until 2001-01-01T00:00:00Z " + file, err).out.empty());
  EXPECT_TRUE(brisklogCat("--since -0s " + file, err).out.empty());
}

TEST(BrisklogCat, DamagedOrForeignFilesAreReportedAndTheOthersStillPrinted) {
  TraceDir dir;
  BRISKLOG("Good", "still %s", "here");
  std::string const good = Brisklog::path();
  std::string const junk = dir.dir() + "/junk.brisklog";
  std::ofstream(junk) << std::string(10000, '\x7f');
  ToolRun r = brisklogCat(junk + " " + good, dir.dir() + "/err");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(junk + ": not a trace file"), std::string::npos) << r.err;
  ASSERT_EQ(lines(r.out).size(), 1u);
  EXPECT_NE(r.out.find("Good still here"), std::string::npos);
}

// A ring head moved a lap on must not hide the ring with nothing said.
TEST(BrisklogCat, AnImplausibleRingHeadIsReportedWithTheRingsRecords) {
  TraceDir dir(1u << 16, 1);
  BRISKLOG("Moved", "record %d", 1);
  BRISKLOG("Moved", "record %d", 2);
  std::string const file = Brisklog::path();
  Brisklog::close();
  std::size_t const headAt = Brisklog::kHeaderBytes + (64u << 10);
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  std::uint64_t head = 0;
  f.seekg(std::streamoff(headAt));
  f.read(reinterpret_cast<char*>(&head), 8);
  head += std::uint64_t(1) << 40;
  f.seekp(std::streamoff(headAt));
  f.write(reinterpret_cast<char const*>(&head), 8);
  f.close();
  ToolRun r = brisklogCat(file, dir.dir() + "/err");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(file + ": ring 0: head position " + std::to_string(head) + " is damaged"), std::string::npos)
      << r.err;
  std::vector<std::string> got = lines(r.out);
  ASSERT_EQ(got.size(), 2u) << r.out;
  EXPECT_EQ(afterTime(got[1]), "Moved record 2");
}

TEST(BrisklogCat, ListShowsEachFilesProcessAndWhetherItRuns) {
  TraceDir dir;
  BRISKLOG("Listed", "here");
  std::string const mine = Brisklog::path();
  std::ofstream(dir.dir() + "/junk.brisklog") << "not a trace";
  ToolRun r = brisklogCat("--list " + dir.dir(), dir.dir() + "/err");
  EXPECT_EQ(r.status, 0);
  std::vector<std::string> got = lines(r.out);
  ASSERT_EQ(got.size(), 2u) << r.out;
  // Sorted by name: "BrisklogTest-<pid>" before "junk".
  EXPECT_EQ(got[0].rfind(mine + "  BrisklogTest pid " + std::to_string(getpid()) + "  running", 0), 0u) << got[0];
  EXPECT_NE(got[1].find("junk.brisklog  unreadable: "), std::string::npos) << got[1];
}

TEST(BrisklogCat, PruneRemovesOnlyFilesOfProcessesThatHaveGone) {
  TraceDir dir;
  BRISKLOG("Pruned", "mine");
  std::string const mine = Brisklog::path();
  pid_t child = fork();
  if (child == 0) {
    BRISKLOG("Pruned", "child's");
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  std::string const childs = dir.dir() + "/BrisklogTest-" + std::to_string(child) + ".brisklog";
  std::string const other = dir.dir() + "/notes.txt";
  std::ofstream(other) << "kept";
  ASSERT_EQ(access(childs.c_str(), F_OK), 0);

  ToolRun r = brisklogCat("--prune " + dir.dir(), dir.dir() + "/err");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "removed " + childs + "\n");
  EXPECT_NE(access(childs.c_str(), F_OK), 0);
  EXPECT_EQ(access(mine.c_str(), F_OK), 0);
  EXPECT_EQ(access(other.c_str(), F_OK), 0);
}

TEST(BrisklogCat, FollowPrintsALiveWritersRecordsAndEndsWhenItGoes) {
  TraceDir dir;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t child = fork();
  if (child == 0) {
    BRISKLOG("Live", "first %d", 0);
    std::string p = Brisklog::path();
    if (write(fds[1], p.data(), p.size()) != ssize_t(p.size())) _exit(1);
    ::close(fds[1]);
    for (int i = 1; i <= 5; ++i) {
      usleep(100000);
      BRISKLOG("Live", "next %d", i);
    }
    _exit(0);
  }
  ::close(fds[1]);
  char buf[512];
  ssize_t n = ::read(fds[0], buf, sizeof buf);
  ::close(fds[0]);
  ASSERT_GT(n, 0);
  ToolRun r = brisklogCat("-f " + std::string(buf, std::size_t(n)), dir.dir() + "/err");
  waitpid(child, nullptr, 0);
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> got = lines(r.out);
  ASSERT_EQ(got.size(), 6u) << r.out;
  EXPECT_EQ(afterTime(got[0]), "Live first 0");
  EXPECT_EQ(afterTime(got[5]), "Live next 5");
}

}  // namespace
