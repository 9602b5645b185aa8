#include "Kiv/EventLoop.h"

#include <errno.h>
#include <sys/epoll.h>

#include <time.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/System.h"

namespace Kiv {
namespace {
double realNow() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}
}  // namespace

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) throw ErrnoException("epoll_create1", errno);
}

EventLoop::~EventLoop() = default;

void EventLoop::readableIs(int fd, Callback cb) {
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  bool known = readers_.count(fd) != 0;
  if (::epoll_ctl(epoll_.fd(), known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &ev) < 0) {
    throw ErrnoException("epoll_ctl", errno);
  }
  readers_[fd] = std::make_shared<Callback>(std::move(cb));
}

void EventLoop::readableDel(int fd) {
  if (readers_.erase(fd) == 0) return;
  // The descriptor may already be closed, which removed it from the set.
  ::epoll_ctl(epoll_.fd(), EPOLL_CTL_DEL, fd, nullptr);
}

EventLoop::TimerId EventLoop::timerIs(double delaySeconds, Callback cb) {
  TimerId id = nextTimer_++;
  auto it = timers_.emplace(System::currentTime() + delaySeconds, Timer{id, std::make_shared<Callback>(std::move(cb))});
  timerIndex_[id] = it;
  return id;
}

void EventLoop::timerDel(TimerId id) {
  auto it = timerIndex_.find(id);
  if (it == timerIndex_.end()) return;
  timers_.erase(it->second);
  timerIndex_.erase(it);
}

int EventLoop::runTimers() {
  int ran = 0;
  double now = System::currentTime();
  // Timers added by a callback for "now" wait for the next turn, so a timer
  // that re-arms itself with delay 0 cannot starve descriptors.
  std::vector<TimerId> due;
  for (auto it = timers_.begin(); it != timers_.end() && it->first <= now; ++it) due.push_back(it->second.id);
  for (TimerId id : due) {
    auto idx = timerIndex_.find(id);
    if (idx == timerIndex_.end()) continue;  // deleted by an earlier callback
    std::shared_ptr<Callback> cb = idx->second->second.cb;
    timers_.erase(idx->second);
    timerIndex_.erase(idx);
    (*cb)();
    ++ran;
  }
  return ran;
}

int EventLoop::runOnce(double timeoutSeconds) {
  int waitMs;
  if (!timers_.empty()) {
    double untilTimer = std::max(0.0, timers_.begin()->first - System::currentTime());
    if (timeoutSeconds < 0 || untilTimer < timeoutSeconds) timeoutSeconds = untilTimer;
  }
  waitMs = timeoutSeconds < 0 ? -1 : int(std::ceil(timeoutSeconds * 1000.0));
  epoll_event events[64];
  int n = ::epoll_wait(epoll_.fd(), events, 64, waitMs);
  if (n < 0) {
    if (errno != EINTR) throw ErrnoException("epoll_wait", errno);
    n = 0;
  }
  int ran = 0;
  for (int i = 0; i < n; ++i) {
    auto it = readers_.find(events[i].data.fd);
    if (it == readers_.end()) continue;  // removed by an earlier callback
    std::shared_ptr<Callback> cb = it->second;
    (*cb)();
    ++ran;
  }
  return ran + runTimers();
}

bool EventLoop::runUntil(std::function<bool()> const& done, double timeoutSeconds) {
  // The deadline is real time: under a fake clock that nobody moves, the
  // wait must still end.
  double end = realNow() + timeoutSeconds;
  while (!done()) {
    double left = end - realNow();
    if (left <= 0) return done();
    runOnce(std::min(left, 0.05));
  }
  return true;
}

}  // namespace Kiv
