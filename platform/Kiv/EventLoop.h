// The agent's event loop: epoll, level-triggered. Callbacks run on the
// thread that turns the loop, one at a time; a callback may add or remove
// descriptors and timers, including its own.
//
//   Kiv::EventLoop loop;
//   loop.readableIs(fd, [&] { drain(fd); });
//   loop.timerIs(0.5, [&] { review(); });
//   loop.runUntil([&] { return done; }, 5.0);
//
// Timers are measured on Kiv::System::currentTime(), so under a FakeClock
// they fire when the test moves the clock and turns the loop.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "Kiv/FileDesc.h"

namespace Kiv {

class EventLoop {
 public:
  using Callback = std::function<void()>;
  using TimerId = std::uint64_t;

  EventLoop();
  ~EventLoop();
  EventLoop(EventLoop const&) = delete;
  EventLoop& operator=(EventLoop const&) = delete;

  // Runs cb whenever fd is readable (replacing an earlier callback for fd).
  void readableIs(int fd, Callback cb);
  void readableDel(int fd);
  bool readable(int fd) const { return readers_.count(fd) != 0; }

  // One-shot timer, delaySeconds from now. Returns an id for timerDel.
  TimerId timerIs(double delaySeconds, Callback cb);
  void timerDel(TimerId id);
  std::size_t timers() const { return timers_.size(); }

  // Waits up to timeoutSeconds (0: just look; negative: until an event or a
  // timer) and runs what is ready. Returns the number of callbacks run.
  int runOnce(double timeoutSeconds);
  // Turns the loop until done() is true or timeoutSeconds of real time have
  // passed; returns done().
  bool runUntil(std::function<bool()> const& done, double timeoutSeconds);

  // The epoll descriptor, for nesting this loop in another.
  int fd() const { return epoll_.fd(); }

 private:
  int runTimers();

  FileDesc epoll_;
  std::unordered_map<int, std::shared_ptr<Callback>> readers_;
  struct Timer {
    TimerId id;
    std::shared_ptr<Callback> cb;
  };
  std::multimap<double, Timer> timers_;
  std::unordered_map<TimerId, std::multimap<double, Timer>::iterator> timerIndex_;
  TimerId nextTimer_ = 1;
};

}  // namespace Kiv
