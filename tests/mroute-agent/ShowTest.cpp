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
    server->nowIs([this] { return now; });
  }
  // Answers as the server gives them at the same moment.
  std::string text() { return showText(*engine, {}, now); }
  std::string json() { return showJson(*engine, {false, true, {}}, now); }
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
  ShowNow now{5'000'000'000, 1'700'000'000'000'000'000};
  std::string dir;
  std::unique_ptr<ShowServer> server;
  std::vector<int> fds;
};

TEST_F(ShowServerTest, AReaderThatPausesGetsItsWholeAnswer) {
  serve({std::size_t(1) << 30, 30.0, 8});
  std::string const expected = text();
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
  // Generous on a loaded machine; a reader left waiting is freed either way.
  EXPECT_TRUE(loop.runUntil([&] { return server->clients() == 0; }, 60));
  if (server->clients() != 0) ::shutdown(again, SHUT_RDWR);
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
  EXPECT_EQ(err.str(), "mroute-agent: the agent answered: the answer would be " + std::to_string(text().size()) +
                           " bytes, more than the 1000 it may be\n");
  std::ostringstream out2, err2;
  EXPECT_EQ(showAnswer(ask("list\n"), out2, err2), 1);
  EXPECT_EQ(err2.str(), "mroute-agent: the agent answered: unknown request 'list'\n");
  EXPECT_EQ(out.str() + out2.str(), "");
  // A filter the agent refuses is a usage error of the client's: status 2.
  std::ostringstream out3, err3;
  EXPECT_EQ(showAnswer(ask("show text --family ipv5\n"), out3, err3), 2);
  EXPECT_EQ(err3.str(), "mroute-agent: the agent answered: filter: --family: 'ipv5' is neither ipv4 nor ipv6\n");
}

TEST_F(ShowServerTest, TheAgentAppliesTheFilterOfTheRequest) {
  serve();
  std::ostringstream out, err;
  EXPECT_EQ(showAnswer(ask("show json --source 10.1.3.7 --intf Ethernet1\n"), out, err), 0) << err.str();
  EXPECT_NE(out.str().find("\"source\": \"10.1.3.7\", \"group\": \"239.1.1.1\""), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("\"routesShown\": 1, \"routesHeld\": 3000"), std::string::npos) << out.str();
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
  EXPECT_EQ(b.substr(b.find('\n') + 1), json());
}

// What show selects and how it states times, over the engine fixture: a
// mixed table of both families, (S, G) and (*, G) routes, another VRF and
// drop entries.
class ShowFilterTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    publish(*app, sg("10.1.0.2", "239.1.1.1"), "Ethernet1", {2});
    publish(*app, sg("10.1.0.3", "239.1.2.1"), "Ethernet1", {3});
    clockNs = 2'000'000'000;
    publish(*app, starG("239.2.2.2"), "Ethernet2", {1, 3});
    engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.7"), IpGenAddr("239.2.2.2"), IntfId("Ethernet2"));
    engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.9.0.7"), IpGenAddr("239.2.2.2"), IntfId("Ethernet2"));
    publish(*app, sg("2001:db8:1::2", "ff3e::1:1"), "Ethernet1", {2});
    Kiv::Ptr<Status> red = table("red", "static-red");
    publish(*red, sg("10.1.0.2", "239.1.1.1"), "Ethernet3", {1});
    clockNs = 4'000'000'000;
    engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.9.9.9"), IntfId("Ethernet3"));
    engine->handleNoCache(Wirly::ipv6, IpGenAddr("2001:db8:1::2"), IpGenAddr("ff3e::9:9"), IntfId("Ethernet1"));
  }
  ShowRequest request(std::vector<std::string> const& words, bool json = false, bool interfaces = false) {
    ShowRequest r{interfaces, json, {}};
    std::string const why = showFilterParse(words, interfaces, r.filter);
    EXPECT_EQ(why, "");
    return r;
  }
  // The keys the text lists: routes (at the line's start, with their VRF)
  // and (*, G) entries and drop entries (after "+").
  std::string picked(std::vector<std::string> const& words) {
    std::istringstream is(showText(*engine, request(words), now));
    std::string out, vrf, section;
    for (std::string line; std::getline(is, line);) {
      if (line.rfind("VRF ", 0) == 0) vrf = line.substr(4, line.find(' ', 4) - 4) + ":";
      if (line.rfind("Drop entries", 0) == 0) vrf = "drop:";
      if (line.rfind("(", 0) == 0) out += " " + vrf + line.substr(0, line.find(')') + 1);
      if (line.rfind("    (", 0) == 0) out += " +" + line.substr(4, line.find(')') - 3);
    }
    return out;
  }
  ShowNow now{64'000'000'000, 1'764'000'000'000'000'000};  // 2025-11-24T16:00:00Z
};

