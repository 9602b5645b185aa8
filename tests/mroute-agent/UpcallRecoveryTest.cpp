// The recovery of lost upcalls and the routing socket's reader, through the
// system-call seam: a dump of the kernel's table is asked for only after the
// kernel signalled a loss, once the report queues are empty, and no sooner
// than the gap after the last one; the routing socket's drop count is
// followed across datagrams.
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "Kiv/EventLoop.h"
#include "Kiv/System.h"
#include "RoutingSocketReader.h"
#include "UpcallRecovery.h"
#include "Wirly/Sys.h"

namespace MrouteAgentTest {

using MrouteAgent::RoutingSocketReader;
using MrouteAgent::UpcallRecovery;

// The kernel as the two readers see it: dump requests are recorded and
// answered with the unresolved flows the test holds; routing socket
// datagrams come from a queue, each with an optional drop count.
class RecoverySys : public Wirly::Sys {
 public:
  struct Datagram {
    std::vector<std::uint8_t> bytes;
    long dropCount = -1;  // -1: no SO_RXQ_OVFL message
  };
  RecoverySys() : use_(this) {}
  ~RecoverySys() override {
    for (int fd : open_) ::close(fd);
  }

  std::vector<std::uint8_t> dumpFamilies;  // rtm_family of each dump request
  std::vector<std::uint32_t> unresolved4;  // groups held unresolved, source 10.0.0.1
  std::deque<Datagram> routing;            // what the routing socket holds
  int routingFd = -1;

  int socket(int, int, int) override {
    int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    open_.insert(fd);
    return fd;
  }
  int bind(int, sockaddr const*, socklen_t) override { return 0; }
  int setsockopt(int, int, int, void const*, socklen_t) override { return 0; }
  int close(int fd) override {
    open_.erase(fd);
    return ::close(fd);
  }
  ssize_t sendmsg(int, msghdr const* msg, int) override {
    auto const* p = static_cast<std::uint8_t const*>(msg->msg_iov[0].iov_base);
    rtmsg rt;
    std::memcpy(&rt, p + NLMSG_HDRLEN, sizeof rt);
    dumpFamilies.push_back(rt.rtm_family);
    answer_ = true;
    return ssize_t(msg->msg_iov[0].iov_len);
  }
  ssize_t recv(int, void* buf, size_t len, int) override {
    if (!answer_) {
      errno = EAGAIN;
      return -1;
    }
    answer_ = false;
    std::vector<std::uint8_t> d;
    for (std::uint32_t g : unresolved4) {
      std::uint32_t const src = htonl(0x0a000001), grp = htonl(g);
      rtmsg rt{};
      rt.rtm_family = 128;
      rt.rtm_flags = RTNH_F_UNRESOLVED;
      message(d, RTM_NEWROUTE, &rt, sizeof rt, {{RTA_SRC, src}, {RTA_DST, grp}});
    }
    std::uint32_t const zero = 0;
    message(d, NLMSG_DONE, &zero, sizeof zero, {});
    std::memcpy(buf, d.data(), std::min(len, d.size()));
    return ssize_t(d.size());
  }
  int recvmmsg(int fd, mmsghdr* msgs, unsigned n, int) override {
    if (fd != routingFd || routing.empty()) {
      errno = EAGAIN;
      return -1;
    }
    unsigned i = 0;
    for (; i < n && !routing.empty(); ++i) {
      Datagram const d = routing.front();
      routing.pop_front();
      msghdr& h = msgs[i].msg_hdr;
      std::size_t const room = h.msg_iov[0].iov_len;
      std::memcpy(h.msg_iov[0].iov_base, d.bytes.data(), std::min(room, d.bytes.size()));
      msgs[i].msg_len = unsigned(d.bytes.size());
      h.msg_flags = d.bytes.size() > room ? MSG_TRUNC : 0;
      if (d.dropCount < 0) {
        h.msg_controllen = 0;
        continue;
      }
      cmsghdr* c = CMSG_FIRSTHDR(&h);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SO_RXQ_OVFL;
      c->cmsg_len = CMSG_LEN(sizeof(std::uint32_t));
      std::uint32_t const v = std::uint32_t(d.dropCount);
      std::memcpy(CMSG_DATA(c), &v, sizeof v);
      h.msg_controllen = CMSG_SPACE(sizeof v);
    }
    return int(i);
  }

