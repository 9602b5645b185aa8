// The program's commands against a running instance: add, del and list
// through its control socket, read back from the published table as an
// agent reads it; and the socket's trust rules between users.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

#include "TableReader.h"
#include "tests/Kiv/OtherUser.h"
#include "tests/Vorn/VornTestUtil.h"

namespace MrouteStatic {
namespace {

struct Ran {
  int status = -1;
  std::string out;  // stdout and stderr
};

// mroute-static run as a daemon with its own table root and socket
// directory; its output lines are read on demand.
class Instance {
 public:
  Instance(std::string const& root, std::string const& control, std::string const& file, uid_t uid = 0)
      : root_(root), control_(control) {
    int out[2];
    if (::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], 1);
      ::dup2(out[1], 2);
      ::setenv("VORN_ROOT", root.c_str(), 1);
      ::setenv("MROUTE_STATIC_DIR", control.c_str(), 1);
      // Another user's trace records go beside its socket directory.
      if (uid != 0) ::setenv("BRISKLOG_DIR", control.substr(0, control.rfind('/')).c_str(), 1);
      if (uid != 0 &&
          (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0))
        ::_exit(126);
      ::execl(MROUTE_STATIC_PATH, "mroute-static", "--app", "static", "--file", file.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(out[1]);
    out_ = ::fdopen(out[0], "r");
  }
  ~Instance() {
    stop();
    if (out_) std::fclose(out_);
  }
  std::string line() {
    char buf[1024];
    return out_ && std::fgets(buf, sizeof buf, out_) ? std::string(buf) : std::string("(end)");
  }
  int stop() {
    if (pid_ <= 0) return status_;
    ::kill(pid_, SIGTERM);
    int st = 0;
    ::waitpid(pid_, &st, 0);
    pid_ = -1;
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return status_;
  }
  void signal(int sig) { ::kill(pid_, sig); }
  // The command line `mroute-static <args>` run against this instance.
  Ran run(std::string const& args, std::string const& as = "") const {
    std::string const cmd = as + "env MROUTE_STATIC_DIR=" + control_ + " " + MROUTE_STATIC_PATH + " " + args + " 2>&1";
    Ran r;
    FILE* p = ::popen(cmd.c_str(), "r");
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    int const st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
  }

 private:
  std::string root_, control_;
  pid_t pid_ = -1;
  int status_ = -1;
  FILE* out_ = nullptr;
};

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class ControlProgram : public ::testing::Test {
 protected:
  void SetUp() override { std::ofstream(file) << "# lab\ndefault 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n"; }
  std::map<std::string, std::string> table() const { return view(root.path(), "mfib/default/static").route; }

  VornTest::PrivateRoot root;
  std::string const control = root.path() + "/control";
  std::string const file = root.path() + "/../mroute-static-control-" + std::to_string(::getpid()) + ".routes";
  ~ControlProgram() override { std::remove(file.c_str()); }
};

TEST_F(ControlProgram, AddsRemovesAndListsRoutesOfARunningInstance) {
  Instance app(root.path(), control, file);
  ASSERT_EQ(app.line(), "static static: 1 routes (+1 -0 ~0)\n");

  Ran r = app.run("add default 10.1.0.2 239.1.1.5 Ethernet1 Ethernet3");
  EXPECT_EQ(r.status, 0) << r.out;
  std::string const log = app.line();
  EXPECT_EQ(log.substr(0, log.find(") by pid ")),
            "static static: 2 routes (+1 -0 ~0); add default 10.1.0.2 239.1.1.5 Ethernet1 Ethernet3 (run-time, " +
                file + " unchanged");
  EXPECT_TRUE(std::regex_search(log, std::regex("\\) by pid [1-9][0-9]* uid " + std::to_string(::geteuid()) + "\n$")))
      << log;
  r = app.run("del --persist default 10.1.0.2 239.1.1.1");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "removed default 10.1.0.2 239.1.1.1, written to " + file + "\n");
  app.line();
  EXPECT_EQ(table(), (std::map<std::string, std::string>{{"(10.1.0.2, 239.1.1.5)", "Ethernet1 prio 1 -> Ethernet3"}}));
  EXPECT_EQ(slurp(file), "# lab\n");