TEST_F(ShowFilterTest, FiltersPickExactlyTheRoutesAndEntriesThatMatch) {
  EXPECT_EQ(picked({}),
            " default:(*, 239.2.2.2) +(10.1.0.7, 239.2.2.2) +(10.9.0.7, 239.2.2.2) default:(10.1.0.2, 239.1.1.1)"
            " default:(10.1.0.3, 239.1.2.1) default:(2001:db8:1::2, ff3e::1:1) red:(10.1.0.2, 239.1.1.1)"
            " drop:(10.1.0.2, 239.9.9.9) drop:(2001:db8:1::2, ff3e::9:9)");
  EXPECT_EQ(picked({"--vrf", "red"}), " red:(10.1.0.2, 239.1.1.1)");
  EXPECT_EQ(picked({"--family", "ipv6"}), " default:(2001:db8:1::2, ff3e::1:1) drop:(2001:db8:1::2, ff3e::9:9)");
  EXPECT_EQ(picked({"--group", "239.1.0.0/16", "--vrf", "default"}),
            " default:(10.1.0.2, 239.1.1.1) default:(10.1.0.3, 239.1.2.1)");
  // A source picks (S, G) routes, the matching entries of (*, G) routes only,
  // and drop entries; a prefix of length 0 also picks (*, G) routes alone.
  EXPECT_EQ(picked({"--source", "10.1.0.0/24", "--group", "239.0.0.0/8", "--vrf", "default"}),
            " default:(*, 239.2.2.2) +(10.1.0.7, 239.2.2.2) default:(10.1.0.2, 239.1.1.1)"
            " default:(10.1.0.3, 239.1.2.1) drop:(10.1.0.2, 239.9.9.9)");
  EXPECT_EQ(picked({"--source", "10.9.0.7"}), " default:(*, 239.2.2.2) +(10.9.0.7, 239.2.2.2)");
  EXPECT_EQ(picked({"--source", "0.0.0.0/0", "--group", "239.2.0.0/16"}),
            " default:(*, 239.2.2.2) +(10.1.0.7, 239.2.2.2) +(10.9.0.7, 239.2.2.2)");
  // An interface is incoming or outgoing, by id or Linux name; a drop
  // entry's is where its flow arrived.
  EXPECT_EQ(picked({"--intf", "Ethernet3", "--family", "ipv4"}),
            " default:(*, 239.2.2.2) +(10.1.0.7, 239.2.2.2) +(10.9.0.7, 239.2.2.2)"
            " default:(10.1.0.3, 239.1.2.1) red:(10.1.0.2, 239.1.1.1) drop:(10.1.0.2, 239.9.9.9)");
  EXPECT_EQ(picked({"--group", "ff3e::1:1", "--intf", "Ethernet3"}), "");
  EXPECT_EQ(picked({"--vrf", "blue"}), "");
  EXPECT_NE(
      showText(*engine, request({"--vrf", "red"}), now).find("filter: vrf red; 1 of 5 routes, 0 of 2 drop entries\n"),
      std::string::npos);
}

TEST_F(ShowFilterTest, BadFiltersAreRefusedWithTheirReason) {
  struct Case {
    std::vector<std::string> words;
    bool interfaces;
    std::string why;
  };
  for (Case const& c : std::vector<Case>{
           {{"--vrf"}, false, "--vrf needs a value"},
           {{"--colour", "red"}, false, "unknown filter '--colour'"},
           {{"--family", "inet"}, false, "--family: 'inet' is neither ipv4 nor ipv6"},
           {{"--group", "239.1.1.300"}, false, "--group: '239.1.1.300' is not an IPv4 or IPv6 address or prefix"},
           {{"--group", "239.1.1.1/33"}, false, "--group: '239.1.1.1/33' is not an IPv4 or IPv6 address or prefix"},
           {{"--group", "10.1.0.0/16"}, false, "--group: 10.1.0.0/16 is not a multicast address or prefix"},
           {{"--source", "10.1.0.2", "--source", "10.1.0.3"}, false, "--source given twice"},
           {{"--family", "ipv4", "--group", "ff3e::1"},
            false,
            "the filter mixes families: family ipv4, group ff3e::1/128 (a route has one family; give one)"},
           {{"--group", "239.1.1.1", "--source", "2001:db8::1"},
            false,
            "the filter mixes families: group 239.1.1.1/32, source 2001:db8::1/128 (a route has one family; give one)"},
           {{"--group", "239.1.1.1"}, true, "--group does not apply to interfaces (--vrf, --family and --intf do)"},
       }) {
    ShowFilter f;
    EXPECT_EQ(showFilterParse(c.words, c.interfaces, f), c.why);
    EXPECT_TRUE(f.empty());
  }
  // What a client sends parses back to the same filter.
  ShowRequest r = request(
      {"--vrf", "red", "--family", "ipv6", "--group", "ff3e::/16", "--source", "2001:db8::/32", "--intf", "eth0"},
      true);
  ShowRequest back;
  std::string why;
  ASSERT_TRUE(showRequestParse(showRequestLine(r), back, &why));
  EXPECT_EQ(why, "");
  EXPECT_TRUE(back.json);
  EXPECT_EQ(back.filter.words(), r.filter.words());
  EXPECT_FALSE(showRequestParse("show yaml", back, &why));
  EXPECT_FALSE(showRequestParse("routes text", back, &why));
}

