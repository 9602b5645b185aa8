#include "Wirly/Pam.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>

#include "Kiv/EventLoop.h"
#include "Wirly/PamFdSm.h"
#include "Wirly/Pkt.h"

namespace {

TEST(PktTest, WindowMovesWithoutCopying) {
  auto p = Wirly::PktManager::global().newPkt(100);
  ASSERT_TRUE(p);
  EXPECT_GE(p->capacity(), 100u);
  std::uint8_t const bytes[6] = {0x45, 1, 2, 3, 4, 5};
  p->headDataIs(bytes, sizeof(bytes));
  std::uint8_t* const start = p->data();
  EXPECT_EQ(p->ipv4HeaderBytes(), 20u);
  p->removeHead(2);
  EXPECT_EQ(p->data(), start + 2);
  EXPECT_EQ(p->firstSeg().len, 4u);
  EXPECT_EQ(p->data()[0], 2);
  p->trim(10);
  EXPECT_EQ(p->len(), 4u) << "trimming never lengthens";
  p->trim(1);
  EXPECT_EQ(p->len(), 1u);
  EXPECT_FALSE(Wirly::PktManager::global().newPkt(Wirly::PktManager::maxCapacity + 1));
}

TEST(PktTest, ReleasedPacketsAreReusedWithoutAllocating) {
  Wirly::PktManager m;
  std::uint8_t* first;
  {
    auto a = m.newPkt(1490);
    a->headDataIs(8);
    a->removeHead(4);
    first = a->data() - 4;
  }
  EXPECT_EQ(m.pooled(), 1u);
  for (int i = 0; i < 1000; ++i) {
    auto p = m.newPkt(1490);
    EXPECT_EQ(p->offset(), 0u);
    EXPECT_EQ(p->len(), 0u);
    EXPECT_EQ(p->data(), first);
  }
  EXPECT_EQ(m.allocations(), 1u);
  auto big = m.newPkt(65535);
  EXPECT_EQ(m.allocations(), 2u) << "another size class has its own pool";
  EXPECT_GE(big->capacity(), 65535u);
}

// A Pam over one end of a socket pair: the read step takes one datagram.
class PairPam : public Wirly::Pam {
 public:
  class NotifieeConst : public Wirly::Pam::NotifieeConst {
   public:
    using Wirly::Pam::NotifieeConst::NotifieeConst;
    virtual void onReads() {}
  };
  static Kiv::Ptr<PairPam> make(int fd) { return new PairPam(fd); }
  void doGetRxPkt() override {
    auto p = Wirly::PktManager::global().newPkt(64);
    p->headDataIs(64);
    ssize_t n = ::recv(fd_, p->data(), p->len(), MSG_DONTWAIT);
    ++reads;
    notifyAs(&NotifieeConst::onReads);
    if (n <= 0) return;
    p->trim(std::size_t(n));
    doRxPktEnqueue(p);
  }
  void registered(bool on) { fdSm_ = on ? new Wirly::PamFdSm(this, fd_) : nullptr; }
  int reads = 0;

 private:
  explicit PairPam(int fd) : Wirly::Pam("pair"), fd_(fd) {}
  int fd_;
  Kiv::Ptr<Wirly::PamFdSm> fdSm_;
};

class PamTest : public ::testing::Test {
 protected:
  PamTest() { ::socketpair(AF_UNIX, SOCK_DGRAM, 0, sv); }
  ~PamTest() override {
    pam = nullptr;
    ::close(sv[0]);
    ::close(sv[1]);
  }
  void send(char const* s) { ASSERT_GT(::send(sv[1], s, std::strlen(s), 0), 0); }
  int sv[2];
  Kiv::Ptr<PairPam> pam;
};

// Drains the Pam from its hook, as an upcall review does.
struct Drainer : Wirly::Pam::NotifieeConst {
  explicit Drainer(Kiv::Ptr<PairPam> const& p) : NotifieeConst(p), pam(p) {}
  void onReadableCount() override {
    ++wakeups;
    ++depth;
    maxDepth = std::max(maxDepth, depth);
    while (auto p = pam->rxPkt()) ++packets;
    --depth;
  }
  Kiv::Ptr<PairPam> pam;
  int wakeups = 0, packets = 0, depth = 0, maxDepth = 0;
};

TEST_F(PamTest, LevelTriggeredLoopDrivesTheReadStepAndTheHookDrainsWithoutReentry) {
  Kiv::EventLoop loop;
  pam = PairPam::make(sv[0]);
  pam->eventLoopIs(&loop);
  pam->registered(true);
  Drainer d(pam);
  send("a");
  send("b");
  send("c");
  loop.runUntil([&] { return d.packets == 3; }, 2.0);
  EXPECT_EQ(d.packets, 3);
  EXPECT_EQ(d.wakeups, 1) << "packets pulled from inside the hook announce nothing";
  EXPECT_EQ(d.maxDepth, 1);
  EXPECT_EQ(pam->readableCount(), 0u);

  pam->registered(false);
  send("d");
  loop.runOnce(0.05);
  EXPECT_EQ(d.packets, 3) << "an unregistered reactor reads nothing";
}

TEST_F(PamTest, DerivedHooksReachOnlyDerivedNotifiees) {
  pam = PairPam::make(sv[0]);
  struct Derived : PairPam::NotifieeConst {
    using PairPam::NotifieeConst::NotifieeConst;
    void onReads() override { ++n; }
    int n = 0;
  };
  Drainer plain(pam);  // registered first: must be skipped, not miscast
  Derived derived{Kiv::Ptr<Wirly::Pam const>(pam)};
  pam->rxPkt();
  EXPECT_EQ(derived.n, 1);
}

TEST_F(PamTest, FullQueueDropsAndCounts) {
  pam = PairPam::make(sv[0]);
  pam->rxQueueLimitIs(2);
  for (char const* s : {"1", "2", "3"}) {
    send(s);
    pam->doGetRxPkt();
  }
  EXPECT_EQ(pam->readableCount(), 2u);
  EXPECT_EQ(pam->rxQueueDrops(), 1u);
  EXPECT_EQ(pam->rxPkt()->data()[0], '1');
}

}  // namespace
