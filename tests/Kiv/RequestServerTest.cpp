// The request server's handler contract and its client against a real
// socket in a private directory; the loop is turned by the test while a
// thread asks. (Slow, stalled and queued readers: tests/mroute-agent/ShowTest.)
#include "Kiv/RequestServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <string>

namespace {

class RequestServerTest : public ::testing::Test {
 protected:
  RequestServerTest() {
    char tmpl[] = "/tmp/request-test-XXXXXX";
    if (::mkdtemp(tmpl) != nullptr) dir = tmpl;
  }
  ~RequestServerTest() override {
    server.reset();
    std::system(("rm -rf " + dir).c_str());
  }
  void serve(Kiv::RequestServer::Limits limits = {}) {
    server = std::make_unique<Kiv::RequestServer>(
        loop, dir + "/s.sock", Kiv::PathTrust::Use{"test socket", ""},
        [this](std::string const& request, Kiv::RequestServer::Peer const& peer) {
          asker = peer.pid;
          if (request == "fail") return Kiv::RequestServer::Answer::errorIs("first\nsecond");
          return Kiv::RequestServer::Answer::okIs("[" + request + "]");
        },
        limits);
  }
  Kiv::RequestReply ask(std::string const& request) {
    auto reply = std::async(std::launch::async, [&] {
      return Kiv::requestAsk(dir + "/s.sock", "test socket", request, "the test server");
    });
    while (reply.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) loop.runOnce(0.01);
    return reply.get();
  }

  Kiv::EventLoop loop;
  std::string dir;
  std::unique_ptr<Kiv::RequestServer> server;
  pid_t asker = 0;
};

TEST_F(RequestServerTest, AnswersEachLineAndSaysWhoAsked) {
  serve();
  Kiv::RequestReply r = ask("hello there");
  EXPECT_EQ(r.status, Kiv::RequestReply::ok);
  EXPECT_EQ(r.text, "[hello there]");
  EXPECT_EQ(asker, ::getpid());
  // An error stays one line, whatever the handler said.
  r = ask("fail");
  EXPECT_EQ(r.status, Kiv::RequestReply::refused);
  EXPECT_EQ(r.text, "first second");
}

TEST_F(RequestServerTest, ARequestPastItsBoundIsDroppedUnansweredAndCounted) {
  serve({std::size_t(1) << 20, 60.0, 8, 16});
  EXPECT_EQ(ask(std::string(16, 'x')).text, "[" + std::string(16, 'x') + "]");
  Kiv::RequestReply const r = ask(std::string(17, 'x'));
  EXPECT_EQ(r.status, Kiv::RequestReply::failed);
  EXPECT_EQ(server->refusedClients(), 1u);
  EXPECT_EQ(server->clients(), 0u);
  server.reset();
  EXPECT_EQ(Kiv::requestAsk(dir + "/s.sock", "test socket", "x", "the test server").status, Kiv::RequestReply::absent);
}

}  // namespace
