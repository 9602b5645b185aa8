// MrouteAgent::LinkWatch: the operational state of the agent's interfaces,
// from rtnetlink link messages (RTM_NEWLINK / RTM_DELLINK on
// RTNLGRP_LINK). An interface is up when it is administratively up and has
// its carrier (IFF_UP and IFF_RUNNING); a deleted interface is down.
//
//   LinkWatch links([&](int ifIndex, bool up) { engine.handleLink(idOf(ifIndex), up); });
//   links.open();                              // socket + bind + a dump of every link
//   loop.readableIs(links.fd(), [&] { links.handleReadable(); });
//
// Every link message reports the state as it is now, so the callback runs
// for every message of a watched index; whoever holds the state drops
// repeats. All calls go through Wirly::Sys. Messages are parsed only within
// their nlmsg_len and the datagram; a short or malformed one is skipped and
// counted in malformed().
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace MrouteAgent {

class LinkWatch {
 public:
  using Callback = std::function<void(int ifIndex, bool up)>;
  struct Event {
    int ifIndex;
    bool up;
  };

  explicit LinkWatch(Callback cb) : cb_(std::move(cb)) {}
  ~LinkWatch();
  LinkWatch(LinkWatch const&) = delete;
  LinkWatch& operator=(LinkWatch const&) = delete;

  // Throws Kiv::ErrnoException naming the failed call.
  void open();
  int fd() const { return fd_; }
  // Reads what is queued (without blocking) and reports each link.
  void handleReadable();
  // After ENOBUFS the state may be stale: asks the kernel for every link again.
  void doDump();

  std::uint64_t malformed() const { return malformed_; }
  std::uint64_t overruns() const { return overruns_; }

  // The link events of one datagram.
  static std::vector<Event> parse(std::uint8_t const* buf, std::size_t len, std::uint64_t* malformed = nullptr);

 private:
  Callback cb_;
  int fd_ = -1;
  std::uint32_t seq_ = 0;
  std::uint64_t malformed_ = 0;
  std::uint64_t overruns_ = 0;
};

}  // namespace MrouteAgent