  // Refusals: exit 1 with the reason, nothing published.
  r = app.run("add default 10.1.0.2 239.1.1.6 Ethernet1 Ethernet1");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "mroute-static: add: incoming interface Ethernet1 is also an outgoing interface; route refused\n");
  EXPECT_EQ(app.line().substr(0, 53), "mroute-static: refused add default 10.1.0.2 239.1.1.6");
  EXPECT_EQ(app.run("del default 10.1.0.2 239.1.1.6").status, 1);
  EXPECT_EQ(app.line().substr(0, 53), "mroute-static: refused del default 10.1.0.2 239.1.1.6");
  EXPECT_EQ(app.run("add --app other default 10.1.0.2 239.1.1.6 Ethernet1 -").out,
            "mroute-static: no instance for application 'other' answers at " + control +
                "/other.sock: No such file or directory\n");
  EXPECT_EQ(app.run("list --bogus").status, 2);
  EXPECT_EQ(table().size(), 1u);

  // The run-time route outlives a reload of the file, and list says it is one.
  app.signal(SIGHUP);
  EXPECT_EQ(app.line(), "static static: 1 routes (+0 -0 ~0); 1 run-time change kept (not in " + file + ")\n");
  EXPECT_EQ(table().size(), 1u);
  r = app.run("list");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("default  10.1.0.2  239.1.1.5  Ethernet1  Ethernet3  1  # run-time\n"), std::string::npos)
      << r.out;
  r = app.run("list --json");
  EXPECT_NE(r.out.find("\"group\": \"239.1.1.5\", \"iif\": \"Ethernet1\", \"oifs\": [\"Ethernet3\"], \"priority\": 1, "
                       "\"origin\": \"run-time\", \"published\": true}"),
            std::string::npos)
      << r.out;

  app.signal(SIGTERM);
  EXPECT_EQ(app.line(), "static static: withdrawn; 1 run-time change not in " + file + " gone\n");
  EXPECT_EQ(app.stop(), 0);
  // The next run takes the path; a second one at the same time is refused.
  Instance again(root.path(), control, file);
  EXPECT_EQ(again.line(), "static static: 0 routes (+0 -0 ~0)\n");
  Instance third(root.path(), control, file);
  EXPECT_NE(third.line().find(": an instance for application 'static' runs already"), std::string::npos);
  EXPECT_EQ(third.stop(), 1);
}

// Only the instance's user (and root) may talk to it; a command refuses an
// instance of another user.
TEST_F(ControlProgram, AnotherUserCannotTalkToItNorServeIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run as another user";
  {
    Instance app(root.path(), control, file);
    ASSERT_EQ(app.line(), "static static: 1 routes (+1 -0 ~0)\n");
    std::string const nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    Ran r = app.run("del default 10.1.0.2 239.1.1.1", nobody);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("Permission denied"), std::string::npos) << r.out;
    // With the directory and socket opened to all, the instance itself
    // still sends nobody away.
    ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(control.c_str(), 0755), 0);
    ASSERT_EQ(::chmod((control + "/static.sock").c_str(), 0777), 0);
    r = app.run("del default 10.1.0.2 239.1.1.1", nobody);
    EXPECT_EQ(r.status, 1);
    // Closed unanswered: depending on when, the client cannot send, finds
    // its connection reset, or reads no answer.
    EXPECT_TRUE(
        std::regex_match(r.out, std::regex("mroute-static: (cannot ask mroute-static: Broken pipe|reading "
                                           "mroute-static's answer: Connection reset by peer|mroute-static's "
                                           "answer is incomplete or not understood \\(0 bytes, no header\\))\n")))
        << r.out;
    EXPECT_EQ(table().size(), 1u);
    EXPECT_EQ(app.run("list").status, 0);
  }
  // An instance run by nobody, in directories of its own.
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  std::string const mine = root.path() + "-nobody";
  ASSERT_EQ(::mkdir(mine.c_str(), 0700), 0);
  ASSERT_EQ(::chown(mine.c_str(), KivTest::kNobody, KivTest::kNobody), 0);
  {
    Instance theirs(mine + "/vorn", mine + "/control", file, KivTest::kNobody);
    EXPECT_EQ(theirs.line(), "static static: 1 routes (+1 -0 ~0)\n");
    Ran const r = theirs.run("list");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("control socket " + mine + "/control/static.sock is served by uid 65534"), std::string::npos)
        << r.out;
  }
  VornTest::PrivateRoot::removeAll(mine);
}

}  // namespace
}  // namespace MrouteStatic