TEST_F(ShowFilterTest, EveryRecordHasItsFamilyAndVrfAndTimesInUtc) {
  std::string const json = showJson(*engine, request({}, true), now);
  auto count = [&](std::string const& what) {
    std::size_t n = 0;
    for (std::size_t at = json.find(what); at != std::string::npos; at = json.find(what, at + 1)) ++n;
    return n;
  };
  // 5 routes, 2 entries of the (*, G), 2 drop entries; the (S, G) routes of
  // the default VRF have one entry each.
  EXPECT_EQ(count("\"family\": "), 5u + 2 + 2 + 3);
  EXPECT_EQ(count("\"vrf\": "), 5u + 2 + 2 + 3);
  EXPECT_EQ(count("\"family\": \"ipv6\""), 3u);
  EXPECT_EQ(count("\"vrf\": \"red\""), 1u);
  EXPECT_EQ(json.rfind("{\"version\": 1, \"time\": \"2025-11-24T16:00:00.000Z\", \"filter\": \"none\", ", 0), 0u)
      << json;
  // A route published at 1 µs of the engine's clock, shown at 64 s.
  EXPECT_NE(json.find("\"family\": \"ipv4\", \"state\": \"installed\", \"since\": \"2025-11-24T15:58:56.000Z\", "
                      "\"changed\": \"2025-11-24T15:58:56.000Z\", \"uptime\": 64.000}"),
            std::string::npos)
      << json;
  // The (*, G) route, from 2 s, waiting for nobody: its entries came at once.
  EXPECT_NE(json.find("\"state\": \"installed\", \"since\": \"2025-11-24T15:58:58.000Z\""), std::string::npos);
  // A drop entry of 4 s goes 60 s later unless a packet comes.
  EXPECT_NE(json.find("\"since\": \"2025-11-24T15:59:00.000Z\", \"uptime\": 60.000, "
                      "\"expires\": \"2025-11-24T16:00:00.000Z\", \"expiresIn\": 0.000, \"iif\": \"Ethernet3\"}"),
            std::string::npos)
      << json;
  std::string const text = showText(*engine, request({"--family", "ipv4", "--vrf", "default"}), now);
  EXPECT_NE(text.find("(10.1.0.2, 239.1.1.1)  Iif: Ethernet1  Oifs: Ethernet2  State: installed  Uptime: 00:01:03\n"
                      "    Owner: static prio 1  Oif set: "),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("(10.1.0.2, 239.9.9.9)  Iif: Ethernet3  State: installed  Uptime: 00:01:00  Expires: now"),
            std::string::npos)
      << text;
  EXPECT_EQ(utcText(-1), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(durationText(3ull * 86400'000'000'000 + 3'723'000'000'000), "3d01:02:03");
}

TEST_F(ShowFilterTest, InterfacesAreListedPerFamilyAndFilteredByNameOrFamily) {
  engine->handleLink(IntfId("Ethernet2"), false);
  std::string const text = showAnswerOf(*engine, request({"--intf", "Ethernet2"}, false, true), now);
  EXPECT_NE(text.find("Family  VIF  Interface  Linux name  Ifindex  State  Pkts in  Bytes in  Pkts out  Bytes out\n"
                      "ipv4      2  Ethernet2  Ethernet2        12  down         0         0         0          0\n"
                      "ipv6      2  Ethernet2  Ethernet2        12  down         0         0         0          0\n\n"),
            std::string::npos)
      << text;
  std::string const json = showAnswerOf(*engine, request({"--family", "ipv6"}, true, true), now);
  EXPECT_NE(json.find("\"interfaces\": [{\"vrf\": \"default\", \"family\": \"ipv6\", \"vif\": 1, \"intf\": "
                      "\"Ethernet1\", \"linuxName\": \"Ethernet1\", \"ifIndex\": 11, \"state\": \"up\", "),
            std::string::npos)
      << json;
  EXPECT_EQ(json.find("\"ipv4\""), std::string::npos);
}

}  // namespace MrouteAgentTest
