// MrouteAgent::RoutingSocketReader: reads the kernel's multicast routing
// socket in batches (recvmmsg), and the kernel's count of what it could not
// queue there (SO_RXQ_OVFL).
//
//   RoutingSocketReader r(mfc.fd(), [&](std::uint8_t const* p, std::size_t n) { parse(p, n); });
//   loop.readableIs(mfc.fd(), [&] { r.handleReadable(); });
//
// The routing socket receives every upcall of its table (and, for IPv4, the
// IGMP packets of the network). Where the agent takes its reports from
// netlink, the reader is given no datagram callback and only empties the
// socket, so the queue never holds memory; the kernel still needs room in
// it, because it keeps a flow's first packet only if it could queue the
// upcall. Each datagram the kernel queued carries its socket's drop count,
// which tells how many upcalls it could not queue; dropsSeen() follows it
// and onDrops (if set) hears of every rise. A datagram longer than
// datagramMax arrives cut and is counted in truncated(), not handed on.
// All calls go through Wirly::Sys.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace MrouteAgent {

class RoutingSocketReader {
 public:
  using Datagram = std::function<void(std::uint8_t const*, std::size_t)>;
  using Drops = std::function<void(std::uint64_t)>;
  static constexpr unsigned batch = 64;
  // A whole-packet upcall carries a packet of up to a jumbo frame.
  static constexpr std::size_t datagramMax = 9216 + 64;

  RoutingSocketReader(int fd, Datagram onDatagram);
  RoutingSocketReader(RoutingSocketReader const&) = delete;
  RoutingSocketReader& operator=(RoutingSocketReader const&) = delete;

  void dropsIs(Drops d) { onDrops_ = std::move(d); }
  // Reads up to maxBatches batches, or until the socket is empty; returns
  // the datagrams read. The rest waits for the next readable turn, so one
  // socket cannot hold the loop.
  std::size_t handleReadable(unsigned maxBatches = 16);

  std::uint64_t datagrams() const { return datagrams_; }
  std::uint64_t truncated() const { return truncated_; }
  // The kernel's drop count as last seen, from the first datagram read.
  std::uint64_t dropsSeen() const { return drops_; }

 private:
  struct Slot {
    std::vector<std::uint8_t> data;
    alignas(cmsghdr) std::uint8_t control[CMSG_SPACE(sizeof(std::uint32_t))];
  };
  void doDropCount(msghdr const& m);

  int fd_;
  Datagram onDatagram_;
  Drops onDrops_;
  std::vector<Slot> slots_;
  std::vector<iovec> iov_;
  std::vector<mmsghdr> msgs_;
  std::uint64_t datagrams_ = 0;
  std::uint64_t truncated_ = 0;
  std::uint32_t lastCount_ = 0;
  std::uint64_t drops_ = 0;
};

}  // namespace MrouteAgent