 private:
  static void message(std::vector<std::uint8_t>& d, std::uint16_t type, void const* fixed, std::size_t len,
                      std::vector<std::pair<std::uint16_t, std::uint32_t>> attrs) {
    std::size_t const at = d.size();
    d.resize(at + NLMSG_HDRLEN + NLMSG_ALIGN(len));
    std::memcpy(d.data() + at + NLMSG_HDRLEN, fixed, len);
    for (auto const& [t, v] : attrs) {
      rtattr a{};
      a.rta_len = RTA_LENGTH(sizeof v);
      a.rta_type = t;
      std::size_t const ra = d.size();
      d.resize(ra + RTA_SPACE(sizeof v));
      std::memcpy(d.data() + ra, &a, sizeof a);
      std::memcpy(d.data() + ra + RTA_LENGTH(0), &v, sizeof v);
    }
    nlmsghdr h{};
    h.nlmsg_len = std::uint32_t(d.size() - at);
    h.nlmsg_type = type;
    std::memcpy(d.data() + at, &h, sizeof h);
  }

  Wirly::SysOverride use_;
  std::set<int> open_;
  bool answer_ = false;
};

class UpcallRecoveryTest : public testing::Test {
 protected:
  UpcallRecoveryTest() {
    rec_ = UpcallRecovery::upcallRecoveryIs(
        "upcallRecovery", &loop_, [this](Wirly::AddressFamily, Wirly::IpGenAddr const& s, Wirly::IpGenAddr const& g) {
          found_.push_back(s.str() + " " + g.str());
        });
    // Settle 1 ms, scan anyway after 0.5 s, scans 0.5 s apart: margins a busy
    // machine keeps.
    rec_->settingsIs({0.001, 0.5, 0.5});
    rec_->pendingIs([this] { return queued_; });
    rec_->familyIs(Wirly::ipv4);
  }
  void runFor(double seconds) {
    double const end = Kiv::System::currentTime() + seconds;
    while (Kiv::System::currentTime() < end) loop_.runOnce(0.005);
  }

