#include "Show.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <thread>

#include "EngineTest.h"
#include "Kiv/EventLoop.h"
#include "Kiv/System.h"

namespace MrouteAgentTest {

// The show socket against clients that read slowly, stop, or ask too much:
// a real socket in a private directory, the agent's loop turned by the test
// under a fake clock.
class ShowServerTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    char tmpl[] = "/tmp/show-test-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir = tmpl;
    // Enough routes that the answer is many times what a socket holds.
    for (int i = 0; i < 3000; ++i) {
      Route r(sg(("10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1)).c_str(), "239.1.1.1"));
      r.specialIntf1Is(IntfId("Ethernet1"));
      r.oifIs(OifIndex(2), true);
      r.priorityIs(RoutePriority(1));
      app->routePublish(r);
    }
    engine->flush();
  }
  void TearDown() override {
    server.reset();
    std::system(("rm -rf " + dir).c_str());
    EngineTest::TearDown();
  }
  void serve(ShowServer::Limits limits = ShowServer::Limits()) {
    server = std::make_unique<ShowServer>(loop, *engine, dir + "/agent.sock", limits);
  }
  // A client that asks and then reads only when told; its receive queue is
  // as small as the kernel allows.
  int ask(char const* request) {
    int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int const small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s/agent.sock", dir.c_str());
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(::write(fd, request, std::strlen(request)), ssize_t(std::strlen(request)));
    fds.push_back(fd);
    for (int i = 0; i < 5; ++i) loop.runOnce(0);
    return fd;
  }
  // Reads what is there now, turning the loop between reads; true at the end of the answer.
  bool readSome(int fd, std::string& got, std::size_t atMost) {
    char buf[8192];
    std::size_t taken = 0;
    for (int idle = 0; taken < atMost && idle < 500;) {
      ssize_t const n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
      if (n == 0) return true;
      if (n < 0) {
        loop.runOnce(0.01);
        ++idle;
        continue;
      }
      idle = 0;
      got.append(buf, std::size_t(n));
      taken += std::size_t(n);
      loop.runOnce(0);
    }
    return false;
  }
  ~ShowServerTest() override {
    for (int fd : fds) ::close(fd);
  }

  Kiv::FakeClock clock;
  Kiv::EventLoop loop;
  std::string dir;
  std::unique_ptr<ShowServer> server;
  std::vector<int> fds;
};

TEST_F(ShowServerTest, AReaderThatPausesGetsItsWholeAnswer) {
  serve({std::size_t(1) << 30, 30.0, 8});
  std::string const expected = showText(*engine);
  ASSERT_GT(expected.size(), 300'000u);
  int const fd = ask("show text\n");
  std::string got;
  // Pauses of 10 s and then of 25 s between reads: longer in all than the
  // stall bound, but never that long without taking anything.
  clock.advance(10);
  loop.runOnce(0);
  EXPECT_FALSE(readSome(fd, got, 100'000));
  for (int i = 0; i < 3; ++i) {
    clock.advance(25);
    loop.runOnce(0);
    EXPECT_FALSE(readSome(fd, got, 50'000));
  }
  EXPECT_EQ(server->clients(), 1u);
  EXPECT_TRUE(readSome(fd, got, std::string::npos));
  EXPECT_EQ(got, "ok " + std::to_string(expected.size()) + "\n" + expected);
  EXPECT_EQ(server->clients(), 0u);
  EXPECT_EQ(server->stalledClients(), 0u);

  // The client's side takes it whole.
  int const again = ask("show text\n");
  clock.advance(6);
  loop.runOnce(0);
  std::ostringstream out, err;
  int rc = -1;
  std::thread reader([&] { rc = showAnswer(again, out, err); });
  loop.runUntil([&] { return server->clients() == 0; }, 10);
  reader.join();
  EXPECT_EQ(rc, 0) << err.str();
  EXPECT_EQ(out.str(), expected);
}

TEST_F(ShowServerTest, AReaderThatStopsPastTheBoundIsDroppedAndTheClientSaysSo) {
  serve({std::size_t(1) << 30, 30.0, 8});
  int const fd = ask("show json\n");
  clock.advance(31);
  loop.runOnce(0);
  EXPECT_EQ(server->clients(), 0u);
  EXPECT_EQ(server->stalledClients(), 1u);
  std::ostringstream out, err;
  EXPECT_EQ(showAnswer(fd, out, err), 1);
  EXPECT_EQ(out.str(), "");
  EXPECT_NE(err.str().find("mroute-agent: the agent's answer is incomplete: "), std::string::npos) << err.str();
}

TEST_F(ShowServerTest, AnAnswerPastItsBoundAndAnUnknownRequestAreErrorLines) {
  serve({1000, 30.0, 8});
  std::ostringstream out, err;
  EXPECT_EQ(showAnswer(ask("show text\n"), out, err), 1);
  EXPECT_EQ(err.str(), "mroute-agent: the agent answered: the answer would be " +
                           std::to_string(showText(*engine).size()) + " bytes, more than the 1000 it may be\n");
  std::ostringstream out2, err2;
  EXPECT_EQ(showAnswer(ask("list\n"), out2, err2), 1);
  EXPECT_EQ(err2.str(), "mroute-agent: the agent answered: unknown request 'list'\n");
  EXPECT_EQ(out.str() + out2.str(), "");
}

TEST_F(ShowServerTest, ClientsPastTheLimitWaitTheirTurn) {
  serve({std::size_t(1) << 30, 30.0, 1});
  int const first = ask("show text\n");
  int const second = ask("show json\n");
  EXPECT_EQ(server->clients(), 1u);
  std::string a, b;
  EXPECT_TRUE(readSome(first, a, std::string::npos));
  for (int i = 0; i < 5; ++i) loop.runOnce(0);
  EXPECT_TRUE(readSome(second, b, std::string::npos));
  EXPECT_EQ(b.substr(0, 3), "ok ");
  EXPECT_EQ(b.substr(b.find('\n') + 1), showJson(*engine));
}

}  // namespace MrouteAgentTest
