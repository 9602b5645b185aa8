#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDesc.h"
#include "Kiv/System.h"

namespace {

struct Pipe {
  Pipe() {
    int fds[2];
    EXPECT_EQ(::pipe(fds), 0);
    r = Kiv::FileDesc(fds[0]);
    w = Kiv::FileDesc(fds[1]);
  }
  void put(char c) { ASSERT_EQ(::write(w.fd(), &c, 1), 1); }
  char take() {
    char c = 0;
    EXPECT_EQ(::read(r.fd(), &c, 1), 1);
    return c;
  }
  Kiv::FileDesc r, w;
};

TEST(EventLoop, RunsTheCallbackOfAReadableDescriptorUntilItIsDrained) {
  Kiv::EventLoop loop;
  Pipe p;
  std::vector<char> got;
  loop.readableIs(p.r.fd(), [&] { got.push_back(p.take()); });
  EXPECT_EQ(loop.runOnce(0), 0);
  p.put('a');
  p.put('b');
  // Level-triggered: one byte per turn, and the descriptor stays ready.
  EXPECT_EQ(loop.runOnce(1.0), 1);
  EXPECT_EQ(loop.runOnce(1.0), 1);
  EXPECT_EQ(loop.runOnce(0), 0);
  EXPECT_EQ(got, (std::vector<char>{'a', 'b'}));
}

TEST(EventLoop, CallbackMayRemoveItselfAndAnotherDescriptor) {
  Kiv::EventLoop loop;
  Pipe p1, p2;
  int calls = 0;
  auto cb = [&] {
    ++calls;
    loop.readableDel(p1.r.fd());
    loop.readableDel(p2.r.fd());
  };
  loop.readableIs(p1.r.fd(), cb);
  loop.readableIs(p2.r.fd(), cb);
  p1.put('x');
  p2.put('y');
  loop.runOnce(1.0);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(loop.readable(p1.r.fd()));
  EXPECT_EQ(loop.runOnce(0), 0);
}

TEST(EventLoop, TimersFireInDueOrderOnTheFakeClockAndCanBeCancelled) {
  Kiv::FakeClock clock;
  Kiv::EventLoop loop;
  std::vector<int> fired;
  loop.timerIs(2.0, [&] { fired.push_back(2); });
  loop.timerIs(1.0, [&] { fired.push_back(1); });
  auto gone = loop.timerIs(1.5, [&] { fired.push_back(15); });
  loop.timerDel(gone);
  EXPECT_EQ(loop.runOnce(0), 0);
  clock.advance(1.0);
  EXPECT_EQ(loop.runOnce(0), 1);
  clock.advance(5.0);
  EXPECT_EQ(loop.runOnce(0), 1);
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_EQ(loop.timers(), 0u);
}

TEST(EventLoop, TimerArmedFromATimerWaitsForTheNextTurn) {
  Kiv::FakeClock clock;
  Kiv::EventLoop loop;
  int runs = 0;
  std::function<void()> rearm = [&] {
    ++runs;
    loop.timerIs(0, rearm);
  };
  loop.timerIs(0, rearm);
  loop.runOnce(0);
  loop.runOnce(0);
  EXPECT_EQ(runs, 2);
}

TEST(EventLoop, RunUntilStopsOnTheConditionOrAfterItsTimeout) {
  Kiv::EventLoop loop;
  Pipe p;
  bool seen = false;
  loop.readableIs(p.r.fd(), [&] {
    p.take();
    seen = true;
  });
  p.put('z');
  EXPECT_TRUE(loop.runUntil([&] { return seen; }, 2.0));
  double start = Kiv::System::currentTime();
  EXPECT_FALSE(loop.runUntil([] { return false; }, 0.1));
  EXPECT_GE(Kiv::System::currentTime() - start, 0.09);
}

TEST(EventLoop, RunUntilEndsUnderAFrozenFakeClock) {
  Kiv::FakeClock clock;
  Kiv::EventLoop loop;
  EXPECT_FALSE(loop.runUntil([] { return false; }, 0.05));
}

TEST(FileDesc, SwitchesNonBlockingAndClosesOnce) {
  Pipe p;
  EXPECT_FALSE(p.r.nonBlocking());
  p.r.nonBlockingIs(true);
  EXPECT_TRUE(p.r.nonBlocking());
  char c;
  EXPECT_EQ(::read(p.r.fd(), &c, 1), -1);
  int fd = p.r.fd();
  p.r.close();
  EXPECT_FALSE(p.r.valid());
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
  Kiv::FileDesc bad(fd);
  EXPECT_THROW(bad.nonBlockingIs(true), Kiv::ErrnoException);
  bad.release();
}

TEST(ErrnoException, NamesTheCallAndKeepsErrno) {
  Kiv::ErrnoException e("socket", EPERM);
  EXPECT_EQ(e.call(), "socket");
  EXPECT_EQ(e.error(), EPERM);
  EXPECT_STREQ(e.what(), "socket: Operation not permitted");
}

}  // namespace