  RecoverySys sys_;
  Kiv::EventLoop loop_;
  Kiv::Ptr<UpcallRecovery> rec_;
  std::vector<std::string> found_;
  bool queued_ = false;
};

TEST_F(UpcallRecoveryTest, NothingLostNothingRead) {
  sys_.unresolved4 = {0xe1010001};
  runFor(0.05);
  EXPECT_TRUE(sys_.dumpFamilies.empty());
  // A loss of a family the agent does not program reads nothing either.
  rec_->handleLoss(Wirly::ipv6);
  runFor(0.05);
  EXPECT_TRUE(sys_.dumpFamilies.empty());
  EXPECT_FALSE(rec_->scanDue());
  EXPECT_EQ(rec_->lossSignals(), 1u);
}

TEST_F(UpcallRecoveryTest, AnOverrunIsOneScanOnceTheQueuesAreReadEmpty) {
  sys_.unresolved4 = {0xe1010001, 0xe1010002};
  queued_ = true;
  rec_->handleLoss(Wirly::ipv4);
  rec_->handleLoss(Wirly::ipv4);
  runFor(0.05);
  EXPECT_TRUE(sys_.dumpFamilies.empty()) << "scanned while reports were still queued";
  queued_ = false;
  runFor(0.05);
  ASSERT_EQ(sys_.dumpFamilies, std::vector<std::uint8_t>{128});
  EXPECT_EQ(found_, (std::vector<std::string>{"10.0.0.1 225.1.0.1", "10.0.0.1 225.1.0.2"}));
  EXPECT_EQ(rec_->scans(), 1u);
  EXPECT_EQ(rec_->flowsFound(), 2u);
  EXPECT_FALSE(rec_->scanDue());
}

TEST_F(UpcallRecoveryTest, QueuesThatNeverEmptyDelayTheScanOnlySoLong) {
  queued_ = true;
  rec_->handleLoss(Wirly::ipv4);
  runFor(0.2);
  EXPECT_TRUE(sys_.dumpFamilies.empty());
  runFor(0.5);
  EXPECT_EQ(sys_.dumpFamilies.size(), 1u);
}

TEST_F(UpcallRecoveryTest, ASustainedOverrunIsOneScanPerGap) {
  rec_->handleLoss(Wirly::ipv4);
  runFor(0.03);
  ASSERT_EQ(sys_.dumpFamilies.size(), 1u);
  double const first = Kiv::System::currentTime();
  // Losses keep coming: the next scan waits out the gap and covers them all.
  while (Kiv::System::currentTime() - first < 0.2) {
    rec_->handleLoss(Wirly::ipv4);
    runFor(0.01);
  }
  EXPECT_EQ(sys_.dumpFamilies.size(), 1u);
  runFor(0.5);
  EXPECT_EQ(sys_.dumpFamilies.size(), 2u);
  runFor(0.6);
  EXPECT_EQ(sys_.dumpFamilies.size(), 2u) << "a scan without a loss since the last one";
}

TEST_F(UpcallRecoveryTest, StartUpScanReadsEveryFamilyAndTakesAPendingOne) {
  rec_->familyIs(Wirly::ipv6);
  queued_ = true;
  rec_->handleLoss(Wirly::ipv4);
  rec_->doScan();
  EXPECT_EQ(sys_.dumpFamilies, (std::vector<std::uint8_t>{128, 129}));
  EXPECT_FALSE(rec_->scanDue());
  queued_ = false;
  runFor(0.05);
  EXPECT_EQ(sys_.dumpFamilies.size(), 2u);
}

TEST(RoutingSocketReaderTest, DropCountRisesAreFollowedAcrossDatagramsAndWraps) {
  RecoverySys sys;
  sys.routingFd = sys.socket(AF_INET, SOCK_RAW, 0);
  std::vector<std::size_t> lengths;
  RoutingSocketReader r(sys.routingFd, [&](std::uint8_t const*, std::size_t n) { lengths.push_back(n); });
  std::vector<std::uint64_t> rises;
  r.dropsIs([&](std::uint64_t n) { rises.push_back(n); });
  sys.routing = {{std::vector<std::uint8_t>(28), -1},
                 {std::vector<std::uint8_t>(28), 5},
                 {std::vector<std::uint8_t>(28), 5},
                 {std::vector<std::uint8_t>(RoutingSocketReader::datagramMax + 1), 12},
                 {std::vector<std::uint8_t>(80), 0xfffffffe},
                 {std::vector<std::uint8_t>(80), 3}};
  EXPECT_EQ(r.handleReadable(), 6u);
  EXPECT_EQ(rises, (std::vector<std::uint64_t>{5, 7, 0xfffffff2, 5}));
  EXPECT_EQ(r.dropsSeen(), 0x100000003u);
  // The cut datagram counts and goes no further.
  EXPECT_EQ(lengths, (std::vector<std::size_t>{28, 28, 28, 80, 80}));
  EXPECT_EQ(r.truncated(), 1u);
}

TEST(RoutingSocketReaderTest, OneTurnReadsAtMostItsBatches) {
  RecoverySys sys;
  sys.routingFd = sys.socket(AF_INET, SOCK_RAW, 0);
  RoutingSocketReader r(sys.routingFd, nullptr);
  for (unsigned i = 0; i < 3 * RoutingSocketReader::batch + 1; ++i)
    sys.routing.push_back({std::vector<std::uint8_t>(28), -1});
  EXPECT_EQ(r.handleReadable(2), 2 * RoutingSocketReader::batch);
  EXPECT_EQ(r.handleReadable(), RoutingSocketReader::batch + 1);
  EXPECT_EQ(r.handleReadable(), 0u);
  EXPECT_EQ(r.datagrams(), 3 * RoutingSocketReader::batch + 1);
}

}  // namespace MrouteAgentTest
