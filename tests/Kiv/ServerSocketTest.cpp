#include "Kiv/ServerSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "OtherUser.h"

using KivTest::asUser;
using KivTest::kNobody;
using KivTest::Scratch;

namespace {

Kiv::PathTrust::Use const use{"introspection socket", "KIV_INTROSPECT_DIR"};

bool exists(std::string const& path) { return ::access(path.c_str(), F_OK) == 0; }

bool answers(std::string const& path) {
  try {
    Kiv::connectTrusted(path, "introspection socket");
    return true;
  } catch (Kiv::Exception const&) {
    return false;
  }
}

}  // namespace

TEST(ServerSocket, ASecondServerIsRefusedNamingThePidOfTheFirst) {
  Scratch s;
  std::string const path = s / "kiv/agent.sock";
  auto first = std::make_unique<Kiv::ServerSocket>(path, use);
  // From another process, as a second agent would try.
  std::string const second = asUser(::geteuid(), [&] {
    try {
      Kiv::ServerSocket again(path, use);
      return std::string("taken over");
    } catch (Kiv::SocketInUseException const& e) {
      return std::string(e.what()) + " / " + std::to_string(e.pid());
    }
  });
  std::string const me = std::to_string(::getpid());
  EXPECT_EQ(second, "introspection socket " + path + " is in use by pid " + me + " / " + me);
  EXPECT_TRUE(answers(path));
  first.reset();
  EXPECT_FALSE(exists(path));
}

TEST(ServerSocket, AStaleSocketIsReplacedAndEachProcessRemovesOnlyItsOwn) {
  Scratch s;
  ASSERT_EQ(::mkdir((s / "own").c_str(), 0700), 0);
  std::string const path = s / "own/agent.sock";
  {
    // Bound, then gone without removing its file: a killed server.
    int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ::close(fd);
  }
  auto first = std::make_unique<Kiv::ServerSocket>(path, use);
  EXPECT_TRUE(answers(path));
  // A forked child holds a copy, not the path.
  pid_t const child = ::fork();
  if (child == 0) {
    first.reset();
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(answers(path));
  // The path lost to another server (first's file removed behind its back):
  // first's end leaves the other's socket alone.
  ::unlink(path.c_str());
  Kiv::ServerSocket second(path, use);
  first.reset();
  EXPECT_TRUE(answers(path));
}

TEST(ServerSocket, SomethingElseAtThePathOrADirectoryOfAnotherUserIsRefused) {
  Scratch s;
  ASSERT_EQ(::mkdir((s / "own").c_str(), 0700), 0);
  std::string const path = s / "own/agent.sock";
  ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
  try {
    Kiv::ServerSocket server(path, use);
    ADD_FAILURE() << "bound over a regular file";
  } catch (Kiv::UntrustedPathException const& e) {
    EXPECT_EQ(std::string(e.what()), "introspection socket " + path + " is not a socket (owned by " +
                                         Kiv::PathTrust::ownerText(::geteuid()) + "): remove it");
  }
  if (::geteuid() != 0) return;
  ASSERT_EQ(asUser(kNobody, [&] { return std::to_string(::mkdir((s / "kiv").c_str(), 0700)); }), "0");
  try {
    Kiv::ServerSocket server(s / "kiv/agent.sock", use);
    ADD_FAILURE() << "served from a directory of another user";
  } catch (Kiv::UntrustedPathException const& e) {
    EXPECT_EQ(std::string(e.what()), "introspection socket directory " + (s / "kiv") +
                                         " is owned by uid 65534 (nobody), not by root: remove it or set "
                                         "KIV_INTROSPECT_DIR to a directory you own");
  }
}

TEST(ServerSocket, ClientsRefuseAServerOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a server as another user";
  Scratch s;
  ASSERT_EQ(::mkdir((s / "theirs").c_str(), 0755), 0);
  ASSERT_EQ(::chown((s / "theirs").c_str(), kNobody, kNobody), 0);
  std::string const path = s / "theirs/agent.sock";
  int ready[2], done[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(done), 0);
  pid_t const child = ::fork();
  if (child == 0) {
    asUser(kNobody, [&] {
      Kiv::ServerSocket server(path, use);
      (void)!::write(ready[1], "r", 1);
      char c;
      (void)!::read(done[0], &c, 1);
      return std::string();
    });
    ::_exit(0);
  }
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  try {
    Kiv::connectTrusted(path, "introspection socket");
    ADD_FAILURE() << "talked to another user's server";
  } catch (Kiv::UntrustedPathException const& e) {
    std::string const what = e.what();
    EXPECT_EQ(what.rfind("introspection socket " + path + " is served by uid 65534 (nobody) (pid ", 0), 0u) << what;
    EXPECT_NE(what.find("), not by root: not talking to it"), std::string::npos) << what;
  }
  (void)!::write(done[1], "d", 1);
  ::waitpid(child, nullptr, 0);
  for (int fd : {ready[0], ready[1], done[0], done[1]}) ::close(fd);
}
