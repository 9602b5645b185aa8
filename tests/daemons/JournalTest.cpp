// Lines for the journal: the stream it names is recognised exactly, every
// line written there carries its priority, and nowhere else does.
#include "Journal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/Vorn/VornTestUtil.h"

namespace Daemon {
namespace {

std::string streamName(int fd) {
  struct stat st {};
  ::fstat(fd, &st);
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

class JournalTest : public ::testing::Test {
 protected:
  int fds_[2] = {-1, -1};
  void SetUp() override { ASSERT_EQ(::pipe(fds_), 0); }
  void TearDown() override {
    ::close(fds_[0]);
    ::close(fds_[1]);
    ::unsetenv("JOURNAL_STREAM");
  }
};

TEST_F(JournalTest, OnlyTheNamedStreamIsTheJournal) {
  std::string const name = streamName(fds_[1]);
  EXPECT_TRUE(fdIsJournal(fds_[1], name.c_str()));
  // A pipe's two ends are one inode; another pipe is not.
  int other[2];
  ASSERT_EQ(::pipe(other), 0);
  EXPECT_FALSE(fdIsJournal(other[1], name.c_str()));
  ::close(other[0]);
  ::close(other[1]);
  EXPECT_FALSE(fdIsJournal(fds_[1], nullptr));
  EXPECT_FALSE(fdIsJournal(fds_[1], ""));
  EXPECT_FALSE(fdIsJournal(fds_[1], (name + "x").c_str()));
  EXPECT_FALSE(fdIsJournal(fds_[1], name.substr(0, name.find(':')).c_str()));
  EXPECT_FALSE(fdIsJournal(-1, name.c_str()));
}

TEST_F(JournalTest, EveryLineWrittenToTheJournalStartsWithItsPriority) {
  ::setenv("JOURNAL_STREAM", streamName(fds_[1]).c_str(), 1);
  std::ostringstream journal, elsewhere;
  journalStreamIs(journal, fds_[1], Priority::warning);
  journalStreamIs(elsewhere, fds_[0] + 100, Priority::warning);
  // One line written in pieces, then two at once, then one left open.
  journal << "cannot read "
          << "routes"
          << ": gone" << std::endl
          << "a\nb\n"
          << "partial";
  elsewhere << "a\nb\n";
  EXPECT_EQ(journal.str(), "<4>cannot read routes: gone\n<4>a\n<4>b\n<4>partial");
  EXPECT_EQ(elsewhere.str(), "a\nb\n");
}

// mroute-static under a journal: its load line at information priority.
TEST_F(JournalTest, AProgramWritingToTheJournalPrefixesItsLines) {
  VornTest::PrivateRoot root;
  std::string const routes = root.path() + "/../journal-test-" + std::to_string(::getpid()) + ".routes";
  std::ofstream(routes) << "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\nbad line\n";
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::dup2(fds_[1], STDOUT_FILENO);
    ::dup2(fds_[1], STDERR_FILENO);
    ::setenv("JOURNAL_STREAM", streamName(fds_[1]).c_str(), 1);
    ::setenv("VORN_ROOT", root.path().c_str(), 1);
    ::execl(MROUTE_STATIC_PATH, "mroute-static", "--app", "static", "--file", routes.c_str(), "--once", nullptr);
    ::_exit(127);
  }
  ::close(fds_[1]);
  fds_[1] = -1;
  std::string out;
  char buf[512];
  for (ssize_t n; (n = ::read(fds_[0], buf, sizeof buf)) > 0;) out.append(buf, std::size_t(n));
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid) << std::strerror(errno);
  EXPECT_EQ(status, 1 << 8);
  // The refused line (its text is the route file's) as a warning, the load as information.
  std::size_t const nl = out.find('\n');
  ASSERT_NE(nl, std::string::npos) << out;
  EXPECT_EQ(out.substr(0, 3 + routes.size() + 4), "<4>" + routes + ":2: ");
  EXPECT_EQ(out.substr(nl + 1), "<6>static static: 1 routes (+1 -0 ~0); 1 refused: 1 malformed\n");
  std::remove(routes.c_str());
}

}  // namespace
}  // namespace Daemon
